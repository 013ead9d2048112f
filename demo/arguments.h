// The arguments of a call, checked against the catalogue's schemas and the ranges that its prose
// states. What one argument asks of another is checked by the tool.

#pragma once

#include "answers.h"

constexpr int MaxCpu = 16;
constexpr int MaxRamGB = 64;

// The answer to a call of no tool of the catalogue, or with arguments that it rules out.
std::optional<Answer> refuseArguments(const QString &tool, const QJsonObject &arguments);
