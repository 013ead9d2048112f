#include "launch.h"

#include "host_process.h"
#include "orrery_control.h"
#include "report.h"
#include "server_process.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QThread>

#include <optional>

#include <sys/prctl.h>
#include <sys/wait.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int LaunchMs = 60'000; // the server's own 30 s, and time to allow the client
constexpr int LookMs = 30'000;
constexpr int MoreMs = 2'000; // for dying again, on top of what it took before
constexpr int SettleMs = 1'000;
constexpr int SliceMs = 100;
constexpr int KillMs = 2'000;
constexpr unsigned long PauseMs
        = 10; // also where a wait does not last, on an output that was closed
constexpr qsizetype KeptBytes = 65'536;
constexpr unsigned long HandOverMs = 500; // from a starter that ends to the application it started

QString ending(int status, bool wasSignal)
{
    return wasSignal ? u"ended by signal %1"_s.arg(status)
                     : u"ended with exit status %1"_s.arg(status);
}

// How a process that the server left to us ended, once one did.
std::optional<QString> endedOrphan(qint64 server)
{
    siginfo_t info {};
    // Looked at only: the server's own end is for QProcess to take.
    if (waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid == 0
        || info.si_pid == server)
        return {};
    waitpid(info.si_pid, nullptr, 0);
    return ending(info.si_status, info.si_code != CLD_EXITED);
}

// Ends a process that is to stay no longer.
void end(QProcess &process)
{
    process.terminate();
    if (process.waitForFinished(KillMs))
        return;
    process.kill();
    (void)process.waitForFinished(KillMs);
}

// Starts the application once more, now with its standard error kept, and ends it if it stays. How
// that went, and its last words.
QString startDirectly(int limitMs, QStringList *words)
{
    const QString image = OrreryControl::ownAppImage();
    QProcess app;
    app.setStandardInputFile(QProcess::nullDevice());
    app.setStandardOutputFile(QProcess::nullDevice());
    app.setReadChannel(QProcess::StandardError);
    app.start(image.isEmpty() ? HostProcess::appExe() : image, {});
    QByteArray output;
    const QDeadlineTimer deadline(limitMs);
    do {
        if (!app.waitForReadyRead(SliceMs))
            QThread::msleep(PauseMs);
        output = (output + app.readAllStandardError()).right(KeptBytes);
    } while (app.state() != QProcess::NotRunning && !deadline.hasExpired());
    *words = lastLines(output);
    if (app.state() != QProcess::NotRunning) {
        end(app);
        return u"stayed for %1 s, and was ended"_s.arg(limitMs / 1'000);
    }
    return app.error() == QProcess::FailedToStart
                   ? u"did not start: "_s + app.errorString()
                   : ending(app.exitCode(), app.exitStatus() == QProcess::CrashExit);
}

void reportDeath(Report &report, const QString &how, qint64 tookMs)
{
    QStringList words;
    const QString again = startDirectly(static_cast<int>(tookMs) + MoreMs, &words);
    report.fault(
            u"launch"_s,
            u"Orrery %1 when the server started it; started directly, it %2."_s.arg(how, again),
            words.isEmpty() ? u"It does not say why: see \"display\" above, and start it in a "
                              "terminal of the desktop."_s
                            : u"Its last words say why:"_s,
            words);
}

void reportFailure(Report &report, const QString &error)
{
    if (HostProcess::findApp() != 0)
        report.fault(u"launch"_s, u"Orrery runs, but launch_app failed: %1."_s.arg(error),
                     u"It may be asking in its window whether to allow this client; else end it "
                     "and start it in a terminal of the desktop."_s);
    else
        report.fault(u"launch"_s, u"launch_app failed: %1"_s.arg(error),
                     u"See the lines above; start Orrery in a terminal of the desktop."_s);
}

bool launchApplication(Report &report, ServerProcess &server)
{
    QElapsedTimer timer;
    timer.start();
    std::optional<QString> death;
    const auto isDead = [&] {
        death = endedOrphan(server.processId());
        if (!death)
            return false;
        // What was started may have handed over to another process and be done.
        QThread::msleep(HandOverMs);
        return HostProcess::findApp() == 0;
    };
    const ToolAnswer answer = callTool(server, u"launch_app"_s, LaunchMs, isDead);
    const qint64 took = timer.elapsed();
    const QJsonObject &result = answer.object;
    const bool isUp = result["socketReady"_L1].toBool() || result["alreadyRunning"_L1].toBool();
    // The server may learn of an end from the connection, before the process is quite gone.
    for (const QDeadlineTimer deadline(SettleMs); !isUp && !death && !deadline.hasExpired();) {
        death = endedOrphan(server.processId());
        QThread::msleep(PauseMs);
    }
    const bool isRunning = HostProcess::findApp() != 0;
    if (!isRunning && death) {
        server.stop(); // it would greet the next one
        reportDeath(report, *death, took);
    } else if (!answer.error.isEmpty()) {
        reportFailure(report, answer.error);
    } else if (!isUp) {
        reportFailure(report, u"its socket did not come up, or it did not answer the greeting"_s);
    } else if (result["alreadyRunning"_L1].toBool()) {
        report.ok(u"launch"_s, u"Orrery runs already; nothing was started."_s);
    } else {
        report.ok(u"launch"_s,
                  u"Orrery was started and answered within %1 ms; it keeps running."_s.arg(took));
    }
    return !report.hasFault();
}

// Only now is the application greeted when it ran already; it may refuse.
void look(Report &report, ServerProcess &server)
{
    QElapsedTimer timer;
    timer.start();
    const ToolAnswer answer = callTool(server, u"list_vms"_s, LookMs);
    if (answer.error.isEmpty())
        report.ok(u"call"_s, u"list_vms was answered in %1 ms."_s.arg(timer.elapsed()));
    else
        report.fault(u"call"_s, u"list_vms failed: %1"_s.arg(answer.error),
                     answer.error.startsWith("Orrery error"_L1)
                             ? u"That is the application's own word, and tells what it wants."_s
                             : u"Orrery may be asking in its window whether to allow this client, "
                               "or hang: then end it and start it again."_s);
}

} // namespace

ToolAnswer callTool(ServerProcess &server, const QString &tool, int limitMs,
                    const std::function<bool()> &giveUp)
{
    ToolAnswer answer;
    QJsonObject result;
    const QJsonObject params { { u"name"_s, tool }, { u"arguments"_s, QJsonObject() } };
    if (!server.ask(u"tools/call"_s, params, limitMs, &result, &answer.error, giveUp))
        return answer;
    const QString text = result["content"_L1][0]["text"_L1].toString();
    if (result["isError"_L1].toBool())
        answer.error = text.isEmpty() ? u"an error without a text"_s : text;
    else
        answer.object = QJsonDocument::fromJson(text.toUtf8()).object();
    return answer;
}

void adoptOrphans() { prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0); }

void checkLaunch(Report &report, ServerProcess &server)
{
    if (report.hasFault()) {
        report.warn(u"launch"_s, u"Nothing was launched."_s, u"Mend the faults above first."_s);
        return;
    }
    if (launchApplication(report, server))
        look(report, server);
}
