// Input to a machine: what each action does to its US keyboard, its tablet and its buttons.

#include "tools.h"

#include <QRegularExpression>

namespace {

constexpr int MaxActions = 100;
constexpr int MaxDelayMs = 45'000; // in sum
constexpr int EventMs = 30; // between events: a guest takes in no more than it has read of the last
constexpr int DragSteps = 10;
constexpr int TabletRange = 0x8000;

// QEMU's names of keys, by the catalogue's or by what is on them; the others have the same.
const QHash<QString, QString> keyCodes {
    { u"enter"_s, u"ret"_s },      { u"\n"_s, u"ret"_s },         { u"\t"_s, u"tab"_s },
    { u"escape"_s, u"esc"_s },     { u"space"_s, u"spc"_s },      { u" "_s, u"spc"_s },
    { u"pageup"_s, u"pgup"_s },    { u"pagedown"_s, u"pgdn"_s },  { u"-"_s, u"minus"_s },
    { u"="_s, u"equal"_s },        { u"["_s, u"bracket_left"_s }, { u"]"_s, u"bracket_right"_s },
    { u"\\"_s, u"backslash"_s },   { u";"_s, u"semicolon"_s },    { u"'"_s, u"apostrophe"_s },
    { u"`"_s, u"grave_accent"_s }, { u","_s, u"comma"_s },        { u"."_s, u"dot"_s },
    { u"/"_s, u"slash"_s },
};
const QRegularExpression sameCodes(
        u"^([a-z0-9]|f[1-9]|f1[0-2]|tab|backspace|delete|insert|up|down|left|right|home|end)$"_s);

QJsonObject keyEvent(const QString &code, bool down)
{
    const QJsonObject key = object("type"_L1, u"qcode"_s, "data"_L1, code);
    return object("type"_L1, u"key"_s, "data"_L1, object("down"_L1, down, "key"_L1, key));
}

// What one action makes of QEMU's events, those together that make a step; and what is wrong with
// it.
struct Action
{
    Action(const QJsonObject &wanted, QSize size, double imageScale)
        : action(wanted), screen(size), scale(imageScale)
    {
        const QString type = action["type"_L1].toString();
        const bool pointless = type == "text"_L1 || type == "key"_L1 || type == "scroll"_L1;
        if (!pointless || action.contains("x"_L1) || action.contains("y"_L1))
            moveTo(at("x"_L1, "y"_L1));
        hold(true);
        const QString text = action["value"_L1].toString();
        if (type == "text"_L1 && !action.contains("value"_L1))
            error = u"text needs value"_s;
        for (qsizetype n = 0; type == "text"_L1 && n < text.size(); ++n)
            press(text.mid(n, 1));
        if (type == "key"_L1)
            press(action["key"_L1].toString());
        if (type == "scroll"_L1)
            scroll();
        if (type == "drag"_L1)
            drag(at("x"_L1, "y"_L1), at("toX"_L1, "toY"_L1));
        for (int n = type == "click"_L1 ? 2 : type == "double"_L1 ? 4 : 0; n > 0; --n)
            button(n % 2 == 0, action["button"_L1].toString(u"left"_s));
        hold(false);
    }

    QPoint at(QLatin1StringView x, QLatin1StringView y)
    {
        const auto pixel = [this](QLatin1StringView name) {
            return static_cast<int>(action[name].toInt(-1) / scale);
        };
        const QPoint point(pixel(x), pixel(y));
        if (!QRect({}, screen).contains(point))
            error = u"%1 and %2 must be inside the screen"_s.arg(x, y);
        return point;
    }

    void moveTo(QPoint point)
    {
        const auto axis = [](const QString &name, int value, int size) {
            const int place = (2 * value + 1) * TabletRange / (2 * std::max(1, size));
            const QJsonObject data = object("axis"_L1, name, "value"_L1, place);
            return object("type"_L1, u"abs"_s, "data"_L1, data);
        };
        steps << QJsonArray { axis(u"x"_s, point.x(), screen.width()),
                              axis(u"y"_s, point.y(), screen.height()) };
    }

    void button(bool down, const QString &name)
    {
        const QJsonObject data = object("down"_L1, down, "button"_L1, name);
        steps << QJsonArray { object("type"_L1, u"btn"_s, "data"_L1, data) };
    }

    void hold(bool down)
    {
        const QJsonArray held = action["modifiers"_L1].toArray();
        for (const QJsonValue &modifier : held) {
            const QString name = modifier.toString();
            if (!QStringList { u"ctrl"_s, u"shift"_s, u"alt"_s, u"meta"_s }.contains(name))
                error = "there is no modifier "_L1 + name;
            const QString code = name == "meta"_L1 ? u"meta_l"_s : name;
            steps << QJsonArray { keyEvent(code, down) };
        }
    }

