#include "json_input.h"

#include "server_limits.h"
#include "vector_blocks.h"

#include <QJsonDocument>

#include <bit>
#include <cstring>

namespace {

// What QJsonDocument takes at most, in bytes, the allocator's part and the growth of its arrays
// included.
constexpr qsizetype ContainerCost = 192; // an object or an array, with its first value or key
constexpr qsizetype ElementCost = 32; // a value or a key; an empty container is no more than that
constexpr qsizetype StringCost = 16; // besides its bytes
constexpr qsizetype LongString = 262'144;
constexpr qsizetype MaxCostPerByte = 96; // of nested arrays, which cost most

constexpr QByteArrayView ByteOrderMark = "\"\xef\xbb\xbf";

// Whether a string begins with U+FEFF. It would lose it in Qt 6.4, which takes it for a byte order
// mark.
bool hasByteOrderMark(QByteArrayView line)
{
    const char *const end = line.data() + line.size();
    for (const char *at = line.data();; ++at) {
        at = static_cast<const char *>(std::memchr(at, '\xef', static_cast<size_t>(end - at)));
        if (at == nullptr)
            return false;
        if (at > line.data() && QByteArrayView(at - 1, end).startsWith(ByteOrderMark))
            return true;
    }
}

// Of the text that has an escape sequence for each mark.
qsizetype copyBytes(QByteArrayView line) { return line.size() + line.size() / 2; }

// The same text with an escape sequence instead, which stays.
QByteArray withoutByteOrderMarks(QByteArrayView line)
{
    QByteArray text;
    text.reserve(copyBytes(line));
    for (qsizetype at = 0; at < line.size();) {
        const qsizetype mark = line.indexOf(ByteOrderMark, at);
        const qsizetype end = mark < 0 ? line.size() : mark;
        text.append(line.sliced(at, end - at));
        if (mark >= 0)
            text.append("\"\\ufeff");
        at = mark < 0 ? end : mark + ByteOrderMark.size();
    }
    return text;
}

// Behind the string whose first byte is at *at, and whether it has escape sequences.
bool skipString(QByteArrayView line, qsizetype *at)
{
    bool hasEscapes = false;
    while (*at < line.size()) {
        if (line.size() - *at >= BlockBytes) {
            const auto block = loadBlock<Bytes>(line.data() + *at);
            if (!any((block == '"') | (block == '\\'))) {
                *at += BlockBytes;
                continue;
            }
        }
        const char c = line[(*at)++];
        if (c == '"')
            break;
        if (c == '\\') {
            hasEscapes = true;
            ++*at;
        }
    }
    return hasEscapes;
}

// A string with escape sequences is kept in UTF-16, and put together in a buffer before. Buffers
// grow to powers of two; what one of a few bytes adds to such a buffer is twice its size at most.
qsizetype stringCost(qsizetype length, bool hasEscapes)
{
    const qsizetype kept = StringCost + (hasEscapes ? 2 * length : length);
    if (length < LongString)
        return 2 * kept;
    const auto buffer = static_cast<qsizetype>(std::bit_ceil(static_cast<quint64>(kept)));
    return hasEscapes ? 2 * buffer : buffer;
}

} // namespace

std::optional<QJsonObject> parseObject(QByteArrayView line)
{
    const QByteArray text = hasByteOrderMark(line)
                                    ? withoutByteOrderMarks(line)
                                    : QByteArray::fromRawData(line.data(), line.size());
    const QJsonDocument document = QJsonDocument::fromJson(text);
    return document.isObject() ? std::optional(document.object()) : std::nullopt;
}

bool isTooCostly(QByteArrayView line)
{
    if (line.size() <= Limits::MaxParsedBytes / MaxCostPerByte)
        return false;
    qsizetype cost = hasByteOrderMark(line) ? copyBytes(line) : 0;
    for (qsizetype at = 0; at < line.size() && cost <= Limits::MaxParsedBytes;) {
        switch (line[at++]) {
        case '[':
        case '{':
            if (at < line.size() && line[at] != ']' && line[at] != '}')
                cost += ContainerCost;
            break;
        case ',':
        case ':':
            cost += ElementCost;
            break;
        case '"': {
            const qsizetype begin = at;
            const bool beginsWithMark = line.sliced(begin - 1).startsWith(ByteOrderMark);
            const bool hasEscapes = skipString(line, &at);
            cost += stringCost(at - begin, hasEscapes || beginsWithMark);
            break;
        }
        default:
            break;
        }
    }
    return cost > Limits::MaxParsedBytes;
}

bool hasNumberedEscape(QByteArrayView line)
{
    for (qsizetype at = 0; (at = line.indexOf('\\', at)) >= 0; at += 2) {
        if (at + 1 < line.size() && line[at + 1] == 'u')
            return true;
    }
    return false;
}
