// Input to a machine: what each action does to its keyboard, tablet and buttons.

#include "keyboard.h"
#include "screen.h"
#include "tools.h"

using namespace Qt::StringLiterals;

namespace {

constexpr int MaxActions = 100;
constexpr int KeyMs = 25; // between keys: a guest takes in no more than it has read of the last
constexpr int ButtonMs = 40;
constexpr int DragSteps = 10;
constexpr int TabletRange = 0x8000;
const QStringList pointedTypes { u"click"_s, u"double"_s, u"move"_s, u"drag"_s };

// Events for QEMU that go together, and the pause after them.
struct Step
{
    QJsonArray events;
    int pauseMs;
};

using Steps = std::vector<Step>;

// Where an action is, in pixels of the guest.
struct Pointer
{
    QSize screen;
    double imageScale;

    std::optional<QPoint> at(const QJsonObject &action, QLatin1StringView x,
                             QLatin1StringView y) const
    {
        if (!action.contains(x) || !action.contains(y))
            return {};
        const QPoint point(static_cast<int>(action[x].toInt() / imageScale),
                           static_cast<int>(action[y].toInt() / imageScale));
        const bool inside = action[x].toInt() >= 0 && action[y].toInt() >= 0
                            && QRect({}, screen).contains(point);
        return inside ? std::optional(point) : std::nullopt;
    }

