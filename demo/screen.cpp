#include "screen.h"

#include "machine.h"

#include <QBuffer>
#include <QDir>
#include <QFontDatabase>
#include <QImage>
#include <QJsonArray>
#include <QPainter>
#include <QTemporaryFile>

using namespace Qt::StringLiterals;

namespace {

constexpr int LineHeight = 22;
constexpr int Margin = 16;

QImage paintScreen(const Machine &machine)
{
    QImage screen(machine.display(), QImage::Format_RGB32);
    screen.fill(QColor(18, 22, 32));
    QPainter painter(&screen);
    painter.fillRect(0, 0, screen.width(), 2 * Margin, QColor(52, 84, 138));
    QFont font = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    font.setPixelSize(15);
    painter.setFont(font);
    painter.setPen(Qt::white);
    painter.drawText(Margin, LineHeight,
                     machine.text("name"_L1) + " - demonstration, no real machine"_L1);
    painter.setPen(QColor(190, 220, 190));
    int y = 2 * Margin + LineHeight;
    const QStringList lines = machine.screenLines();
    for (const QString &line : lines) {
        painter.drawText(Margin, y, line);
        y += LineHeight;
    }
    return screen;
}

} // namespace

QRect askedRegion(const QJsonObject &arguments, const QRect &screen, QString *error)
{
    const QJsonArray asked = arguments["region"_L1].toArray();
    if (asked.isEmpty())
        return screen;
    if (asked.size() != 4) {
        *error = u"region must be [x, y, width, height]"_s;
        return {};
    }
    const QRect region = QRectF(asked[0].toDouble(), asked[1].toDouble(), asked[2].toDouble(),
                                asked[3].toDouble())
                                 .toRect();
    if (!region.isEmpty() && screen.contains(region))
        return region;
    *error = u"region must lie inside the screen of %1 x %2 pixels"_s.arg(screen.width())
                     .arg(screen.height());
    return {};
}

std::optional<QJsonObject> captureScreen(const Machine &machine, const QJsonObject &arguments,
                                         QString *error)
{
    const QImage screen = paintScreen(machine);
    const QRect region = askedRegion(arguments, screen.rect(), error);
    if (region.isEmpty())
        return {};
    const double scale = arguments["scale"_L1].toDouble(1);
    const QSize size = (QSizeF(region.size()) * scale).toSize().expandedTo({ 1, 1 });
    const QImage picture
            = screen.copy(region).scaled(size, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);

    const QString format = arguments["format"_L1].toString(u"png"_s);
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    if (!picture.save(&buffer, format.toLatin1().constData())) {
        *error = "this host cannot write the format "_L1 + format;
        return {};
    }
    QJsonObject result { { u"format"_s, format },
                         { u"width"_s, size.width() },
                         { u"height"_s, size.height() },
                         { u"scale"_s, scale },
                         { u"displayWidth"_s, screen.width() },
                         { u"displayHeight"_s, screen.height() } };
    if (arguments["output"_L1].toString() != "file"_L1) {
        result["imageBase64"_L1] = QString::fromLatin1(bytes.toBase64());
        return result;
    }
    // Only the user may read it, under a name that nobody else can have taken before.
    QTemporaryFile file(QDir::temp().filePath(u"orrery-demo-XXXXXX."_s + format));
    file.setAutoRemove(false);
    if (!file.open() || file.write(bytes) != bytes.size() || !file.flush()) {
        *error = "cannot write a picture: "_L1 + file.errorString();
        return {};
    }
    result["path"_L1] = file.fileName();
    return result;
}
