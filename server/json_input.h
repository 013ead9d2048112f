// What comes in as JSON: parsed by Qt, within bounds.

#pragma once

#include <QByteArrayView>
#include <QJsonObject>
#include <QLatin1StringView>

#include <optional>

// One line of a client or an application, parsed.
struct Message
{
    QJsonObject object;

    // A string of it that is most of the line, such as a picture: it goes on as it came, without
    // being parsed. It lies in the line; the object has Placeholder where it was, and nowhere else.
    // Each of its bytes stands for itself in a JSON string. Empty where there is none.
    QByteArrayView longString;

    // Whether it came without numbered escape sequences, so that no string of it holds half a
    // surrogate pair.
    bool hasPlainText = true;

    qsizetype lineBytes = 0;
};

inline constexpr QLatin1StringView Placeholder { "<string>" };

// The message of a line with a long string that stands apart; nothing where it must be parsed
// whole. For messages in which nobody looks at that string, but to write it.
[[nodiscard]] std::optional<Message> parseAroundLongString(QByteArrayView line);

// The message of a line; nothing when it is no JSON object. All text in it is exactly the text of
// the line. Whoever does not trust the line asks isTooCostly() first.
[[nodiscard]] std::optional<Message> parseMessage(QByteArrayView line);

// Whether parsing might take more memory than Limits::MaxParsedBytes. What a line costs depends on
// what is in it: a string about its length, but an array of one number forty times as much. The
// answer comes from an upper estimate that a single pass over the line gives.
[[nodiscard]] bool isTooCostly(QByteArrayView line);
