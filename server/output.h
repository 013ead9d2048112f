// Standard output: every byte of it goes through here.

#pragma once

#include "json_writer.h"

// Writes a whole message, or several, each a line with its line feed, and waits for a client that
// is slow to take them, or what another thread writes; not where there is nothing to write. What
// cannot be written at all is dropped: the client is gone. Any thread.
//
// For callers with a time limit that a slow client must not use up, adds to *clientIdleMs for how
// many milliseconds the client took nothing, counting stretches of Limits::ClientIdleMs or more.
void writeMessage(const JsonWriter &lines, qint64 *clientIdleMs = nullptr);
