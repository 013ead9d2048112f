#include "memory.h"

#include "server_limits.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <mutex>

#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

// Larger blocks are mapped by malloc, each time anew. Up to here they are not, also because their
// release is what makes malloc join the small blocks beside them.
constexpr int MapFromBytes = 33 << 20;
constexpr qsizetype SmallBufferBytes = 2 << 20;
constexpr qsizetype LargeBufferBytes = 64 << 20;
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

// A small buffer grows to twice what is needed, so that it is copied few times. A large one is
// mapped: only what is used of it takes memory, which is cheap to get in pages of 2 MiB instead of
// 4 KiB (madvise(2)) and goes back as soon as it is freed.
void growBuffer(QByteArray &buffer, qsizetype needed)
{
    const bool isLarge = needed > SmallBufferBytes;
    const qsizetype capacity = isLarge ? std::max(2 * needed, LargeBufferBytes) : 2 * needed;
    buffer.reserve(capacity); // left to itself, it would go to the next power of two
    buffer.resize(capacity);
    if (!isLarge)
        return;
    const auto page = static_cast<quintptr>(sysconf(_SC_PAGESIZE));
    const quintptr before = (page - reinterpret_cast<quintptr>(buffer.data()) % page) % page;
    const quintptr whole = (static_cast<quintptr>(capacity) - before) / page * page;
    madvise(buffer.data() + before, whole, MADV_HUGEPAGE);
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
