#include "tools.h"

#include "catalogue.h"
#include "host_process.h"
#include "input.h"
#include "memory.h"
#include "orrery_control.h"
#include "pipe.h"
#include "replies.h"
#include "server_limits.h"

#include <QProcess>

#include <algorithm>
#include <array>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

constexpr auto BundleId = "app.orrery.Orrery"_L1;

// One call of a tool by the client.
struct ToolCall
{
    const QJsonValue &id;
    const QString &tool;
    const QJsonObject &arguments;
    QByteArrayView longString; // of the arguments
    int limitMs; // of what is asked of the application
};

// Starts the application on its own: nothing of it is tracked, and it outlives this program.
bool startApp()
{
    const QString appImage = OrreryControl::ownAppImage();
    QProcess app;
    app.setProgram(appImage.isEmpty() ? HostProcess::appExe() : appImage);
    app.setStandardInputFile(QProcess::nullDevice());
    app.setStandardOutputFile(QProcess::nullDevice());
    app.setStandardErrorFile(QProcess::nullDevice());
    return app.startDetached();
}

// Connects and greets the application, and starts it first if it does not run. On false, *error
// says why.
bool launchApp(QString *error)
{
    if (HostProcess::findApp() != 0) {
        if (g_pipe.connect(Limits::RunningConnectMs, Limits::RunningHelloMs))
            return true;
        // Only a refusal of this very attempt counts; one of an earlier call is history.
        if (!g_pipe.lastHelloError().isEmpty()) {
            *error = g_pipe.lastHelloError();
            return false;
        }
    }
    if (HostProcess::findApp() == 0) {
        if (!startApp()) {
            *error = u"Couldn't start "_s + HostProcess::appExe();
            return false;
        }
    }
    if (g_pipe.connect(Limits::StartedConnectMs, Limits::StartedHelloMs))
        return true;
    if (!g_pipe.lastHelloError().isEmpty())
        *error = g_pipe.lastHelloError();
    else if (g_pipe.lastHolderWasForeign())
        *error = u"The Orrery control pipe is held by a process that isn't Orrery; "
                 "refusing to talk to it."_s;
    else
        *error = u"Orrery started but its control pipe did not come up within 30 s."_s;
    return false;
}

void appStatus(const ToolCall &call)
{
    const unsigned long pid = HostProcess::findApp();
    const bool running = pid != 0;
    QJsonObject status {
        { u"running"_s, running },        { u"pid"_s, QJsonValue::Null },
        { u"socketReachable"_s, false },  { u"version"_s, QJsonValue::Null },
        { u"build"_s, QJsonValue::Null }, { u"bundleId"_s, BundleId },
    };
    if (running) {
        status["pid"_L1] = static_cast<qint64>(pid);
        status["socketReachable"_L1] = pipeReachable();
        status["version"_L1] = HostProcess::exeVersion(HostProcess::appExe(), u"ProductVersion"_s);
        status["build"_L1] = HostProcess::exeVersion(HostProcess::appExe(), u"FileVersion"_s);
    }
    replyToolJSON(call.id, status, false);
}

void launchAppTool(const ToolCall &call)
{
    if (HostProcess::findApp() != 0) {
        replyToolJSON(call.id,
                      QJsonObject { { u"launched"_s, false },
                                    { u"alreadyRunning"_s, true },
                                    { u"running"_s, true },
                                    { u"socketReady"_s, pipeReachable() },
                                    { u"reason"_s, u"already running"_s } },
                      false);
        return;
    }
    QString error;
    const bool ready = launchApp(&error);
    if (!ready && HostProcess::findApp() == 0) {
        replyToolText(call.id, error, true);
        return;
    }
    replyToolJSON(call.id,
                  QJsonObject { { u"launched"_s, true },
                                { u"alreadyRunning"_s, false },
                                { u"running"_s, true },
                                { u"socketReady"_s, ready } },
                  false);
}

