// What a machine's screen shows.

#include "tools.h"

#include <QBuffer>
#include <QRegularExpression>
#include <QScopedValueRollback>
#include <QTemporaryFile>

namespace {

constexpr QSize TextMode(720, 400); // of 80 columns; text mode alone has it
constexpr int Columns = 80;
constexpr qsizetype TextBytes = 0x8000;
constexpr int ReadAgainMs = 300;
constexpr QStringView Glyphs // of VGA's font, by their codes
        = u" ☺☻♥♦♣♠•◘○◙♂♀♪♫☼►◄↕‼¶§▬↨↑↓→←∟↔▲▼ !\"#$%&'()*+,-./0123456789:;<=>?@ABCDEFGHIJKLMNOPQRST"
          "UVWXYZ[\\]^_`abcdefghijklmnopqrstuvwxyz{|}~"
          "⌂ÇüéâäàåçêëèïîìÄÅÉæÆôöòûùÿÖÜ¢£¥₧ƒáíóúñÑªº¿⌐¬½¼"
          "¡«»░▒▓│┤╡╢╖╕╣║╗╝╜╛┐└┴┬├─┼╞╟╚╔╩╦╠═╬╧╨╤╥╙╘╒╓╫╪┘┌█▄▌▐▀αßΓπΣσµτΦΘΩδ∞φε∩≡±≥≤⌠⌡÷≈°∙·√ⁿ²■ ";
static_assert(Glyphs.size() == 256);

// Of "portb[0x03d5] = 4f".
int portValue(const QJsonObject &answer)
{
    return answer["return"_L1].toString().trimmed().section(u' ', -1).toInt(nullptr, 16);
}

QStringList linesOf(const QByteArray &memory, qsizetype start, qsizetype rows)
{
    static const QRegularExpression blanksAtEnd(u" +$"_s);
    QStringList lines;
    for (qsizetype cell = 0; cell < rows * Columns; ++cell) {
        if (cell % Columns == 0)
            lines << QString();
        lines.last() += Glyphs[static_cast<uchar>(memory[2 * (start + cell) % TextBytes])];
    }
    lines.replaceInStrings(blanksAtEnd, QString());
    while (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();
    return lines;
}

Answer noPicture(const Machine &machine)
{
    return machine.is("running"_L1) ? fail(u"failed"_s, "QEMU cannot write what it shows into "_L1
                                                                + machine.folder.path())
                                    : wrongState("the VM is now "_L1 + machine.text("state"_L1));
}

// The lines that the screen shows in VGA's text mode, exactly, without blanks at their ends and
// blank ones at the end; or the refusal.
Later<std::pair<QStringList, Answer>> readText(MachinePtr machine)
{
    const QImage picture = co_await takePicture(machine);
    while (machine->screenIsRead)
        co_await pause(LookMs);
    if (picture.isNull() || !machine->qemu)
        co_return { {}, noPicture(*machine) };
    if (picture.size() != TextMode)
        co_return { {}, unavailable(u"the screen is graphical; look at it with capture_screen"_s) };
    const QScopedValueRollback reads(machine->screenIsRead, true);
    Qemu &qemu = *machine->qemu;
    // The registers of the CRT controller are read through its index, which is the guest's: the
    // guest stands still meanwhile, and finds the index as it was.
    qemu.command(u"stop"_s);
    const Later<QJsonObject> index = qemu.monitor(u"i/b 0x3d4"_s);
    const Later<QJsonObject> high = qemu.monitor(u"i/b 0x3d4.12"_s);
    const Later<QJsonObject> low = qemu.monitor(u"i/b 0x3d4.13"_s);
    const Later<QJsonObject> cellHeight = qemu.monitor(u"i/b 0x3d4.9"_s);
    const Later<QJsonObject> saved = qemu.monitor(u"pmemsave 0xb8000 0x8000 text"_s);
    const QString restore = u"o/b 0x3d4 %1"_s.arg(portValue(co_await index));
    if (machine->qemu) {
        machine->qemu->monitor(restore);
        machine->qemu->command(u"cont"_s);
    }
    const int start = portValue(co_await high) * 0x100 + portValue(co_await low);
    const int rows = TextMode.height() / ((portValue(co_await cellHeight) & 0x1f) + 1);
    co_await saved;
    const QByteArray memory = contents(machine->folder.filePath(u"text"_s));
    if (memory.size() < TextBytes)
        co_return { {}, noPicture(*machine) };
    co_return { linesOf(memory, start, rows), {} };
}

const Tool captureScreen("capture_screen", "running", [](const Call &call) -> Reply {
    const QImage picture = co_await takePicture(call.machine);
    co_return captured(*call.machine, picture, call.arguments);
});

const Tool readConsoleText("read_console_text", "running", [](const Call &call) -> Reply {
    const auto [all, refusal] = co_await readText(call.machine);
    if (!refusal.isEmpty())
        co_return refusal;
    const QStringList lines = all.filter(QRegularExpression(call.text("pattern"_L1)));
    co_return ok("text"_L1, lines.join(u'\n'), "lines"_L1, lines.size());
});

const Tool waitForText("wait_for_text", "running", [](const Call &call) -> Reply {
    const QRegularExpression pattern(call.text("pattern"_L1));
    const Later<bool> timeUp = pause(call.number("timeoutSeconds"_L1, 45) * 1'000);
    while (call.wanted()) {
        const bool last = timeUp.isSet();
        const auto [lines, refusal] = co_await readText(call.machine);
        const QStringList found = lines.filter(pattern);
        if (!found.isEmpty())
            co_return ok("found"_L1, true, "line"_L1, found[0]);
        if (!refusal.isEmpty() && (last || !call.machine->is("running"_L1)))
            co_return refusal;
        if (last)
            co_return ok("found"_L1, false, "line"_L1, QJsonValue());
        co_await pause(ReadAgainMs);
    }
    co_return {};
});

} // namespace

Later<QImage> takePicture(MachinePtr machine)
{
    while (machine->screenIsRead)
        co_await pause(LookMs);
    const QScopedValueRollback reads(machine->screenIsRead, true);
    if (!machine->qemu)
        co_return {};
    const QJsonObject answer
            = co_await machine->qemu->command(u"screendump"_s, object("filename"_L1, u"screen"_s));
    if (answer.contains("error"_L1))
        co_return {};
    const QImage image(machine->folder.filePath(u"screen"_s));
    if (!image.isNull() && machine->qemu)
        machine->settings["display"_L1]
                = object("width"_L1, image.width(), "height"_L1, image.height());
    co_return machine->qemu ? image : QImage();
}

Answer captured(const Machine &machine, const QImage &screen, const QJsonObject &arguments)
{
    const QJsonArray asked = arguments["region"_L1].toArray();
    const QRectF part(asked[0].toDouble(), asked[1].toDouble(), asked[2].toDouble(),
                      asked[3].toDouble());
    const QRect region = arguments.contains("region"_L1) ? part.toRect() : screen.rect();
    if (screen.isNull())
        return noPicture(machine);
    if (region.isEmpty() || !screen.rect().contains(region) || asked.size() % 4 != 0)
        return wrong(u"region must be [x, y, width, height] inside the screen"_s);
    const double scale = arguments["scale"_L1].toDouble(1);
    const QSize size = (QSizeF(region.size()) * scale).toSize().expandedTo({ 1, 1 });
    const QImage picture
            = screen.copy(region).scaled(size, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    const QString format = arguments["format"_L1].toString(u"png"_s);
    QBuffer bytes;
    bytes.open(QIODevice::WriteOnly);
    if (!picture.save(&bytes, format.toLatin1().constData()))
        return fail(u"failed"_s, "this host cannot write the format "_L1 + format);
    QJsonObject result = object("format"_L1, format, "width"_L1, size.width(), "height"_L1,
                                size.height(), "scale"_L1, scale, "displayWidth"_L1, screen.width(),
                                "displayHeight"_L1, screen.height());
    if (arguments["output"_L1].toString() != "file"_L1) {
        result["imageBase64"_L1] = QString::fromLatin1(bytes.data().toBase64());
        return ok(result);
    }
    // Only the user may read it, under a name that nobody else can have taken before.
    QTemporaryFile file(QDir::temp().filePath(u"orrery-demo-XXXXXX."_s + format));
    if (!file.open() || file.write(bytes.data()) != bytes.size() || !file.flush())
        return fail(u"failed"_s, "there is no room for the picture in "_L1 + QDir::tempPath());
    file.setAutoRemove(false);
    result["path"_L1] = file.fileName();
    return ok(result);
}
