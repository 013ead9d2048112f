// Pictures of a machine's screen.

#pragma once

#include "machine.h"

#include <QImage>

// The screen as it is now, null where the machine has ended; keeps the size in its settings.
Later<QImage> takePicture(MachinePtr machine);

// The answer of capture_screen for its arguments region, scale, format and output: a PNG or JPEG as
// "imageBase64", or the path of a file with it.
Answer captured(const QImage &screen, const QJsonObject &arguments);
