// Freed memory is kept while large messages come, and given back to the system half a second after
// the last: to get it anew for each would cost more than the message itself (a page fault for every
// 4 KiB). The reader's memory is apart from the main thread's, so that neither waits for the
// other's allocations (malloc's arenas, mallopt(3)).
//
// Callers say what happened: a message of so many bytes was handled.

#pragma once

#include <QByteArray>

// Sets malloc up; before there is a second thread.
void setUpMemory();

// Makes a buffer larger, to hold at least needed bytes. Behind what it held, its bytes are as they
// happen to be.
void growBuffer(QByteArray &buffer, qsizetype needed);

// A message of that many bytes was handled, or so many that were waiting. Any thread.
void messageHandled(qsizetype bytes);

// Whether a large one was since memory was last given back. Any thread.
[[nodiscard]] bool isMemoryKept();

// Gives back what is free if no large message came for Limits::Quiet. Main thread.
void giveMemoryBackIfDue();

// Gives it back in any case. Main thread.
void giveMemoryBack();

// What is freed while one of these exists goes back at once where malloc can: for a large message
// of the reader, whose arena the others cannot trim at its end. Any thread.
class ReleaseAtOnce
{
public:
    explicit ReleaseAtOnce(qsizetype messageBytes);
    ~ReleaseAtOnce();
    ReleaseAtOnce(const ReleaseAtOnce &) = delete;
    ReleaseAtOnce &operator=(const ReleaseAtOnce &) = delete;

private:
    const bool isWanted;
};
