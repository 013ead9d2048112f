// A machine's screen: its picture, and its text while it shows text.

#pragma once

#include "machine.h"

#include <QImage>
#include <QRect>

// The screen as it is now, null where the machine has ended; keeps the size in its settings.
Later<QImage> takePicture(MachinePtr machine);

// What the screen shows in VGA's text mode, exactly, without blanks at the ends of lines and blank
// lines at the end. Nothing where it is graphical, or the machine has ended.
Later<std::optional<QStringList>> readText(MachinePtr machine);

// What of a screen the argument region asks for; empty, and what is wrong in error, where there is
// no such part.
QRect askedRegion(const QJsonObject &arguments, const QRect &screen, QString *error);

// The result of capture_screen for the arguments region, scale, format and output: a PNG or JPEG as
// "imageBase64", or the path of a file with it. On failure nothing, and what is wrong in error.
std::optional<QJsonObject> captureResult(const QImage &screen, const QJsonObject &arguments,
                                         QString *error);
