// Pictures of a simulated machine's screen.

#pragma once

#include <QJsonObject>

#include <optional>

struct Machine;

// The result of capture_screen for the arguments region, scale, format and output: a PNG or JPEG as
// "imageBase64", or the path of a file with it. On failure nothing, and what is wrong in error.
std::optional<QJsonObject> captureScreen(const Machine &machine, const QJsonObject &arguments,
                                         QString *error);
