// Freed memory goes back to the system after large messages, and after many small ones. The
// reader's memory is apart from the main thread's, so that neither waits for the other's
// allocations (malloc's arenas, mallopt(3)).

#pragma once

#include <QByteArray>

// Sets malloc up; before there is a second thread.
void setUpMemory();

// Makes a buffer larger, to hold at least needed bytes. Behind what it held, its bytes are as they
// happen to be.
void growBuffer(QByteArray &buffer, qsizetype needed);

// A message of that many bytes was handled, and what it took was freed. Any thread.
void messageHandled(qsizetype bytes);
