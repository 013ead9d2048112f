// Every JSON text beside what QJsonDocument makes of the same value, and a long string that is
// taken out of a line beside the line as a whole.

#include "json_input.h"
#include "json_reference.h"

#include <cstdlib>

// The same line with much text behind one of its quotes: where a string stands apart, the line says
// the same.
static void checkLongString(QByteArrayView input)
{
    const qsizetype at = input.indexOf('"', input.size() / 2) + 1;
    QByteArray line = input.toByteArray();
    line.insert(at, QByteArray(20'000, 'A'));
    if (const std::optional<Message> message = parseAroundLongString(line);
        message && !saysTheSame(*message, line))
        std::abort();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArrayView input(data, static_cast<qsizetype>(size));
    checkLongString(input);
    // As it came in, and as the server takes it in.
    const QJsonDocument document = QJsonDocument::fromJson(input.toByteArray());
    if (document.isNull())
        return 0;
    const QJsonValue value = document.isArray() ? QJsonValue(document.array()) : document.object();
    const JsonTexts reference = referenceTexts(document);
    if (writtenTexts(value, false) != reference)
        std::abort();
    const std::optional<Message> message = parseMessage(input);
    if (message.has_value() != document.isObject())
        std::abort();
    if (!message)
        return 0;
    if (message->hasPlainText && writtenTexts(value, true) != reference)
        std::abort();
    if (!input.contains("\xef\xbb\xbf") && message->object != document.object())
        std::abort();
    return 0;
}
