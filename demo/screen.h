// Pictures of a simulated machine's screen.

#pragma once

#include <QJsonObject>

struct Machine;

// The result of capture_screen for the arguments region, scale, format and output: a PNG or JPEG as
// "imageBase64", or the path of a file with it. On failure an object with "error", a text.
QJsonObject captureScreen(const Machine &machine, const QJsonObject &arguments);
