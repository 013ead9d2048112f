// The texts that JsonWriter must write, as QJsonDocument and QString make them.

#pragma once

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

// What the writer makes of them; keepsKeys: see there.
inline JsonTexts writtenTexts(const QJsonDocument &document, bool keepsKeys)
{
    const QJsonValue value = document.isArray() ? QJsonValue(document.array()) : document.object();
    JsonWriter compact;
    JsonWriter reader;
    compact.keepKeys(keepsKeys);
    reader.keepKeys(keepsKeys);
    compact.value(value);
    reader.readerText(value);
    return { compact.bytes().toByteArray(), reader.bytes().toByteArray() };
}
