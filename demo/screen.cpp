#include "screen.h"

#include <QBuffer>
#include <QFile>
#include <QJsonArray>
#include <QTemporaryFile>

using namespace Qt::StringLiterals;

namespace {

constexpr int TextWidth = 720; // of 80 columns; text mode alone has it
constexpr int TextHeight = 400;
constexpr int Columns = 80;
constexpr qsizetype TextBytes = 0x8000;
constexpr int PollMs = 20;

// The code page of VGA's font: first what it has for control characters, then its upper half.
constexpr QStringView ControlGlyphs = u" ☺☻♥♦♣♠•◘○◙♂♀♪♫☼►◄↕‼¶§▬↨↑↓→←∟↔▲▼";
constexpr QStringView UpperGlyphs
        = u"ÇüéâäàåçêëèïîìÄÅÉæÆôöòûùÿÖÜ¢£¥₧ƒáíóúñÑªº¿⌐¬½¼¡«»░▒▓│┤╡╢╖╕╣║╗╝╜╛┐"
          "└┴┬├─┼╞╟╚╔╩╦╠═╬╧╨╤╥╙╘╒╓╫╪┘┌█▄▌▐▀αßΓπΣσµτΦΘΩδ∞φε∩≡±≥≤⌠⌡÷≈°∙·√ⁿ²■ ";

QChar glyph(uchar code)
{
    return code < 0x20 ? ControlGlyphs[code] : code < 0x80 ? QChar(ushort { code }) : UpperGlyphs[code - 0x80];
}

// A file in the machine's folder that QEMU writes for us, gone with this object.
class Handover
{
public:
    explicit Handover(const MachinePtr &machine)
        : name(u"handover-%1"_s.arg(++lastNumber)), path(machine->file(name))
    {
    }
    ~Handover() { QFile::remove(path); }
    Q_DISABLE_COPY_MOVE(Handover)

    QByteArray read() const
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

private:
    static inline int lastNumber = 0;

public:
    const QString name;
    const QString path;
};

// Of "portb[0x03d5] = 4f".
int portValue(const QJsonObject &answer)
{
    return answer["return"_L1].toString().trimmed().section(u' ', -1).toInt(nullptr, 16);
}

QStringList linesOf(const QByteArray &memory, int start, int rows)
{
    QStringList lines;
    for (int row = 0; row < rows; ++row) {
        QString line;
        for (int column = 0; column < Columns; ++column) {
            const qsizetype cell = start + row * Columns + column;
            line += glyph(static_cast<uchar>(memory[2 * cell % TextBytes]));
        }
        while (line.endsWith(u' '))
            line.chop(1);
        lines += line;
    }
    while (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();
    return lines;
}

} // namespace

Later<QImage> takePicture(MachinePtr machine)
{
    if (!machine->qemu)
        co_return {};
    const Handover file(machine);
    const Later<QJsonObject> dumped
            = machine->qemu->command(u"screendump"_s, { { u"filename"_s, file.name } });
    co_await dumped;
    const QImage image = QImage::fromData(file.read());
    if (!image.isNull())
        machine->settings["display"_L1]
                = QJsonObject { { u"width"_s, image.width() }, { u"height"_s, image.height() } };
    co_return image;
}

Later<std::optional<QStringList>> readText(MachinePtr machine)
{
    const QImage picture = co_await takePicture(machine);
    while (machine->textIsRead)
        co_await pause(PollMs);
    if (picture.size() != QSize(TextWidth, TextHeight) || !machine->qemu)
        co_return std::nullopt;
    machine->textIsRead = true;
    const Handover file(machine);
    Qemu &qemu = *machine->qemu;
    // The registers of the CRT controller are read through its index, which is the guest's: the
    // guest stands still meanwhile, and finds the index as it was.
    qemu.command(u"stop"_s);
    const Later<QJsonObject> index = qemu.monitor(u"i/b 0x3d4"_s);
    const Later<QJsonObject> high = qemu.monitor(u"i/b 0x3d4.12"_s);
    const Later<QJsonObject> low = qemu.monitor(u"i/b 0x3d4.13"_s);
    const Later<QJsonObject> scanLines = qemu.monitor(u"i/b 0x3d4.9"_s);
    const Later<QJsonObject> saved = qemu.command(
            u"pmemsave"_s,
            { { u"val"_s, 0xb8000 }, { u"size"_s, TextBytes }, { u"filename"_s, file.name } });
    const QJsonObject before = co_await index;
    if (machine->qemu) {
        machine->qemu->monitor(u"o/b 0x3d4 %1"_s.arg(portValue(before)));
        machine->qemu->command(u"cont"_s);
    }
    const int start = portValue(co_await high) * 0x100 + portValue(co_await low);
    const int cellHeight = (portValue(co_await scanLines) & 0x1f) + 1;
    co_await saved;
    machine->textIsRead = false;
    const QByteArray memory = file.read();
    if (memory.size() != TextBytes)
        co_return std::nullopt;
    co_return linesOf(memory, start, TextHeight / cellHeight);
}

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

std::optional<QJsonObject> captureResult(const QImage &screen, const QJsonObject &arguments,
                                         QString *error)
{
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
