// Pictures of a simulated machine's screen.

#pragma once

#include <QJsonObject>
#include <QRect>

#include <optional>

struct Machine;

// What of the screen the argument region asks for; empty, and what is wrong in error, where there
// is no such part.
QRect askedRegion(const QJsonObject &arguments, const QRect &screen, QString *error);

// The result of capture_screen for the arguments region, scale, format and output: a PNG or JPEG as
// "imageBase64", or the path of a file with it. On failure nothing, and what is wrong in error.
std::optional<QJsonObject> captureScreen(const Machine &machine, const QJsonObject &arguments,
                                         QString *error);
