// What a machine's screen shows.

#include "screen.h"
#include "tools.h"

#include <QRegularExpression>

using namespace Qt::StringLiterals;

namespace {

constexpr int ReadAgainMs = 300;

Later<Answer> noWindow(const Call &)
{
    return unavailable(u"the demonstration shows no windows"_s);
}

Later<Answer> setDisplayResolution(const Call &)
{
    return unavailable(u"the guest's text screen has a fixed size of 720 x 400 pixels"_s);
}

Later<Answer> captureScreen(const Call &call)
{
    const QImage screen = co_await takePicture(call.machine);
    if (screen.isNull())
        co_return wrongState(u"the VM has stopped"_s);
    QString error;
    const auto picture = captureResult(screen, call.arguments, &error);
    co_return picture ? ok(*picture) : wrong(error);
}

Answer refuseText(const Machine &machine)
{
    return machine.is("running"_L1)
                   ? unavailable(u"the screen is graphical; look at it with capture_screen"_s)
                   : wrongState("the VM is now "_L1 + machine.text("state"_L1));
}

Later<Answer> readConsoleText(const Call &call)
{
    const auto text = co_await readText(call.machine);
    if (!text)
        co_return refuseText(*call.machine);
    const QStringList lines
            = text->filter(QRegularExpression(call.arguments["pattern"_L1].toString()));
    co_return ok({ { u"text"_s, lines.join(u'\n') }, { u"lines"_s, lines.size() } });
}

Later<Answer> waitForText(const Call &call)
{
    const QRegularExpression pattern(call.arguments["pattern"_L1].toString());
    const Later<bool> timeUp = pause(call.arguments["timeoutSeconds"_L1].toInt(45) * 1'000);
    while (call.wanted()) {
        const bool last = timeUp.isSet();
        const auto text = co_await readText(call.machine);
        if (!call.machine->is("running"_L1))
            co_return refuseText(*call.machine);
        const QStringList lines = text ? text->filter(pattern) : QStringList();
        if (last && !text)
            co_return refuseText(*call.machine);
        if (last || !lines.isEmpty())
            co_return ok({ { u"found"_s, !lines.isEmpty() },
                           { u"line"_s, lines.isEmpty() ? QJsonValue() : lines[0] } });
        co_await pause(ReadAgainMs);
    }
    co_return {};
}

} // namespace

std::vector<Tool> screenTools()
{
    using enum Needs;
    using Tool::Subject::Machine;
    return {
        { "set_console_window_size"_L1, Machine, { Running }, noWindow },
        { "set_display_resolution"_L1, Machine, { Running, GuestTools }, setDisplayResolution },
        { "capture_screen"_L1, Machine, { Running }, captureScreen },
        { "read_console_text"_L1, Machine, { Running }, readConsoleText },
        { "wait_for_text"_L1, Machine, { Running }, waitForText },
    };
}
