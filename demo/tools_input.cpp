// Input to a machine: what each action does to its US keyboard, its tablet and its buttons.

#include "tools.h"

#include <QRegularExpression>

namespace {

constexpr int MaxActions = 100;
constexpr int MaxDelayMs = 45'000; // in sum
constexpr int EventMs = 30; // between events: a guest takes in no more than it has read of the last
constexpr int DragSteps = 10;
constexpr int TabletRange = 0x8000;

// Of words like "enter=ret", names with QEMU's names of their keys.
QHash<QString, QString> table(const QString &words)
{
    QHash<QString, QString> all;
    const QStringList entries = words.split(u' ');
    for (const QString &entry : entries)
        all.insert(entry.chopped(entry.size() - entry.indexOf(u'=', 1)), entry.section(u'=', -1));
    return all;
}

const auto modifierCodes = table(u"ctrl=ctrl shift=shift alt=alt meta=meta_l"_s);
const auto keyCodes = table(
        u"enter=ret tab=tab escape=esc space=spc backspace=backspace up=up down=down left=left "
        "right=right delete=delete insert=insert home=home end=end pageup=pgup pagedown=pgdn "
        "-=minus ==equal [=bracket_left ]=bracket_right \\=backslash ;=semicolon '=apostrophe "
        "`=grave_accent ,=comma .=dot /=slash"_s);

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
        const QPointF point(action[x].toInt(-1) / scale, action[y].toInt(-1) / scale);
        if (!QRectF({}, screen).contains(point))
            error = u"%1 and %2 must be inside the screen"_s.arg(x, y);
        return { static_cast<int>(point.x()), static_cast<int>(point.y()) };
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
            const QString code = modifierCodes.value(modifier.toString());
            if (code.isEmpty())
                error = "there is no modifier "_L1 + modifier.toString();
            steps << QJsonArray { keyEvent(code, down) };
        }
    }

    void press(const QString &given)
    {
        static const QRegularExpression plain(u"^([a-z0-9]|f[1-9]|f1[0-2])$"_s);
        static const QString symbols = u"~!@#$%^&*()_+{}|:\"<>?"_s;
        static const QString bareSymbols = u"`1234567890-=[]\\;',./"_s;
        const QString name = given == " "_L1    ? u"space"_s
                             : given == "\n"_L1 ? u"enter"_s
                             : given == "\t"_L1 ? u"tab"_s
                                                : given;
        const qsizetype symbol = name.size() == 1 ? symbols.indexOf(name) : -1;
        const bool upper = name.size() == 1 && name[0] >= u'A' && name[0] <= u'Z';
        const QString bare = symbol >= 0 ? bareSymbols.mid(symbol, 1)
                             : upper     ? name.toLower()
                                         : name;
        const QString code = plain.match(bare).hasMatch() ? bare : keyCodes.value(bare);
        if (code.isEmpty())
            error = "a US keyboard has no key for "_L1 + name;
        QJsonArray events { keyEvent(code, true), keyEvent(code, false) };
        if (symbol >= 0 || upper)
            events = { keyEvent(u"shift"_s, true), events[0], events[1],
                       keyEvent(u"shift"_s, false) };
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
    Answer picture = captured(before, call.arguments); // tells whether there is such a part of it
    if (picture.contains("error"_L1))
        co_return picture;
    int done = 0;
    for (const Action &action : all) {
        for (const QJsonArray &step : action.steps) {
            while (call.machine
                           ->screenIsRead) // the guest may stand still, and QEMU drops events then
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
    picture = captured(co_await takePicture(call.machine), call.arguments);
    QJsonObject result = picture["result"_L1].toObject();
    result["actions"_L1] = done;
    co_return picture.contains("error"_L1) ? picture : ok(result);
});

} // namespace
