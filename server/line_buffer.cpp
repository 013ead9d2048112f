#include "line_buffer.h"

#include "freed_memory.h"
#include "server_limits.h"

#include <algorithm>
#include <cstring>

char *LineBuffer::space(qsizetype wanted)
{
    if (begin == end)
        begin = end = 0;
    if (bytes.size() - end < wanted) {
        // In place where that makes room enough; twice the size otherwise, so that a long line is
        // copied few times.
        const qsizetype needed = end - begin + wanted;
        move(needed <= bytes.size() / 2 ? bytes.size() : std::max(needed, (end - begin) * 2));
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
    if (begin >= Limits::LargeBytes)
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