void quitApp(const ToolCall &call)
{
    const unsigned long pid = HostProcess::findApp();
    if (pid == 0) {
        replyToolJSON(call.id,
                      QJsonObject { { u"quit"_s, false },
                                    { u"wasRunning"_s, false },
                                    { u"running"_s, false },
                                    { u"reason"_s, u"not running"_s } },
                      false);
        return;
    }
    // The handle comes first: from here on the id cannot come to mean another process, and what is
    // checked is what is ended.
    HostProcess::Handle app(pid);
    if (!app.isValid() || !HostProcess::isApp(pid)) {
        replyToolText(
                call.id,
                "Orrery call failed: the running %1 isn't this install's app (or isn't yours)."_L1
                        .arg(OrreryControl::exeName(u"orrery"_s)),
                true);
        return;
    }

    const bool force = call.arguments["mode"_L1].toString() == "force"_L1;
    bool exited = false;
    if (force) {
        app.terminate();
        exited = app.waitExit(Limits::KillExitMs);
    } else {
        if (g_pipe.connect(Limits::QuitConnectMs, Limits::RunningHelloMs)) {
            Message ignoredResponse;
            QString ignoredError;
            g_pipe.call(u"quit"_s, {}, {}, &ignoredResponse, &ignoredError, call.limitMs);
        }
        // Whatever became of the request, what counts is whether the process ends.
        exited = app.waitExit(Limits::QuitExitMs);
    }
    QJsonObject outcome { { u"quit"_s, exited },
                          { u"wasRunning"_s, true },
                          { u"running"_s, !exited },
                          { u"mode"_s, force ? u"force"_s : u"graceful"_s } };
    if (!exited)
        outcome["reason"_L1] = u"quit requested but app still running (try mode:force)"_s;
    replyToolJSON(call.id, outcome, !exited);
}

// Relays a tool to the application and answers the client with the outcome.
void relayTool(const ToolCall &call)
{
    QString error;
    if (!g_pipe.isConnected() && !launchApp(&error)) {
        const bool isRefused = error.startsWith("Orrery error ["_L1);
        replyToolText(call.id, isRefused ? error : u"Orrery call failed: "_s + error, true);
        return;
    }

    setInFlight(call.id.toInteger(NoCall));
    Message answer;
    const bool isAnswered = g_pipe.call(call.tool, call.arguments, call.longString, &answer, &error,
                                        call.limitMs);
    setInFlight(NoCall);

    if (isAnswered)
        replyAnswer(call.id, answer);
    else
        replyToolText(call.id, u"Orrery call failed: "_s + error, true);
    const qsizetype size = std::exchange(answer, {}).lineBytes;
    g_pipe.releaseAnswer();
    messageHandled(size);
}

// A tool that is carried out in a way of its own, or has a time limit of its own.
struct Tool
{
    QLatin1StringView name;
    int limitMs;
    void (*carryOut)(const ToolCall &call);
};

constexpr std::array OwnTools {
    Tool { "app_status"_L1, 0, appStatus },
    Tool { "launch_app"_L1, 0, launchAppTool },
    Tool { "quit_app"_L1, Limits::QuitRequestMs, quitApp },
    Tool { "create_vm"_L1, Limits::LongCallMs, relayTool },
    Tool { "job_wait"_L1, Limits::LongCallMs, relayTool },
};

constexpr Tool OtherTool { {}, Limits::CallMs, relayTool };

} // namespace

void replyAnswer(const QJsonValue &id, const Message &answer)
{
    if (answer.object.contains("error"_L1))
        replyToolText(id, applicationErrorText(answer.object.value("error"_L1)), true);
    else
        replyToolResult(id, answer);
}

void toolsCall(const QJsonValue &id, const QJsonObject &params, QByteArrayView longString)
{
    const QString name = params["name"_L1].toString();
    const QJsonObject arguments = params["arguments"_L1].toObject();
    if (!isCatalogued(name)) {
        constexpr qsizetype Excerpt = 64; // of a name that may be as long as a line
        replyToolText(id, u"unknown tool: "_s + name, true,
                      u"unknown tool: "_s + name.first(std::min(Excerpt, name.size())));
        return;
    }
    const auto *const own = std::find_if(OwnTools.begin(), OwnTools.end(),
                                         [&](const Tool &tool) { return tool.name == name; });
    const Tool &tool = own == OwnTools.end() ? OtherTool : *own;
    tool.carryOut({ id, name, arguments, longString, tool.limitMs });
}
