// Every JSON text beside what QJsonDocument makes of the same value, and every string in it as a
// large one.

#include "json_input.h"
#include "json_reference.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArrayView input(data, static_cast<qsizetype>(size));
    // As it came in, and as the server takes it in.
    const QJsonDocument document = QJsonDocument::fromJson(input.toByteArray());
    if (document.isNull())
        return 0;
    if (writtenTexts(document) != referenceTexts(document))
        std::abort();
    const std::optional<QJsonObject> object = parseObject(input);
    if (object.has_value() != document.isObject())
        std::abort();
    if (object && !input.contains("\xef\xbb\xbf") && *object != document.object())
        std::abort();
    const QJsonArray values = document.array();
    for (const QJsonValue &value : values) {
        if (value.isString() && writtenLargeString(value) != compactJson(value))
            std::abort();
    }
    return 0;
}
