// What the client is answered: JSON-RPC 2.0 responses and, in them, tool results of the Model
// Context Protocol. Each of these writes one message.

#pragma once

#include "json_input.h"
#include "json_writer.h"

#include <QJsonValue>
#include <QString>

// JSON-RPC 2.0, section 5.1.
inline constexpr int ParseError = -32700;
inline constexpr int InvalidRequest = -32600;
inline constexpr int MethodNotFound = -32601;

void reply(const QJsonValue &id, const QJsonObject &result);

// A success with a result that is JSON text already.
void replyWithJson(const QJsonValue &id, QByteArrayView result);

void replyError(const QJsonValue &id, int code, const QString &message);

// Whether an answer, which repeats the id, has room for that of a message of lineBytes bytes.
[[nodiscard]] bool isAnswerable(const QJsonValue &id, qsizetype lineBytes);

// Writes a JSON value as a string for a reader: objects and arrays indented, a string as itself,
// null as nothing. Without the member of an object that is called except.
void jsonText(JsonWriter &line, const QJsonValue &value, QLatin1StringView except = {});

// What takes the place of an answer of the application that makes too long a message.
inline constexpr auto TooLongText = QLatin1StringView(
        "Orrery call failed: Orrery's answer makes a message of more than 512 MiB");

// A tool result of one text block; if that makes too long a message, one of the text instead.
void replyToolText(const QJsonValue &id, const QString &text, bool isError,
                   const QString &instead = TooLongText);

// A value as a tool result: a screenshot in it becomes an image block before the rest as text.
void replyToolJSON(const QJsonValue &id, const QJsonValue &value, bool isError);

// The same with the result of an application's answer.
void replyToolResult(const QJsonValue &id, const Message &answer);
