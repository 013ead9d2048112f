#include "replies.h"

#include "output.h"
#include "server_limits.h"

#include <QVariant>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype AnswerBytes = 1 << 20; // that an answer has at least, beside the longest id
constexpr qsizetype ManyKeysBytes = 4'096; // of an answer in which keys are probably repeated
constexpr auto ImageKey = "imageBase64"_L1; // the member of a result that holds a picture

// A success response around the result that putResult writes. False, with nothing written, when the
// message would be too long.
template <typename PutResult> bool replyWith(const QJsonValue &id, PutResult putResult)
{
    JsonWriter line;
    line.text(R"({"id":)");
    line.value(id);
    line.text(R"(,"jsonrpc":"2.0","result":)");
    putResult(line);
    line.text("}\n");
    if (line.isTooLong())
        return false;
    writeMessage(line);
    return true;
}

// A tool result whose content blocks putBlocks writes.
template <typename PutBlocks>
bool replyContent(const QJsonValue &id, bool isError, PutBlocks putBlocks)
{
    return replyWith(id, [&](JsonWriter &line) {
        line.text(R"({"content":[)");
        putBlocks(line);
        line.text(isError ? R"(],"isError":true})" : R"(],"isError":false})");
    });
}

void putTextBlock(JsonWriter &line, const QJsonValue &value, QLatin1StringView except = {})
{
    line.text(R"({"text":)");
    jsonText(line, value, except);
    line.text(R"(,"type":"text"})");
}

// An object with a screenshot as an image block before the rest as text.
void putImage(JsonWriter &line, const QJsonObject &object)
{
    const bool isJpeg = object.value("format"_L1).toString() == "jpeg"_L1;
    line.text(R"({"data":)");
    line.value(object.value(ImageKey));
    line.text(isJpeg ? R"(,"mimeType":"image/jpeg","type":"image"},)"
                     : R"(,"mimeType":"image/png","type":"image"},)");
    putTextBlock(line, object, ImageKey);
}

// A value of a message as an image or as a text.
void replyValue(const QJsonValue &id, const QJsonValue &value, bool isError, const Message &message)
{
    const QJsonObject object = value.toObject();
    const bool isSent = replyContent(id, isError, [&](JsonWriter &line) {
        line.setLongString(message.longString);
        line.keepKeys(message.hasPlainText && message.lineBytes >= ManyKeysBytes);
        if (object.value(ImageKey).toString().isEmpty())
            putTextBlock(line, value);
        else
            putImage(line, object);
    });
    if (!isSent)
        replyToolText(id, TooLongText, true);
}

} // namespace

void reply(const QJsonValue &id, const QJsonObject &result)
{
    replyWith(id, [&](JsonWriter &line) { line.value(result); });
}

void replyWithJson(const QJsonValue &id, QByteArrayView result)
{
    replyWith(id, [&](JsonWriter &line) { line.text(result); });
}

void replyError(const QJsonValue &id, int code, const QString &message)
{
    JsonWriter line;
    line.text(R"({"error":{"code":)");
    line.integer(code);
    line.text(R"(,"message":)");
    line.string(message);
    line.text(R"(},"id":)");
    line.value(id);
    line.text(R"(,"jsonrpc":"2.0"})"
              "\n");
    constexpr qsizetype Excerpt = 64; // of a method's name, which may be as long as a line
    if (!line.isTooLong())
        writeMessage(line);
    else if (message.size() > Excerpt)
        replyError(id, code, message.first(Excerpt));
}

bool isAnswerable(const QJsonValue &id, qsizetype lineBytes)
{
    constexpr qsizetype Longest = Limits::MaxMessageBytes - AnswerBytes;
    constexpr qsizetype MostForAByte = 6; // a control character becomes \u0001
    if (lineBytes <= Longest / MostForAByte)
        return true;
    JsonWriter text;
    text.value(id);
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
    const auto put = [&](const QString &block) {
        return replyContent(id, isError, [&](JsonWriter &line) { putTextBlock(line, block); });
    };
    if (!put(text))
        put(instead);
}

void replyToolJSON(const QJsonValue &id, const QJsonValue &value, bool isError)
{
    replyValue(id, value, isError, {});
}

void replyToolResult(const QJsonValue &id, const Message &answer)
{
    replyValue(id, answer.object.value("result"_L1), false, answer);
}
