#include "line_buffer.h"

#include <cstring>

namespace {

constexpr qsizetype KeptBytes = 2 << 20; // a buffer of this size stays

} // namespace

std::span<char> LineBuffer::space(qsizetype wanted)
{
    if (begin == end)
        begin = end = 0;
    if (bytes.size() - end < wanted) {
        const qsizetype needed = end - begin + wanted;
        // Twice as much, so that a line is copied few times while it comes in.
        move(needed <= bytes.size() / 2 ? bytes.size() : 2 * needed);
    }
    return { bytes.data() + end, static_cast<size_t>(bytes.size() - end) };
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
    // Only where most of it is to go: what is moved is then less than what goes.
    if (bytes.size() > KeptBytes && begin > 0 && end - begin <= bytes.size() / 2)
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
