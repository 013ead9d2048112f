#include "freed_memory.h"

#include "server_limits.h"

#include <cstdlib>
#include <mutex>

#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

// Larger blocks are mapped by malloc, each time anew. That of 32 MiB, which Qt's containers grow to
// when a picture of 16 MiB is parsed, is not: its page faults took a quarter of the time.
constexpr int MapFromBytes = 33 << 20;
constexpr int KeptBytes = 1 << 30;
constexpr int PromptKeptBytes = 128 << 10; // malloc's own default

std::mutex g_threshold; // which is one for all threads
int g_promptReleases = 0; // that exist

} // namespace

void keepFreedMemory()
{
    mallopt(M_MMAP_THRESHOLD, MapFromBytes);
    mallopt(M_TRIM_THRESHOLD, KeptBytes);
}

void adviseHugePages(void *data, qsizetype bytes)
{
    if (bytes < MapFromBytes)
        return;
    const auto page = static_cast<quintptr>(sysconf(_SC_PAGESIZE));
    const quintptr before = (page - reinterpret_cast<quintptr>(data) % page) % page;
    const quintptr whole = (static_cast<quintptr>(bytes) - before) / page * page;
    madvise(static_cast<char *>(data) + before, whole, MADV_HUGEPAGE);
}

PromptRelease::PromptRelease(bool isWanted) : wanted(isWanted)
{
    if (!wanted)
        return;
    const std::lock_guard lock(g_threshold);
    if (g_promptReleases++ == 0)
        mallopt(M_TRIM_THRESHOLD, PromptKeptBytes);
}

PromptRelease::~PromptRelease()
{
    if (!wanted)
        return;
    // What is small was only put aside; a large block makes malloc join it and give it back.
    void *volatile const large = std::malloc(PromptKeptBytes);
    std::free(large);
    const std::lock_guard lock(g_threshold);
    if (--g_promptReleases == 0)
        mallopt(M_TRIM_THRESHOLD, KeptBytes);
}

void FreedMemory::used(qsizetype bytes)
{
    if (bytes < Limits::LargeBytes)
        return;
    lastLarge = std::chrono::steady_clock::now();
    kept = true;
}

void FreedMemory::giveBackIfDue()
{
    if (kept && std::chrono::steady_clock::now() - lastLarge.load() >= Limits::Quiet)
        giveBack();
}

void FreedMemory::giveBack()
{
    kept = false;
    malloc_trim(0);
}
