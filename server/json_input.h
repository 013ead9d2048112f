// What comes in as JSON: parsed by Qt, within bounds.

#pragma once

#include <QJsonObject>

#include <optional>

// The object that a line holds; nothing when it is no JSON, or JSON of another type. All text in it
// is exactly the text of the line. Whoever does not trust the line asks isTooCostly() first.
[[nodiscard]] std::optional<QJsonObject> parseObject(QByteArrayView line);

// Whether parsing might take more memory than Limits::MaxParsedBytes. What a line costs depends on
// what is in it: a string about its length, but an array of one number forty times as much. The
// answer comes from an upper estimate that a single pass over the line gives.
[[nodiscard]] bool isTooCostly(QByteArrayView line);

// Whether there is an escape sequence with a number in the line, by which alone a string can come
// to hold half a surrogate pair.
[[nodiscard]] bool hasNumberedEscape(QByteArrayView line);
