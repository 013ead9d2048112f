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
constexpr QStringView Shifted = u"~!@#$%^&*()_+{}|:\"<>?";
constexpr QStringView Unshifted = u"`1234567890-=[]\\;',./";

// Events for QEMU that go together, and the pause after them.
struct Step
{
    QJsonArray events;
    int pauseMs;
};

using Steps = std::vector<Step>;

// The entry of a table like "enter=ret tab=tab"; nothing where there is none.
QString entry(const QString &table, const QString &name)
{
    const QRegularExpression line("(?:^| )"_L1 + QRegularExpression::escape(name) + "=(\\S+)"_L1);
    return line.match(table).captured(1);
}

QString keyCode(const QString &name)
{
    static const QRegularExpression plain(u"^([a-z0-9]|f[1-9]|f1[0-2])$"_s);
    static const QString codes
            = u"enter=ret tab=tab escape=esc space=spc delete=delete insert=insert up=up down=down "
              "left=left right=right home=home end=end pageup=pgup pagedown=pgdn "
              "backspace=backspace -=minus ==equal [=bracket_left ]=bracket_right \\=backslash "
              ";=semicolon '=apostrophe `=grave_accent ,=comma .=dot /=slash"_s;
    if (name == " "_L1 || name == "\n"_L1 || name == "\t"_L1)
        return name == " "_L1 ? u"spc"_s : name == "\n"_L1 ? u"ret"_s : u"tab"_s;
    return plain.match(name).hasMatch() ? name : entry(codes, name);
}

QJsonObject keyEvent(const QString &code, bool down)
{
    const QJsonObject key = object("type"_L1, u"qcode"_s, "data"_L1, code);
    return object("type"_L1, u"key"_s, "data"_L1, object("down"_L1, down, "key"_L1, key));
}

Step button(const QString &name, bool down)
{
    const QJsonObject data = object("down"_L1, down, "button"_L1, name);
    return { { object("type"_L1, u"btn"_s, "data"_L1, data) }, ButtonMs };
}

// Types a character, or presses the key of a name; false where a US keyboard lacks it.
bool press(Steps &steps, const QString &name)
{
    const QChar first = name.size() == 1 ? name[0] : QChar();
    const qsizetype shifted = Shifted.indexOf(first);
    const bool upper = first >= u'A' && first <= u'Z';
    const QString code = keyCode(shifted >= 0 ? QString(Unshifted[shifted])
                                 : upper      ? name.toLower()
                                              : name);
    QJsonArray events { keyEvent(code, true), keyEvent(code, false) };
    if (shifted >= 0 || upper) {
        events.prepend(keyEvent(u"shift"_s, true));
        events.append(keyEvent(u"shift"_s, false));
    }
    steps.push_back({ events, KeyMs });
    return !code.isEmpty();
}

// The steps of one action on a screen of a size; what is wrong with it, in error.
class Action
{
public:
    Action(const QJsonObject &wanted, QSize size, double imageScale)
        : action(wanted), screen(size), scale(imageScale)
    {
        const QString type = action["type"_L1].toString();
        const bool pointed = type == "click"_L1 || type == "double"_L1 || type == "move"_L1
                             || type == "drag"_L1;
        if (pointed || action.contains("x"_L1) || action.contains("y"_L1))
            steps.push_back(moveTo(at("x"_L1, "y"_L1)));
        modify(true);
        if (type == "text"_L1)
            text();
        else if (type == "key"_L1 && !press(steps, action["key"_L1].toString()))
            error = "there is no key "_L1 + action["key"_L1].toString();
        else if (type == "scroll"_L1)
            scroll();
        else if (type == "drag"_L1)
            drag();
        for (int n = type == "click"_L1 ? 1 : type == "double"_L1 ? 2 : 0; n > 0; --n) {
            steps.push_back(button(buttonName(), true));
            steps.push_back(button(buttonName(), false));
        }
        modify(false);
    }

    Steps steps;
    QString error;

private:
    QString buttonName() const { return action["button"_L1].toString(u"left"_s); }

    QPoint at(QLatin1StringView x, QLatin1StringView y)
    {
        const QPointF point(action[x].toInt(-1) / scale, action[y].toInt(-1) / scale);
        if (point.x() < 0 || point.y() < 0 || point.x() >= screen.width()
            || point.y() >= screen.height())
            error = u"%1 and %2 must be inside the screen"_s.arg(x, y);
        return { static_cast<int>(point.x()), static_cast<int>(point.y()) };
    }

