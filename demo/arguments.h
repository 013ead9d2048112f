// The arguments of a call, checked against the catalogue's schemas and the ranges that its prose
// states. What one argument asks of another is checked by the tool.

#pragma once

#include "answers.h"

#include <optional>

// The answer to a call of no tool of the catalogue, or with arguments that it rules out.
std::optional<Answer> refuseArguments(const QString &tool, const QJsonObject &arguments);
