// The dispatcher: what each request of the client asks for. Main thread.

#pragma once

#include "input.h"

// Handles one request to its end, and answers it; a notification is ignored.
void handle(const Request &request);