    Step moveTo(QPoint point) const
    {
        const auto axis = [](const QString &name, int value, int size) {
            const int place = (2 * value + 1) * TabletRange / (2 * std::max(1, size));
            const QJsonObject data = object("axis"_L1, name, "value"_L1, place);
            return object("type"_L1, u"abs"_s, "data"_L1, data);
        };
        return { { axis(u"x"_s, point.x(), screen.width()),
                   axis(u"y"_s, point.y(), screen.height()) },
                 ButtonMs };
    }

    void modify(bool down)
    {
        QJsonArray events;
        const QJsonArray held = action["modifiers"_L1].toArray();
        for (const QJsonValue &modifier : held) {
            const QString code
                    = entry(u"ctrl=ctrl shift=shift alt=alt meta=meta_l"_s, modifier.toString());
            if (code.isEmpty())
                error = "there is no modifier "_L1 + modifier.toString();
            events.append(keyEvent(code, down));
        }
        if (!events.isEmpty())
            steps.push_back({ events, KeyMs });
    }

    void text()
    {
        if (!action.contains("value"_L1))
            error = u"text needs value"_s;
        const QString value = action["value"_L1].toString();
        for (const QChar character : value) {
            if (!press(steps, character))
                error = "a US keyboard has no key for "_L1 + character;
        }
    }

    void scroll()
    {
        if (!action.contains("dy"_L1))
            error = u"scroll needs dy"_s;
        const int dy = action["dy"_L1].toInt();
        for (int n = 0; n < 2 * std::abs(dy); ++n)
            steps.push_back(button(dy > 0 ? u"wheel-down"_s : u"wheel-up"_s, n % 2 == 0));
    }

    void drag()
    {
        const QPoint from = at("x"_L1, "y"_L1);
        const QPoint way = at("toX"_L1, "toY"_L1) - from;
        steps.push_back(button(buttonName(), true));
        for (int n = 1; n <= DragSteps; ++n)
            steps.push_back(moveTo(from + way * n / DragSteps));
        steps.push_back(button(buttonName(), false));
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
    return actions.isEmpty() || actions.size() > MaxActions
                   ? u"actions must have 1 to %1 elements"_s.arg(MaxActions)
                   : QString();
}

// Nothing, or what QEMU or the machine's end made impossible.
Later<QString> perform(MachinePtr machine, Steps steps)
{
    for (const Step &step : steps) {
        if (!machine->is("running"_L1) || !machine->qemu)
            co_return "the VM is now "_L1 + machine->text("state"_L1);
        const QJsonObject answer = co_await machine->qemu->command(
                u"input-send-event"_s, object("events"_L1, step.events));
        if (answer.contains("error"_L1))
            co_return answer["error"_L1]["desc"_L1].toString();
        co_await pause(step.pauseMs);
    }
    co_return {};
}

Later<Answer> sendInput(const Call &call)
{
    const QJsonObject &arguments = call.arguments;
    QJsonArray actions = arguments["actions"_L1].toArray();
    if (arguments.contains("type"_L1))
        actions.append(arguments);
    QString complaint = inputComplaint(arguments, actions);
    const QImage before = co_await takePicture(call.machine);
    std::vector<Steps> all;
    for (qsizetype n = 0; n < actions.size() && complaint.isEmpty(); ++n) {
        const Action action(actions[n].toObject(), before.size(),
                            arguments["imageScale"_L1].toDouble(1));
        all.push_back(action.steps);
        complaint = action.error;
    }
    if (!complaint.isEmpty())
        co_return wrong(complaint);
    Answer picture = captured(before, arguments); // tells whether there is such a part of it
    if (picture.contains("error"_L1))
        co_return picture;
    int done = 0;
    for (const Steps &steps : all) {
        const QString failure = co_await perform(call.machine, steps);
        if (!failure.isEmpty())
            co_return wrongState(u"%1 actions were done, then: %2"_s.arg(done).arg(failure));
        ++done;
        co_await pause(call.number("delayMs"_L1, 50));
    }
    if (!call.flag("captureAfter"_L1))
        co_return ok("actions"_L1, done);
    co_await pause(call.number("captureDelayMs"_L1, 500));
    picture = captured(co_await takePicture(call.machine), arguments);
    if (picture.contains("error"_L1))
        co_return wrongState(u"%1 actions were done, but the VM has stopped since"_s.arg(done));
    QJsonObject result = picture["result"_L1].toObject();
    result["actions"_L1] = done;
    co_return ok(result);
}

} // namespace

std::vector<Tool> inputTools() { return { { u"send_input"_s, u"running"_s, sendInput, {} } }; }
