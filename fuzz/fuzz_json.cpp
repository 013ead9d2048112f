// Every JSON text beside what QJsonDocument makes of the same value, and a picture that is taken
// out of a line beside the line as a whole.

#include "json_input.h"
#include "json_reference.h"
#include "picture_input.h"

#include <cstdlib>

using namespace Qt::StringLiterals;

// The same line with a long picture where one begins: whether it stands apart or not, it says the
// same.
static void checkPicture(QByteArrayView input)
{
    constexpr QByteArrayView Start = "\"imageBase64\":\"";
    QByteArray line = input.toByteArray();
    const qsizetype at = line.indexOf(Start);
    if (at < 0)
        return;
    line.insert(at + Start.size(), QByteArray(20'000, 'A'));
    const std::optional<Answer> answer = answerWithPicture(line);
    if (!answer)
        return;
    QJsonObject message = answer->message;
    QJsonObject result = message["result"_L1].toObject();
    result[ImageKey] = QString::fromLatin1(answer->picture);
    message["result"_L1] = result;
    if (parseObject(line) != message)
        std::abort();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArrayView input(data, static_cast<qsizetype>(size));
    checkPicture(input);
    // As it came in, and as the server takes it in.
    const QJsonDocument document = QJsonDocument::fromJson(input.toByteArray());
    if (document.isNull())
        return 0;
    const JsonTexts reference = referenceTexts(document);
    if (writtenTexts(document, false) != reference)
        std::abort();
    if (!hasNumberedEscape(input) && writtenTexts(document, true) != reference)
        std::abort();
    const std::optional<QJsonObject> object = parseObject(input);
    if (object.has_value() != document.isObject())
        std::abort();
    if (object && !input.contains("\xef\xbb\xbf") && *object != document.object())
        std::abort();
    return 0;
}
