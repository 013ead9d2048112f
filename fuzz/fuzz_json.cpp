// Every JSON text beside what QJsonDocument makes of the same value, strings that may be large
// included.

#include "json_input.h"
#include "json_reference.h"

#include <cstdlib>

// So much that strings may be large where there are few, and so little that it costs no time.
constexpr qsizetype Some = 262'144;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArrayView input(data, static_cast<qsizetype>(size));
    // As it came in, and as the server takes it in.
    const QJsonDocument document = QJsonDocument::fromJson(input.toByteArray());
    if (document.isNull())
        return 0;
    const JsonTexts reference = referenceTexts(document);
    if (writtenTexts(document, 0) != reference || writtenTexts(document, Some) != reference)
        std::abort();
    const std::optional<QJsonObject> object = parseObject(input);
    if (object.has_value() != document.isObject())
        std::abort();
    if (object && !input.contains("\xef\xbb\xbf") && *object != document.object())
        std::abort();
    return 0;
}
