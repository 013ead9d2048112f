#include "memory.h"

#include <algorithm>
#include <atomic>
#include <fstream>

#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr int MapFromBytes = 33 << 20; // by malloc, each time anew
constexpr int TrimFromBytes = 16 << 20; // that are free at the end of an arena
constexpr qsizetype SmallBufferBytes = 2 << 20;
constexpr qsizetype LargeBufferBytes = 64 << 20;
constexpr qsizetype ManyBytes = 256 << 10; // of messages, after which it is seen what is free
constexpr qsizetype KeptFreeBytes = 32 << 20; // beyond which it goes back

// What malloc has and nobody uses. In its own count that stays free which went back to the system,
// and is not resident any more (statm of proc(5), in pages).
qsizetype freeBytes()
{
    qsizetype size = 0;
    qsizetype resident = 0;
    qsizetype ofFiles = 0;
    std::ifstream("/proc/self/statm") >> size >> resident >> ofFiles;
    const struct mallinfo2 info = mallinfo2();
    const auto used = static_cast<qsizetype>(info.uordblks) + static_cast<qsizetype>(info.hblkhd);
    return (resident - ofFiles) * sysconf(_SC_PAGESIZE) - used;
}

} // namespace

void setUpMemory()
{
    mallopt(M_MMAP_THRESHOLD, MapFromBytes);
    mallopt(M_TRIM_THRESHOLD, TrimFromBytes);
    mallopt(M_MXFAST, 0); // small blocks are joined as they are freed: a million hold up a ping
}

// A small buffer grows to twice what is needed, so that it is copied few times. A large one is
// mapped: only what is used of it takes memory, in pages of 2 MiB instead of 4 KiB (madvise(2)),
// and it goes back as soon as it is freed. What is free elsewhere goes back before: no peak has it.
void growBuffer(QByteArray &buffer, qsizetype needed)
{
    const bool isLarge = needed > SmallBufferBytes;
    const qsizetype capacity = isLarge ? std::max(2 * needed, LargeBufferBytes) : 2 * needed;
    buffer.reserve(capacity); // left to itself, it would go to the next power of two
    buffer.resize(capacity);
    if (!isLarge)
        return;
    malloc_trim(0);
    const auto page = static_cast<quintptr>(sysconf(_SC_PAGESIZE));
    char *const mapped = buffer.data() - reinterpret_cast<quintptr>(buffer.data()) % page;
    madvise(mapped, static_cast<size_t>(capacity), MADV_HUGEPAGE);
}

// The end of an arena goes back as it is freed; malloc_trim(3) gives back what is free within.
void messageHandled(qsizetype bytes)
{
    static std::atomic<qsizetype> handled = 0;
    if ((handled += bytes) < ManyBytes)
        return;
    handled = 0;
    if (freeBytes() > KeptFreeBytes)
        malloc_trim(0);
}
