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
    const qsizetype length = unread.indexOf('\n', searched);
    searched = length < 0 ? unread.size() : 0;
    if (length < 0)
        return {};
    begin += length + 1;
    return unread.first(length);
}
