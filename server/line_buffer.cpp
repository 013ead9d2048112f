#include "line_buffer.h"

#include "memory.h"

#include <cstring>

std::span<char> LineBuffer::space(qsizetype wanted)
{
    if (begin == end)
        begin = end = 0;
    const qsizetype needed = end - begin + wanted;
    if (bytes.size() - end < wanted && needed <= bytes.size() / 2) {
        std::memmove(bytes.data(), bytes.data() + begin, static_cast<size_t>(end - begin));
        end -= begin;
        begin = 0;
    }
    if (bytes.size() - end < wanted)
        growBuffer(bytes, end + wanted);
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

void LineBuffer::clear()
{
    bytes = {};
    begin = end = searched = 0;
}

// To as many bytes as are unread.
void LineBuffer::shrink()
{
    bytes = rest().toByteArray();
    end = bytes.size();
    begin = 0;
}
