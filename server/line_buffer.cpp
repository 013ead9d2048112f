#include "line_buffer.h"

#include "freed_memory.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr qsizetype KeptBytes = 2 << 20; // a buffer of this size stays

// Beyond this, the next buffer is one that malloc maps by itself: only what is used of it takes
// memory, it can come in large pages, and it goes back as soon as it is freed. A shorter one uses
// freed memory again.
constexpr qsizetype MapBeyondBytes = 14 << 20;
constexpr qsizetype MappedBytes = 64 << 20;

// So that a line is copied few times while it comes in.
qsizetype grown(qsizetype needed)
{
    return needed <= MapBeyondBytes ? 2 * needed : std::max(2 * needed, MappedBytes);
}

} // namespace

char *LineBuffer::space(qsizetype wanted)
{
    if (begin == end)
        begin = end = 0;
    if (bytes.size() - end < wanted) {
        const qsizetype needed = end - begin + wanted;
        move(needed <= bytes.size() / 2 ? bytes.size() : grown(needed));
    }
    return bytes.data() + end;
}

std::optional<QByteArrayView> LineBuffer::takeLine()
{
    const QByteArrayView unread = rest();
    if (unread.size() == searched)
        return {};
    const void *const lineFeed = std::memchr(unread.data() + searched, '\n',
                                             static_cast<size_t>(unread.size() - searched));
    if (lineFeed == nullptr) {
        searched = unread.size();
        return {};
    }
    const qsizetype length = static_cast<const char *>(lineFeed) - unread.data();
    begin += length + 1;
    searched = 0;
    return unread.first(length);
}

void LineBuffer::releaseTaken()
{
    if (bytes.size() > KeptBytes && begin > 0)
        move(end - begin);
}

void LineBuffer::clear()
{
    bytes = {};
    begin = end = searched = 0;
}

// Brings what is unread to the front of a buffer of that many bytes.
void LineBuffer::move(qsizetype capacity)
{
    if (begin == 0 && capacity >= bytes.size()) {
        // Grown by the allocator, which need not copy what is large.
        bytes.reserve(capacity);
        bytes.resize(capacity);
        adviseHugePages(bytes.data(), capacity);
        return;
    }
    if (capacity == bytes.size()) {
        std::memmove(bytes.data(), bytes.data() + begin, static_cast<size_t>(end - begin));
    } else {
        QByteArray moved;
        moved.reserve(capacity);
        moved.append(rest());
        moved.resize(capacity);
        bytes = std::move(moved);
    }
    end -= begin;
    begin = 0;
}
