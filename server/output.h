// Standard output: every byte of it goes through here.

#pragma once

#include "json_writer.h"

#include <QtGlobal>

// Writes a whole message, or several, each a line with its line feed, and waits for a client that
// is slow to take them. What cannot be written at all is dropped: the client is gone. Any thread.
void writeMessage(const JsonWriter &lines);

// The same, for whoever has a time limit running that a client must not use up: gives the
// milliseconds in which the client took nothing, where it took nothing for Limits::WaitSliceMs or
// longer.
qint64 writeMessageTimed(const JsonWriter &lines);
