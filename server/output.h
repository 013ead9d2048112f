// Standard output: every byte of it goes through here.

#pragma once

#include "json_writer.h"

// Writes messages, each a line with its line feed. If there are any, it waits for a slow client or
// another thread; what cannot be written at all is dropped: the client is gone. Any thread.
//
// For callers with a time limit that a slow client must not use up, adds to *clientIdleMs for how
// many milliseconds the client took nothing, counting stretches of Limits::ClientIdleMs or more.
void writeMessage(const JsonWriter &lines, qint64 *clientIdleMs = nullptr);
