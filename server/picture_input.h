// A picture in an application's answer: a string of megabytes that goes on as it came, so that it
// is taken out of the line before the rest is parsed, and is copied nowhere.

#pragma once

#include <QByteArrayView>
#include <QJsonObject>
#include <QLatin1StringView>

#include <optional>

// The member of an answer's result that holds a picture, in base64.
inline constexpr QLatin1StringView ImageKey { "imageBase64" };

// An application's answer.
struct Answer
{
    QJsonObject message;

    // The picture in its result, if that stands apart: it lies in the line, and the result has
    // another text in its place. Each of its bytes stands for itself in a JSON string.
    QByteArrayView picture;

    // Whether keys are probably repeated in it, and came without numbered escape sequences.
    bool hasPlainKeys = false;
};

// The line as an answer whose picture stands apart; nothing where it must be parsed whole, as when
// it has no long picture.
[[nodiscard]] std::optional<Answer> answerWithPicture(QByteArrayView line);
