#include "memory.h"

#include "server_limits.h"

#include <atomic>
#include <cstdlib>
#include <mutex>

#include <malloc.h>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int MapFromBytes = 4 << 20; // larger blocks are mapped, and go back when they are freed
constexpr int KeptBytes = 1 << 30;
constexpr int PromptKeptBytes = 128 << 10; // malloc's own default
constexpr qsizetype LargeBytes = 262'144; // of a message that is worth giving its memory back

std::mutex g_threshold; // which is one for all threads
int g_releases = 0; // that exist

std::atomic<bool> g_isKept = false;
std::atomic<Clock::time_point> g_lastLarge;

} // namespace

void setUpMemory()
{
    mallopt(M_MMAP_THRESHOLD, MapFromBytes);
    mallopt(M_TRIM_THRESHOLD, KeptBytes);
}

void messageHandled(qsizetype bytes)
{
    if (bytes < LargeBytes)
        return;
    g_lastLarge = Clock::now();
    g_isKept = true;
}

bool isMemoryKept() { return g_isKept; }

void giveMemoryBackIfDue()
{
    if (g_isKept && Clock::now() - g_lastLarge.load() >= Limits::Quiet)
        giveMemoryBack();
}

void giveMemoryBack()
{
    g_isKept = false;
    malloc_trim(0);
}

ReleaseAtOnce::ReleaseAtOnce(qsizetype messageBytes) : isWanted(messageBytes >= LargeBytes)
{
    if (!isWanted)
        return;
    const std::lock_guard lock(g_threshold);
    if (g_releases++ == 0)
        mallopt(M_TRIM_THRESHOLD, PromptKeptBytes);
}

ReleaseAtOnce::~ReleaseAtOnce()
{
    if (!isWanted)
        return;
    // What is small was only put aside; a large block makes malloc join it and give it back.
    void *volatile const large = std::malloc(PromptKeptBytes);
    std::free(large);
    const std::lock_guard lock(g_threshold);
    if (--g_releases == 0)
        mallopt(M_TRIM_THRESHOLD, KeptBytes);
}
