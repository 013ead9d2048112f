#include "replies.h"

#include "output.h"
#include "picture_input.h"
#include "server_limits.h"

#include <QVariant>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype AnswerBytes = 1 << 20; // that an answer has at least, beside the longest id

// The "id" member of a response, which an undefined id leaves out.
void putId(JsonWriter &line, const QJsonValue &id)
{
    if (id.isUndefined())
        return;
    line.key("id"_L1);
    line.value(id);
}

// A success response around the result that putResult writes. False, with nothing written, when the
// message would be too long.
template <typename PutResult> bool replyWith(const QJsonValue &id, PutResult putResult)
{
    JsonWriter line;
    line.beginObject();
    putId(line, id);
    line.key("jsonrpc"_L1);
    line.string("2.0"_L1);
    line.key("result"_L1);
    putResult(line);
    line.endObject();
    line.endLine();
    if (line.isTooLong())
        return false;
    writeMessage(line);
    return true;
}

void putTextBlock(JsonWriter &line, const QJsonValue &value, QLatin1StringView except = {})
{
    line.beginObject();
    line.key("text"_L1);
    jsonText(line, value, except);
    line.key("type"_L1);
    line.string("text"_L1);
    line.endObject();
}

// A tool result whose content blocks putBlocks writes.
template <typename PutBlocks>
bool replyContent(const QJsonValue &id, bool isError, PutBlocks putBlocks)
{
    return replyWith(id, [&](JsonWriter &line) {
        line.beginObject();
        line.key("content"_L1);
        line.beginArray();
        putBlocks(line);
        line.endArray();
        line.key("isError"_L1);
        line.boolean(isError);
        line.endObject();
    });
}

// A value as a tool result of one text block.
bool replyTextBlock(const QJsonValue &id, const QJsonValue &value, bool isError,
                    bool hasPlainKeys = false)
{
    return replyContent(id, isError, [&](JsonWriter &line) {
        line.keepKeys(hasPlainKeys);
        putTextBlock(line, value);
    });
}

// An object with a screenshot as an image block before the rest as text.
bool replyImage(const QJsonValue &id, const QJsonObject &object, QByteArrayView picture)
{
    const bool isJpeg = object.value("format"_L1).toString() == "jpeg"_L1;
    return replyContent(id, false, [&](JsonWriter &line) {
        line.beginObject();
        line.key("data"_L1);
        if (picture.isEmpty())
            line.value(object.value(ImageKey));
        else
            line.borrowedString(picture);
        line.key("mimeType"_L1);
        line.string(isJpeg ? "image/jpeg"_L1 : "image/png"_L1);
        line.key("type"_L1);
        line.string("image"_L1);
        line.endObject();
        putTextBlock(line, object, ImageKey);
    });
}

// A value as an image or as a text; picture and hasPlainKeys are those of an Answer.
void replyValue(const QJsonValue &id, const QJsonValue &value, bool isError, QByteArrayView picture,
                bool hasPlainKeys)
{
    const QJsonObject object = value.toObject();
    const bool hasImage = !object.value(ImageKey).toString().isEmpty();
    if (!(hasImage ? replyImage(id, object, picture)
                   : replyTextBlock(id, value, isError, hasPlainKeys)))
        replyToolText(id, TooLongText, true);
}

} // namespace

void reply(const QJsonValue &id, const QJsonObject &result)
{
    replyWith(id, [&](JsonWriter &line) { line.value(result); });
}

void replyWithJson(const QJsonValue &id, QByteArrayView result)
{
    replyWith(id, [&](JsonWriter &line) { line.json(result); });
}

void replyError(const QJsonValue &id, int code, const QString &message)
{
    JsonWriter line;
    line.beginObject();
    line.key("error"_L1);
    line.beginObject();
    line.key("code"_L1);
    line.integer(code);
    line.key("message"_L1);
    line.string(message);
    line.endObject();
    putId(line, id);
    line.key("jsonrpc"_L1);
    line.string("2.0"_L1);
    line.endObject();
    line.endLine();
    constexpr qsizetype Excerpt = 64; // of a method's name, which may be as long as a line
    if (!line.isTooLong())
        writeMessage(line);
    else if (message.size() > Excerpt)
        replyError(id, code, message.first(Excerpt));
}

bool isAnswerable(const QJsonObject &message, qsizetype lineBytes)
{
    constexpr qsizetype Longest = Limits::MaxMessageBytes - AnswerBytes;
    constexpr qsizetype MostForAByte = 6; // a control character becomes \u0001
    if (lineBytes <= Longest / MostForAByte)
        return true;
    JsonWriter text;
    text.value(message.value("id"_L1));
    return !text.isTooLong() && text.bytes().size() <= Longest;
}

void jsonText(JsonWriter &line, const QJsonValue &value, QLatin1StringView except)
{
    if (value.isObject() || value.isArray())
        line.readerText(value, except);
    else
        line.string(value.toVariant().toString());
}

void replyToolText(const QJsonValue &id, const QString &text, bool isError, const QString &instead)
{
    if (!replyTextBlock(id, text, isError))
        replyTextBlock(id, instead, true);
}

void replyToolJSON(const QJsonValue &id, const QJsonValue &value, bool isError)
{
    replyValue(id, value, isError, {}, false);
}

void replyToolResult(const QJsonValue &id, const Answer &answer)
{
    replyValue(id, answer.message.value("result"_L1), false, answer.picture, answer.hasPlainKeys);
}
