// A machine's screen, and input to it.

#include "screen.h"
#include "tools.h"

#include <QRect>
#include <QRegularExpression>

using namespace Qt::StringLiterals;

namespace {

constexpr int MaxActions = 100;
const QStringList keyNames { u"enter"_s, u"tab"_s,    u"escape"_s, u"space"_s,  u"backspace"_s,
                             u"up"_s,    u"delete"_s, u"insert"_s, u"down"_s,   u"left"_s,
                             u"right"_s, u"home"_s,   u"end"_s,    u"pageup"_s, u"pagedown"_s };
const QStringList modifierNames { u"ctrl"_s, u"shift"_s, u"alt"_s, u"meta"_s };
const QStringList pointedTypes { u"click"_s, u"double"_s, u"move"_s, u"drag"_s };

Answer setConsoleWindowSize(World &, Machine &, const QJsonObject &arguments)
{
    return ok({ { u"width"_s, arguments["width"_L1] }, { u"height"_s, arguments["height"_L1] } });
}

Answer setDisplayResolution(World &, Machine &machine, const QJsonObject &arguments)
{
    const QJsonObject size { { u"width"_s, arguments["width"_L1] },
                             { u"height"_s, arguments["height"_L1] } };
    machine.settings["display"_L1] = size;
    return ok(size);
}

Answer capture(World &, Machine &machine, const QJsonObject &arguments)
{
    QString error;
    const auto picture = captureScreen(machine, arguments, &error);
    return picture ? ok(*picture) : wrong(error);
}

QStringList linesMatching(const Machine &machine, const QJsonValue &pattern)
{
    static const QRegularExpression trailingBlanks(u"\\s+$"_s);
    QStringList lines = machine.screenLines();
    lines.replaceInStrings(trailingBlanks, QString());
    while (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();
    return lines.filter(QRegularExpression(pattern.toString()));
}

Answer readConsoleText(World &, Machine &machine, const QJsonObject &arguments)
{
    const QStringList lines = linesMatching(machine, arguments["pattern"_L1]);
    return ok({ { u"text"_s, lines.join(u'\n') }, { u"lines"_s, lines.size() } });
}

Answer waitForText(World &world, Machine &machine, const QJsonObject &arguments)
{
    return world.watch(
            machine, arguments["timeoutSeconds"_L1].toInt(45),
            [pattern = arguments["pattern"_L1]](const Machine &now,
                                                bool timeUp) -> std::optional<Answer> {
                if (!now.is("running"_L1))
                    return fail(u"wrong_state"_s, "the VM is now "_L1 + now.text("state"_L1));
                const QStringList lines = linesMatching(now, pattern);
                if (lines.isEmpty() && !timeUp)
                    return {};
                return ok({ { u"found"_s, !lines.isEmpty() }, { u"line"_s, lines.value(0) } });
            });
}

QString keyComplaint(const QString &key)
{
    static const QRegularExpression functionKey(u"^f([1-9]|1[0-2])$"_s);
    const bool known
            = key.size() == 1 || keyNames.contains(key) || functionKey.match(key).hasMatch();
    return known ? QString() : "there is no key "_L1 + key;
}

// What one action lacks; empty when it can be done on a screen of that size.
QString actionComplaint(const QJsonObject &action, const QSize &screen, double imageScale)
{
    const QString type = action["type"_L1].toString();
    const auto off = [&](QLatin1StringView x, QLatin1StringView y) {
        return !QRect({}, screen)
                        .contains(int(action[x].toInt(-1) / imageScale),
                                  int(action[y].toInt(-1) / imageScale));
    };
    const bool pointed
            = pointedTypes.contains(type) || action.contains("x"_L1) || action.contains("y"_L1);
    if (pointed && off("x"_L1, "y"_L1))
        return type + " needs x and y inside the screen"_L1;
    if (type == "drag"_L1 && off("toX"_L1, "toY"_L1))
        return u"drag needs toX and toY inside the screen"_s;
    if (type == "scroll"_L1 && !action.contains("dy"_L1))
        return u"scroll needs dy"_s;
    if (type == "text"_L1 && !action.contains("value"_L1))
        return u"text needs value"_s;
    const QJsonArray held = action["modifiers"_L1].toArray();
    for (const QJsonValue &modifier : held) {
        if (!modifierNames.contains(modifier.toString()))
            return "there is no modifier "_L1 + modifier.toString();
    }
    return type == "key"_L1 ? keyComplaint(action["key"_L1].toString()) : QString();
}

QString inputComplaint(const QJsonObject &arguments, const QJsonArray &actions, const QSize &screen)
{
    if (arguments.contains("type"_L1) == arguments.contains("actions"_L1))
        return u"give either type or actions"_s;
    for (const auto &ofCapture : { "captureDelayMs"_L1, "region"_L1, "scale"_L1, "format"_L1 }) {
        if (arguments.contains(ofCapture) && !arguments["captureAfter"_L1].toBool())
            return ofCapture + " is only for captureAfter:true"_L1;
    }
    if (actions.isEmpty() || actions.size() > MaxActions)
        return u"actions must have 1 to %1 elements"_s.arg(MaxActions);
    const double imageScale = arguments["imageScale"_L1].toDouble(1);
    for (const QJsonValue &action : actions) {
        const QString complaint = actionComplaint(action.toObject(), screen, imageScale);
        if (!complaint.isEmpty())
            return complaint;
    }
    QString complaint;
    askedRegion(arguments, { {}, screen }, &complaint);
    return complaint;
}

Answer sendInput(World &world, Machine &machine, const QJsonObject &arguments)
{
    const QJsonArray actions = arguments.contains("type"_L1) ? QJsonArray { arguments }
                                                             : arguments["actions"_L1].toArray();
    const QString complaint = inputComplaint(arguments, actions, machine.display());
    if (!complaint.isEmpty())
        return wrong(complaint);
    for (const QJsonValue &action : actions) {
        if (action["type"_L1].toString() == "text"_L1)
            machine.typed += action["value"_L1].toString();
        else if (action["key"_L1].toString() == "enter"_L1)
            machine.typed += u"\n$ "_s;
    }
    const bool captureAfter = arguments["captureAfter"_L1].toBool();
    const qint64 duration = actions.size() * arguments["delayMs"_L1].toInteger(50)
                            + (captureAfter ? arguments["captureDelayMs"_L1].toInteger(500) : 0);
    return after(duration, [=, &world, id = machine.text("id"_L1), done = actions.size()] {
        const Machine *shown = captureAfter ? world.findMachine(id) : nullptr;
        QString error;
        auto result = shown ? captureScreen(*shown, arguments, &error) : QJsonObject();
        if (!result)
            return wrong(error);
        result->insert("actions"_L1, done);
        return ok(*result);
    });
}

} // namespace

std::vector<Tool> screenTools()
{
    using enum Needs;
    return {
        { "set_console_window_size"_L1, { Running }, setConsoleWindowSize },
        { "set_display_resolution"_L1, { Running, GuestTools }, setDisplayResolution },
        { "capture_screen"_L1, { Running }, capture },
        { "read_console_text"_L1, { Running }, readConsoleText },
        { "wait_for_text"_L1, { Running }, waitForText },
        { "send_input"_L1, { Running }, sendInput },
    };
}
