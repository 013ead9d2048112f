// Freed memory is kept while large messages come, and given back to the system half a second after
// the last: to get it anew for each would cost more than the message itself (a page fault for every
// 4 KiB). The reader's memory is apart from the main thread's, so that neither waits for the
// other's allocations (malloc's arenas, mallopt(3)).

#pragma once

#include <QtGlobal>

#include <atomic>
#include <chrono>

// Sets malloc up; before there is a second thread.
void keepFreedMemory();

// Makes large memory cheap to get, where the system can: in pages of 2 MiB instead of 4 KiB
// (madvise(2)). Only for what malloc maps by itself and unmaps when it is freed.
void adviseHugePages(void *data, qsizetype bytes);

// What is freed while one of these exists goes back at once where malloc can: for large memory of
// the reader, whose arena giveBack() cannot trim at its end. Any thread.
class PromptRelease
{
public:
    explicit PromptRelease(bool isWanted);
    ~PromptRelease();
    PromptRelease(const PromptRelease &) = delete;
    PromptRelease &operator=(const PromptRelease &) = delete;

private:
    const bool wanted;
};

// Whether there is memory to give back, and when.
class FreedMemory
{
public:
    // A message of that many bytes was handled. Any thread.
    void used(qsizetype bytes);

    // Whether a large one was, since memory was last given back. Any thread.
    [[nodiscard]] bool isKept() const { return kept; }

    // Gives back what is free if no large message came for Limits::Quiet, or in any case. Main
    // thread.
    void giveBackIfDue();
    void giveBack();

private:
    std::atomic<bool> kept = false;
    std::atomic<std::chrono::steady_clock::time_point> lastLarge;
};
