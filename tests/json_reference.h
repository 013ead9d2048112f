// The texts that JsonWriter must write, as QJsonDocument and QString make them.

#pragma once

#include "json_input.h"
#include "json_writer.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

struct JsonTexts
{
    QByteArray compact;
    QByteArray reader; // the indented text as a string
    bool operator==(const JsonTexts &) const = default;
};

inline QByteArray compactJson(const QJsonValue &value)
{
    const QByteArray text = QJsonDocument(QJsonArray { value }).toJson(QJsonDocument::Compact);
    return text.sliced(1, text.size() - 2);
}

inline JsonTexts referenceTexts(const QJsonDocument &document)
{
    const QString indented = QString::fromUtf8(document.toJson(QJsonDocument::Indented)).trimmed();
    return { document.toJson(QJsonDocument::Compact), compactJson(indented) };
}

// What the writer makes of them; keepsKeys and longString: see there.
inline JsonTexts writtenTexts(const QJsonValue &value, bool keepsKeys,
                              QByteArrayView longString = {})
{
    const auto text = [&](auto write) {
        JsonWriter writer;
        writer.keepKeys(keepsKeys);
        writer.setLongString(longString);
        write(writer);
        QByteArray whole;
        for (const QByteArrayView piece : writer.pieces())
            whole += piece;
        return whole;
    };
    return { text([&](JsonWriter &writer) { writer.value(value); }),
             text([&](JsonWriter &writer) { writer.readerText(value); }) };
}

// Whether a line whose long string stands apart says what it says as a whole.
inline bool saysTheSame(const Message &message, QByteArrayView line)
{
    const std::optional<Message> whole = parseMessage(line);
    return whole
           && writtenTexts(message.object, false, message.longString)
                      == writtenTexts(whole->object, false);
}
