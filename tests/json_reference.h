// The texts that JsonText must write, as QJsonDocument and QString make them.

#pragma once

#include "json_text.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

constexpr qsizetype Much = 4 << 20; // so that strings may be large

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

// expected: how much the writer is told to expect.
inline JsonTexts writtenTexts(const QJsonDocument &document, qsizetype expected)
{
    const QJsonValue value = document.isArray() ? QJsonValue(document.array()) : document.object();
    JsonText compact(expected);
    compact.value(value);
    JsonText reader(expected);
    reader.readerText(value);
    return { compact.bytes().toByteArray(), reader.bytes().toByteArray() };
}
