#include "picture_input.h"

#include "json_input.h"
#include "vector_blocks.h"

#include <algorithm>
#include <cstring>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype LongBytes = 16'384; // a shorter picture is parsed as quickly
constexpr QByteArrayView PictureStart = "\"imageBase64\":\"";
constexpr auto StandIn = "<picture>"_L1;

using Octets = quint8 __attribute__((vector_size(BlockBytes)));

// Whether each byte stands for itself in a JSON string (RFC 8259, 7). Quotes are not looked for.
bool isPlain(QByteArrayView text)
{
    Octets bad {};
    qsizetype at = 0;
    for (; at + BlockBytes <= text.size(); at += BlockBytes) {
        const auto block = loadBlock<Octets>(text.data() + at);
        bad |= (block - ' ' > 0x5f) | (block == '\\');
    }
    return !any(bad) && std::all_of(text.begin() + at, text.end(), [](signed char c) {
        return c >= ' ' && c != '\\'; // beyond ASCII it is negative
    });
}

// Whether text that is not the picture's could read as what stands in for it, however it is spelt.
bool maySayStandIn(QByteArrayView text)
{
    return text.contains(QByteArrayView(StandIn)) || hasNumberedEscape(text);
}

} // namespace

std::optional<Answer> answerWithPicture(QByteArrayView line)
{
    if (line.size() < LongBytes)
        return {};
    // Only a picture that is most of its line is worth the search, so that it begins in this half.
    const void *const key = memmem(line.data(), static_cast<size_t>(line.size() / 2),
                                   PictureStart.data(), static_cast<size_t>(PictureStart.size()));
    if (key == nullptr)
        return {};
    const qsizetype begin = static_cast<const char *>(key) - line.data() + PictureStart.size();
    const qsizetype end = line.indexOf('"', begin);
    const qsizetype length = std::max(end - begin, qsizetype(0)); // there may be no end
    const QByteArrayView picture = line.sliced(begin, length);
    const QByteArrayView before = line.first(begin);
    const QByteArrayView after = line.sliced(begin + length);
    if (length < line.size() / 2 || !isPlain(picture) || maySayStandIn(before)
        || maySayStandIn(after))
        return {};
    // This is JSON if, and only if, the line is.
    const QByteArray rest = before.toByteArray().append(StandIn).append(after);
    if (isTooCostly(rest))
        return {};
    // It has one stand-in: found where a picture belongs, it is in the place of that picture.
    const std::optional<QJsonObject> message = parseObject(rest);
    if (!message || (*message)["result"_L1][ImageKey] != StandIn)
        return {};
    return Answer { *message, picture };
}
