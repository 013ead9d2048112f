#include "json_input.h"

#include "server_limits.h"
#include "vector_blocks.h"

#include <QJsonDocument>

#include <algorithm>
#include <bit>
#include <cstring>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype MinLongString = 16'384; // a shorter one is parsed as quickly

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
    return line.contains('\xef') && line.contains(ByteOrderMark);
}

// Of the text that has an escape sequence for each mark.
qsizetype copyBytes(QByteArrayView line) { return line.size() + line.size() / 2; }

// The same text with an escape sequence instead, which stays.
QByteArray withoutByteOrderMarks(QByteArrayView line)
{
    QByteArray text;
    text.reserve(copyBytes(line));
    qsizetype at = 0;
    for (qsizetype mark = 0; (mark = line.indexOf(ByteOrderMark, at)) >= 0;
         at = mark + ByteOrderMark.size())
        text.append(line.sliced(at, mark - at)).append("\"\\ufeff");
    return text.append(line.sliced(at));
}

// Whether each byte stands for itself in a JSON string (RFC 8259, 7). Quotes are not looked for.
bool isPlain(QByteArrayView text)
{
    const auto isSpecial = [](auto c) { return (c < ' ') | (c == '\\'); }; // or beyond ASCII
    Bytes special {};
    qsizetype at = 0;
    for (; at + BlockBytes <= text.size(); at += BlockBytes)
        special |= isSpecial(loadBlock<Bytes>(text.data() + at));
    return !any(special) && std::none_of(text.begin() + at, text.end(), [&](signed char c) {
        return isSpecial(c);
    });
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

// Whether a string may hold half a surrogate pair, which can come by a numbered escape alone.
bool hasNumberedEscape(QByteArrayView text)
{
    for (qsizetype at = 0; (at = text.indexOf('\\', at)) >= 0; at += 2) {
        if (at + 1 < text.size() && text[at + 1] == 'u')
            return true;
    }
    return false;
}

// Whether there may be a string that reads as Placeholder, however it is spelt.
bool maySayPlaceholder(QByteArrayView text)
{
    return text.contains('\\') || text.contains(QByteArrayView(Placeholder));
}

} // namespace

std::optional<Message> parseAroundLongString(QByteArrayView line)
{
    if (line.size() < MinLongString)
        return {};
    // A string that is more than half of the line has its middle.
    const qsizetype middle = line.size() / 2;
    const auto *const quote
            = static_cast<const char *>(memrchr(line.data(), '"', static_cast<size_t>(middle + 1)));
    const qsizetype begin = quote == nullptr ? 0 : quote - line.data() + 1;
    const qsizetype end = line.indexOf('"', middle + 1);
    if (end - begin < middle)
        return {};
    const QByteArrayView text = line.sliced(begin, end - begin);
    const QByteArrayView before = line.first(begin);
    const QByteArrayView after = line.sliced(end);
    if (maySayPlaceholder(before) || maySayPlaceholder(after)
        || after.sliced(1).trimmed().startsWith(':') // a key
        || !isPlain(text))
        return {};
    // This is JSON if, and only if, the line is; and only if these quotes are those of a string.
    const QByteArray rest = before.toByteArray().append(Placeholder).append(after);
    std::optional<Message> message;
    if (!isTooCostly(rest) && (message = parseMessage(rest))) {
        message->longString = text;
        message->lineBytes = line.size();
    }
    return message;
}

std::optional<Message> parseMessage(QByteArrayView line)
{
    const QByteArray text = hasByteOrderMark(line)
                                    ? withoutByteOrderMarks(line)
                                    : QByteArray::fromRawData(line.data(), line.size());
    const QJsonDocument document = QJsonDocument::fromJson(text);
    if (!document.isObject())
        return {};
    return Message { document.object(), {}, !hasNumberedEscape(line), line.size() };
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
