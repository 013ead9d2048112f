// Input to a machine: what each action does to its US keyboard, its tablet and its buttons.

#include "screen.h"
#include "tools.h"

#include <QRegularExpression>

using namespace Qt::StringLiterals;

namespace {

constexpr int MaxActions = 100;
constexpr int KeyMs = 25; // between keys: a guest takes in no more than it has read of the last
constexpr int ButtonMs = 40;
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

// What one action makes of QEMU's events, and what is wrong with it.
class Action
{
public:
    struct Step
    {
        QJsonArray events; // that go together
        int pauseMs; // after them
    };

    Action(const QJsonObject &wanted, QSize size, double imageScale)
        : action(wanted), screen(size), scale(imageScale)
    {
        static const QHash<QString, void (Action::*)()> byType {
            { u"text"_s, &Action::text },     { u"key"_s, &Action::key },
            { u"scroll"_s, &Action::scroll }, { u"drag"_s, &Action::drag },
            { u"click"_s, &Action::click },   { u"double"_s, &Action::doubleClick },
            { u"move"_s, &Action::move },
        };
        const QString type = action["type"_L1].toString();
        const bool pointless = type == "text"_L1 || type == "key"_L1 || type == "scroll"_L1;
        if (!pointless || action.contains("x"_L1) || action.contains("y"_L1))
            moveTo(at("x"_L1, "y"_L1));
        hold(true);
        (this->*byType[type])();
        hold(false);
    }

    std::vector<Step> steps;
    QString error;

private:
    void move() { } // which has been done
    void click() { button(true), button(false); }
    void doubleClick() { click(), click(); }

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
        steps.push_back({ { axis(u"x"_s, point.x(), screen.width()),
                            axis(u"y"_s, point.y(), screen.height()) },
                          ButtonMs });
    }

    void button(bool down, const QString &other = {})
    {
        const QString name = other.isEmpty() ? action["button"_L1].toString(u"left"_s) : other;
        const QJsonObject data = object("down"_L1, down, "button"_L1, name);
        steps.push_back({ { object("type"_L1, u"btn"_s, "data"_L1, data) }, ButtonMs });
    }

    void hold(bool down)
    {
        const QJsonArray held = action["modifiers"_L1].toArray();
        for (const QJsonValue &modifier : held) {
            const QString code = modifierCodes.value(modifier.toString());
            if (code.isEmpty())
                error = "there is no modifier "_L1 + modifier.toString();
            steps.push_back({ { keyEvent(code, down) }, KeyMs });
        }
    }

    void press(QString name)
    {
        static const QRegularExpression plain(u"^([a-z0-9]|f[1-9]|f1[0-2])$"_s);
        static const QHash<QString, QString> blanks { { u" "_s, u"space"_s },
                                                      { u"\n"_s, u"enter"_s },
                                                      { u"\t"_s, u"tab"_s } };
        name = blanks.value(name, name);
        const qsizetype symbol = name.size() == 1 ? u"~!@#$%^&*()_+{}|:\"<>?"_s.indexOf(name) : -1;
        const bool upper = name.size() == 1 && name[0] >= u'A' && name[0] <= u'Z';
        const QString bare = symbol >= 0 ? u"`1234567890-=[]\\;',./"_s.mid(symbol, 1)
                             : upper     ? name.toLower()
                                         : name;
        const QString code = plain.match(bare).hasMatch() ? bare : keyCodes.value(bare);
        if (code.isEmpty())
            error = "a US keyboard has no key for "_L1 + name;
        QJsonArray events { keyEvent(code, true), keyEvent(code, false) };
        if (symbol >= 0 || upper)
            events = { keyEvent(u"shift"_s, true), events[0], events[1],
                       keyEvent(u"shift"_s, false) };
        steps.push_back({ events, KeyMs });
    }

    void key() { press(action["key"_L1].toString()); }

    void text()
    {
        if (!action.contains("value"_L1))
            error = u"text needs value"_s;
        const QString value = action["value"_L1].toString();
        for (const QChar character : value)
            press(character);
    }

    void scroll()
    {
        if (!action.contains("dy"_L1))
            error = u"scroll needs dy"_s;
        const int dy = action["dy"_L1].toInt();
        for (int n = 0; n < 2 * std::abs(dy); ++n)
            button(n % 2 == 0, dy > 0 ? u"wheel-down"_s : u"wheel-up"_s);
    }

    void drag()
    {
        const QPoint from = at("x"_L1, "y"_L1);
        const QPoint way = at("toX"_L1, "toY"_L1) - from;
        button(true);
        for (int n = 1; n <= DragSteps; ++n)
            moveTo(from + way * n / DragSteps);
        button(false);
    }

    QJsonObject action;
    QSize screen;
    double scale;
};

QString inputComplaint(const QJsonObject &arguments, const QJsonArray &actions)
{
    if (arguments.contains("type"_L1) == arguments.contains("actions"_L1))
        return u"give either type or actions"_s;
    for (const auto &ofCapture : { "captureDelayMs"_L1, "region"_L1, "scale"_L1, "format"_L1 }) {
        if (arguments.contains(ofCapture) && !arguments["captureAfter"_L1].toBool())
            return ofCapture + " is only for captureAfter:true"_L1;
    }
    const bool inRange = !actions.isEmpty() && actions.size() <= MaxActions;
    return inRange ? QString() : u"actions must have 1 to %1 elements"_s.arg(MaxActions);
}

// Nothing, or what QEMU or the machine's end made impossible.
Later<QString> perform(MachinePtr machine, std::vector<Action::Step> steps)
{
    for (const auto &[events, pauseMs] : steps) {
        if (!machine->is("running"_L1) || !machine->qemu)
            co_return "the VM is now "_L1 + machine->text("state"_L1);
        const QJsonObject sent = object("events"_L1, events);
        const QJsonObject answer = co_await machine->qemu->command(u"input-send-event"_s, sent);
        if (answer.contains("error"_L1))
            co_return answer["error"_L1]["desc"_L1].toString();
        co_await pause(pauseMs);
    }
    co_return {};
}

Later<Answer> sendInput(const Call &call)
{
    QJsonArray actions = call.arguments["actions"_L1].toArray();
    if (call.arguments.contains("type"_L1))
        actions.append(call.arguments);
    QString complaint = inputComplaint(call.arguments, actions);
    const QImage before = co_await takePicture(call.machine);
    const double imageScale = call.arguments["imageScale"_L1].toDouble(1);
    std::vector<Action> all;
    for (qsizetype n = 0; n < actions.size() && complaint.isEmpty(); ++n)
        complaint = all.emplace_back(actions[n].toObject(), before.size(), imageScale).error;
    if (!complaint.isEmpty())
        co_return wrong(complaint);
    Answer picture = captured(before, call.arguments); // tells whether there is such a part of it
    if (picture.contains("error"_L1))
        co_return picture;
    int done = 0;
    for (const Action &action : all) {
        const QString failure = co_await perform(call.machine, action.steps);
        if (!failure.isEmpty())
            co_return wrongState(u"%1 actions were done, then: %2"_s.arg(done).arg(failure));
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
}

} // namespace

std::vector<Tool> inputTools() { return { { u"send_input"_s, u"running"_s, sendInput, {} } }; }