    void press(const QString &name)
    {
        static const QString shifted = u"~!@#$%^&*()_+{}|:\"<>?ABCDEFGHIJKLMNOPQRSTUVWXYZ"_s;
        static const QString bare = u"`1234567890-=[]\\;',./abcdefghijklmnopqrstuvwxyz"_s;
        const qsizetype shift = name.size() == 1 ? shifted.indexOf(name) : -1;
        const QString key = shift < 0 ? name : bare.mid(shift, 1);
        const QString code = keyCodes.value(key, sameCodes.match(key).hasMatch() ? key : QString());
        if (code.isEmpty())
            error = "a US keyboard has no key for "_L1 + name;
        QJsonArray events { keyEvent(code, true), keyEvent(code, false) };
        if (shift >= 0) {
            events.prepend(keyEvent(u"shift"_s, true));
            events.append(keyEvent(u"shift"_s, false));
        }
        steps << events;
    }

    void scroll()
    {
        if (!action.contains("dy"_L1))
            error = u"scroll needs dy"_s;
        const int dy = action["dy"_L1].toInt();
        for (int n = 0; n < 2 * std::abs(dy); ++n)
            button(n % 2 == 0, dy > 0 ? u"wheel-down"_s : u"wheel-up"_s);
    }

    void drag(QPoint from, QPoint to)
    {
        const QString name = action["button"_L1].toString(u"left"_s);
        button(true, name);
        for (int n = 1; n <= DragSteps; ++n)
            moveTo(from + (to - from) * n / DragSteps);
        button(false, name);
    }

    const QJsonObject action;
    const QSize screen;
    const double scale;
    QList<QJsonArray> steps;
    QString error;
};

QString inputComplaint(const Call &call, const QJsonArray &actions)
{
    if (call.arguments.contains("type"_L1) == call.arguments.contains("actions"_L1))
        return u"give either type or actions"_s;
    for (const auto &ofCapture : { "captureDelayMs"_L1, "region"_L1, "scale"_L1, "format"_L1 }) {
        if (call.arguments.contains(ofCapture) && !call.flag("captureAfter"_L1))
            return ofCapture + " is only for captureAfter:true"_L1;
    }
    if (actions.isEmpty() || actions.size() > MaxActions)
        return u"actions must have 1 to %1 elements"_s.arg(MaxActions);
    return actions.size() * call.number("delayMs"_L1, 50) < MaxDelayMs
                   ? QString()
                   : u"delayMs must be below 45 seconds in sum"_s;
}

const Tool sendInput("send_input", "running", [](const Call &call) -> Reply {
    QJsonArray actions = call.arguments["actions"_L1].toArray();
    if (call.arguments.contains("type"_L1))
        actions.append(call.arguments);
    QString complaint = inputComplaint(call, actions);
    const QImage before = co_await takePicture(call.machine);
    const double imageScale = call.arguments["imageScale"_L1].toDouble(1);
    std::list<Action> all;
    for (qsizetype n = 0; n < actions.size() && complaint.isEmpty(); ++n)
        complaint = all.emplace_back(actions[n].toObject(), before.size(), imageScale).error;
    if (!complaint.isEmpty())
        co_return wrong(complaint);
    Answer picture = captured(*call.machine, before,
                              call.arguments); // tells whether there is such a part of it
    if (picture.contains("error"_L1))
        co_return picture;
    int done = 0;
    for (const Action &action : all) {
        for (const QJsonArray &step : action.steps) {
            while (call.machine->screenIsRead) // the guest stands still, and QEMU drops events
                co_await pause(EventMs);
            if (!call.machine->qemu)
                co_return wrongState(u"%1 actions were done, then the VM ended"_s.arg(done));
            const QJsonObject events = object("events"_L1, step);
            co_await call.machine->qemu->command(u"input-send-event"_s, events);
            co_await pause(EventMs);
        }
        ++done;
        co_await pause(call.number("delayMs"_L1, 50));
    }
    if (!call.flag("captureAfter"_L1))
        co_return ok("actions"_L1, done);
    co_await pause(call.number("captureDelayMs"_L1, 500));
    const QImage after = co_await takePicture(call.machine);
    picture = captured(*call.machine, after, call.arguments);
    QJsonObject result = picture["result"_L1].toObject();
    result["actions"_L1] = done;
    co_return picture.contains("error"_L1) ? picture : ok(result);
});

} // namespace
