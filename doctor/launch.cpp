#include "checks.h"
#include "host_process.h"
#include "orrery_control.h"
#include "report.h"
#include "server_process.h"

#include <QDeadlineTimer>
#include <QThread>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int CallMs = 60'000; // the server's own 30 s, and time to allow the client
constexpr int MoreMs = 2'000; // for dying again, on top of what it took before
constexpr int SettleMs = 1'000;
constexpr int SliceMs = 100;
constexpr int KillMs = 2'000;
constexpr unsigned long PauseMs = 10; // also where a wait does not last: its output was closed
constexpr qsizetype KeptBytes = 65'536;

QString ending(int status, bool wasSignal)
{
    return wasSignal ? u"ended by signal %1"_s.arg(status)
                     : u"ended with exit status %1"_s.arg(status);
}

// What the server started and left to us.
struct Orphans
{
    qint64 server;
    QString how; // one ended; empty before one did

    // Whether one has ended, and Orrery does not run.
    bool haveEnded()
    {
        siginfo_t info {};
        // Looked at only: the server's own end is for QProcess to take.
        while (waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid != 0
               && info.si_pid != server) {
            waitpid(info.si_pid, nullptr, 0);
            // One that fails says more than one that hands over to another.
            if (how.isEmpty() || info.si_status != 0)
                how = ending(info.si_status, info.si_code != CLD_EXITED);
            info = {};
        }
        return !how.isEmpty() && HostProcess::findApp() == 0;
    }

    // Whether nothing is left, besides, that could still become Orrery.
    bool areGone()
    {
        const QByteArray children = procText(u"/proc/self/task/%1/children"_s.arg(getpid()));
        return haveEnded() && children.trimmed().toLongLong() == server;
    }
};

// Starts the application once more, now with its standard error kept, and ends it if it stays.
void reportDeath(Report &report, const QString &how, qint64 tookMs)
{
    const QString image = OrreryControl::ownAppImage();
    QProcess app;
    app.setStandardInputFile(QProcess::nullDevice());
    app.setStandardOutputFile(QProcess::nullDevice());
    app.setReadChannel(QProcess::StandardError);
    app.start(image.isEmpty() ? HostProcess::appExe() : image, {});
    QByteArray output;
    const QDeadlineTimer deadline(tookMs + MoreMs);
    do {
        if (!app.waitForReadyRead(SliceMs))
            QThread::msleep(PauseMs);
        output = (output + app.readAllStandardError()).right(KeptBytes);
    } while (app.state() != QProcess::NotRunning && !deadline.hasExpired());
    const QStringList words = lastLines(output);
    const bool stayed = app.state() != QProcess::NotRunning;
    app.terminate(); // and killed by the end of its object
    (void)app.waitForFinished(KillMs);
    const QString again
            = stayed ? u"stayed for %1 s, and was ended"_s.arg((tookMs + MoreMs) / 1'000)
                     : ending(app.exitCode(), app.exitStatus() == QProcess::CrashExit);
    const QString finding
            = u"Orrery %1 when the server started it; started directly, it %2."_s.arg(how, again);
    report.judge(
            u"launch"_s,
            { { app.error() == QProcess::FailedToStart, Outcome::Fault,
                u"Orrery cannot be started: %1."_s.arg(app.errorString()),
                u"Install the one that is made for this machine."_s },
              { words.isEmpty(), Outcome::Fault, finding,
                u"It does not say why: see \"display\" above, and start it in a terminal of the "
                "desktop."_s },
              { true, Outcome::Fault, finding, u"Its last words say why:"_s, words } });
}

// What the words of a failed call mean, its error and what the server said on the way.
void reportFailure(Report &report, const ServerProcess::Answer &answer, QStringList words)
{
    words.prepend(answer.error);
    const auto say = [all = words.join(u'\n')](auto text) { return all.contains(text); };
    const QString seconds = QString::number(double(answer.tookMs) / 1'000, 'f', 1);
    report.judge(
            u"launch"_s,
            { { say("Orrery error"_L1), Outcome::Fault, u"Orrery was greeted, and refuses."_s,
                u"Its own words tell what it wants:"_s, words },
              { say("isn't Orrery"_L1), Outcome::Fault, u"Another program took the socket."_s,
                u"Run this again without --launch: it says which."_s, words },
              { say("closed the connection"_L1), Outcome::Fault,
                u"Orrery was reached and greeted, and closed the connection after %1 s."_s.arg(
                        seconds),
                u"It may be of another version than the server: install both again. Else start it "
                "in a terminal of the desktop, and see what it says."_s,
                words },
              { say("pipe server pid"_L1), Outcome::Fault,
                u"Orrery was reached and greeted, and was silent for %1 s."_s.arg(seconds),
                u"It may be asking in its window whether to allow this client: allow it, and try "
                "again. Else it hangs: end it and start it again."_s,
                words },
              { say("did not come up"_L1), Outcome::Fault,
                u"Orrery's socket did not come up within %1 s."_s.arg(seconds),
                u"Start it in a terminal of the desktop, see what it says, and run this again."_s,
                words },
              { true, Outcome::Fault, u"list_vms failed after %1 s."_s.arg(seconds),
                u"See the lines above."_s, words } });
}

} // namespace

void checkLaunch(Report &report, ServerProcess &server)
{
    const QString name = u"launch"_s;
    if (report.judge(name, { { report.hasFault(), Outcome::Warning, u"Nothing was launched."_s,
                               u"Mend the faults above first."_s } }))
        return;
    const bool wasRunning = HostProcess::findApp() != 0;
    // What the server starts and leaves on its own becomes our child (PR_SET_CHILD_SUBREAPER,
    // prctl(2)), so that an application that dies leaves its exit status here.
    prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
    Orphans orphans { server.processId(), {} };
    const ServerProcess::Answer answer
            = server.call(u"list_vms"_s, CallMs, [&] { return orphans.areGone(); });
    const QString took = u"answered list_vms within %1 ms"_s.arg(answer.tookMs);
    if (report.judge(name, { { answer.error.isEmpty() && wasRunning, Outcome::Ok,
                               u"Orrery runs already, and %1."_s.arg(took) },
                             { answer.error.isEmpty(), Outcome::Ok,
                               u"Orrery was started, and %1; it keeps running."_s.arg(took) } }))
        return;
    // The server may learn of an end from the connection, before the process is quite gone.
    const QDeadlineTimer deadline(SettleMs);
    while (!orphans.haveEnded() && !deadline.hasExpired())
        QThread::msleep(PauseMs);
    const QStringList words = server.takeLastWords();
    server.stop(); // it would greet what is started directly
    if (orphans.haveEnded())
        reportDeath(report, orphans.how, answer.tookMs);
    else
        reportFailure(report, answer, words);
}