    Step moveTo(QPoint point) const
    {
        const auto axis = [](const QString &name, int value, int size) {
            const int place = (2 * value + 1) * TabletRange / (2 * size);
            return QJsonObject { { u"type"_s, u"abs"_s },
                                 { u"data"_s,
                                   QJsonObject { { u"axis"_s, name }, { u"value"_s, place } } } };
        };
        return { { axis(u"x"_s, point.x(), screen.width()),
                   axis(u"y"_s, point.y(), screen.height()) },
                 ButtonMs };
    }
};

QJsonObject keyEvent(const QString &code, bool down)
{
    const QJsonObject key { { u"type"_s, u"qcode"_s }, { u"data"_s, code } };
    return { { u"type"_s, u"key"_s },
             { u"data"_s, QJsonObject { { u"down"_s, down }, { u"key"_s, key } } } };
}

Step button(const QString &name, bool down)
{
    const QJsonObject data { { u"down"_s, down }, { u"button"_s, name } };
    return { { QJsonObject { { u"type"_s, u"btn"_s }, { u"data"_s, data } } }, ButtonMs };
}

void press(Steps &steps, const Key &key)
{
    QJsonArray events { keyEvent(key.code, true), keyEvent(key.code, false) };
    if (key.shifted) {
        events.prepend(keyEvent(u"shift"_s, true));
        events.append(keyEvent(u"shift"_s, false));
    }
    steps.push_back({ events, KeyMs });
}

QString textSteps(Steps &steps, const QJsonObject &action)
{
    if (!action.contains("value"_L1))
        return u"text needs value"_s;
    const QString text = action["value"_L1].toString();
    for (const QChar character : text) {
        const auto key = keyTyping(character);
        if (!key)
            return "a US keyboard has no key for "_L1 + character;
        press(steps, *key);
    }
    return {};
}

QString keySteps(Steps &steps, const QJsonObject &action)
{
    const auto key = keyNamed(action["key"_L1].toString());
    if (!key)
        return "there is no key "_L1 + action["key"_L1].toString();
    press(steps, *key);
    return {};
}

QString scrollSteps(Steps &steps, const QJsonObject &action)
{
    if (!action.contains("dy"_L1))
        return u"scroll needs dy"_s;
    const int dy = action["dy"_L1].toInt();
    for (int n = 0; n < std::abs(dy); ++n) {
        for (const bool down : { true, false })
            steps.push_back(button(dy > 0 ? u"wheel-down"_s : u"wheel-up"_s, down));
    }
    return {};
}

QString pointedSteps(Steps &steps, const QJsonObject &action, const Pointer &pointer)
{
    const QString type = action["type"_L1].toString();
    const QString name = action["button"_L1].toString(u"left"_s);
    const auto to = pointer.at(action, "toX"_L1, "toY"_L1);
    if (type == "drag"_L1 && !to)
        return u"drag needs toX and toY inside the screen"_s;
    if (type == "drag"_L1) {
        const QPoint from = *pointer.at(action, "x"_L1, "y"_L1);
        steps.push_back(button(name, true));
        for (int n = 1; n <= DragSteps; ++n)
            steps.push_back(pointer.moveTo(from + (*to - from) * n / DragSteps));
        steps.push_back(button(name, false));
    }
    for (int clicks = type == "click"_L1 ? 1 : type == "double"_L1 ? 2 : 0; clicks > 0; --clicks) {
        steps.push_back(button(name, true));
        steps.push_back(button(name, false));
    }
    return {};
}

// Adds what one action does; gives what it lacks.
QString actionSteps(Steps &steps, const QJsonObject &action, const Pointer &pointer)
{
    const QString type = action["type"_L1].toString();
    if (pointedTypes.contains(type) || action.contains("x"_L1) || action.contains("y"_L1)) {
        const auto point = pointer.at(action, "x"_L1, "y"_L1);
        if (!point)
            return type + " needs x and y inside the screen"_L1;
        steps.push_back(pointer.moveTo(*point));
    }
    Steps inner;
    const QString complaint = type == "text"_L1     ? textSteps(inner, action)
                              : type == "key"_L1    ? keySteps(inner, action)
                              : type == "scroll"_L1 ? scrollSteps(inner, action)
                                                    : pointedSteps(inner, action, pointer);
    const QJsonArray held = action["modifiers"_L1].toArray();
    QJsonArray down;
    QJsonArray up;
    for (const QJsonValue &modifier : held) {
        const auto code = modifierCode(modifier.toString());
        if (!code)
            return "there is no modifier "_L1 + modifier.toString();
        down.append(keyEvent(*code, true));
        up.prepend(keyEvent(*code, false));
    }
    if (!held.isEmpty())
        steps.push_back({ down, KeyMs });
    steps.insert(steps.end(), inner.begin(), inner.end());
    if (!held.isEmpty())
        steps.push_back({ up, KeyMs });
    return complaint;
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
    QString complaint;
    askedRegion(arguments, { {}, screen }, &complaint);
    return complaint;
}

// Nothing, or what QEMU or the machine's end made impossible.
Later<QString> perform(MachinePtr machine, Steps steps)
{
    for (const Step &step : steps) {
        if (!machine->is("running"_L1) || !machine->qemu)
            co_return "the VM is now "_L1 + machine->text("state"_L1);
        const Later<QJsonObject> sent
                = machine->qemu->command(u"input-send-event"_s, { { u"events"_s, step.events } });
        const QJsonObject answer = co_await sent;
        if (answer.contains("error"_L1))
            co_return answer["error"_L1]["desc"_L1].toString();
        co_await pause(step.pauseMs);
    }
    co_return {};
}

Later<Answer> sendInput(const Call &call)
{
    const QJsonObject &arguments = call.arguments;
    const QJsonArray actions = arguments.contains("type"_L1) ? QJsonArray { arguments }
                                                             : arguments["actions"_L1].toArray();
    const QImage before = co_await takePicture(call.machine);
    if (const QString wrongInput = inputComplaint(arguments, actions, before.size());
        !wrongInput.isEmpty())
        co_return wrong(wrongInput);
    const Pointer pointer { before.size(), arguments["imageScale"_L1].toDouble(1) };
    std::vector<Steps> all(static_cast<size_t>(actions.size()));
    for (qsizetype n = 0; n < actions.size(); ++n) {
        const QString complaint
                = actionSteps(all[static_cast<size_t>(n)], actions[n].toObject(), pointer);
        if (!complaint.isEmpty())
            co_return wrong(complaint);
    }
    int done = 0;
    for (const Steps &steps : all) {
        const QString failure = co_await perform(call.machine, steps);
        if (!failure.isEmpty())
            co_return wrongState(u"%1 of %2 actions were done, then: %3"_s.arg(done)
                                         .arg(actions.size())
                                         .arg(failure));
        ++done;
        co_await pause(arguments["delayMs"_L1].toInt(50));
    }
    QJsonObject result;
    if (arguments["captureAfter"_L1].toBool()) {
        co_await pause(arguments["captureDelayMs"_L1].toInt(500));
        const QImage after = co_await takePicture(call.machine);
        QString error = u"the VM has stopped"_s;
        const auto picture = captureResult(after, arguments, &error);
        if (!picture)
            co_return wrongState(u"all %1 actions were done, but %2"_s.arg(done).arg(error));
        result = *picture;
    }
    result["actions"_L1] = done;
    co_return ok(result);
}

} // namespace

std::vector<Tool> inputTools()
{
    return { { "send_input"_L1, Tool::Subject::Machine, { Needs::Running }, sendInput } };
}
