// The texts that JsonText must write, as QJsonDocument and QString make them.

#pragma once

#include "json_text.h"

#include <QCborMap>
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

inline JsonTexts writtenTexts(const QJsonDocument &document)
{
    const QJsonValue value = document.isArray() ? QJsonValue(document.array()) : document.object();
    JsonText compact;
    compact.value(value);
    JsonText reader;
    reader.readerText(value);
    return { compact.bytes().toByteArray(), reader.bytes().toByteArray() };
}

// A string written as large ones are.
inline QByteArray writtenLargeString(const QJsonValue &string)
{
    JsonText text;
    text.largeString(QCborMap::fromJsonObject({ { QString(), string } }).begin().value());
    return text.bytes().toByteArray();
}
