#include "checks.h"
#include "host_process.h"
#include "orrery_control.h"
#include "report.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>

#include <filesystem>

#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

// What a report says of a process.
struct Process
{
    QString text; // with its start, where that can be told
    bool isStopped = false; // by a signal or a debugger
};

Process lookAt(unsigned long pid)
{
    const QByteArray stat = procText(u"/proc/%1/stat"_s.arg(pid));
    // The name may hold blanks and brackets, so count from its end: fields 3 and 22 of proc(5).
    const QByteArrayList fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
    const double ticks = fields.value(19).toDouble();
    const double uptime = procText(u"/proc/uptime"_s).split(' ').value(0).toDouble();
    const auto ticksPerSecond = double(sysconf(_SC_CLK_TCK));
    Process process { u"process %1"_s.arg(pid), QByteArray("Tt").contains(fields.value(0, "?")) };
    if (ticks > 0 && uptime > 0 && ticksPerSecond > 0) {
        const auto age = qint64((uptime - ticks / ticksPerSecond) * 1000);
        process.text += QDateTime::currentDateTime().addMSecs(-age).toString(
                u" 'since' yyyy-MM-dd HH:mm:ss"_s);
    }
    return process;
}

// Whether a folder as the process sees it is ours: in a container, or a service with a /tmp of its
// own, the same path is another folder.
bool isSameFolder(unsigned long pid, const QString &theirs)
{
    const QString base = QDir::isAbsolutePath(theirs) ? u"root"_s : u"cwd/"_s;
    const QString seen = u"/proc/%1/"_s.arg(pid) + base + theirs;
    std::error_code unknown;
    return std::filesystem::equivalent(seen.toStdString(), QDir::tempPath().toStdString(), unknown);
}

void checkProcessFolder(Report &report, unsigned long pid)
{
    const QString variable = OrreryControl::startEnv(pid, "TMPDIR");
    const QString folder = variable.isEmpty() ? u"/tmp"_s : variable;
    const QString finding = u"Process %1 was started with the temporary folder %2, here it is "
                            "%3%4: the two cannot meet."_s;
    const QString process = QString::number(pid);
    report.judge(
            u"app-tmpdir"_s,
            { { isSameFolder(pid, folder), Outcome::Ok,
                u"Process %1 was started with the same temporary folder, %2."_s.arg(process,
                                                                                    folder) },
              { QDir::cleanPath(folder) == QDir::tempPath(), Outcome::Fault,
                finding.arg(process, folder, QDir::tempPath(), u" of another file system view"_s),
                u"One of the two runs in a sandbox or container: run both outside."_s },
              { true, Outcome::Fault, finding.arg(process, folder, QDir::tempPath(), QString()),
                u"Set TMPDIR to %1 in the client's settings, or start Orrery again with that of "
                "the client."_s.arg(folder) } });
}

} // namespace

void checkApplication(Report &report)
{
    if (!QFileInfo::exists(HostProcess::appExe()))
        return; // reported by checkInstallation()
    const QList<unsigned long> pids = HostProcess::findApps();
    QStringList texts;
    unsigned long stopped = 0;
    for (const unsigned long pid : pids) {
        const Process process = lookAt(pid);
        texts += process.text;
        stopped = process.isStopped ? pid : stopped;
    }
    const QString found = texts.join(u"; "_s);
    const unsigned long foreign = pids.isEmpty() ? HostProcess::findForeignApp() : 0;
    const uint user = QFileInfo(u"/proc/%1"_s.arg(foreign)).ownerId();
    report.judge(
            u"process"_s,
            { { foreign != 0 && user == getuid(), Outcome::Warning,
                u"Orrery seems to run as you, but Linux hides what it executes: %1."_s.arg(
                        lookAt(foreign).text),
                u"Start it in the client's group (without sg or newgrp), from a file that you may "
                "read, and that has no capabilities of its own (setcap -r)."_s },
              { foreign != 0, Outcome::Warning,
                u"Orrery does not run as you, %1, but as %2: %3."_s.arg(
                        userText(getuid()), userText(user), lookAt(foreign).text),
                u"If that one is yours, start it and the client as the same user, neither with "
                "sudo: a client reaches only its own user's Orrery."_s },
              { pids.isEmpty(), Outcome::Ok,
                u"Orrery does not run; where it can be started, the server does so with the first "
                "call that needs it."_s },
              { stopped != 0, Outcome::Fault,
                u"Orrery is stopped, %1: it answers nobody."_s.arg(found),
                u"Continue it: kill -CONT %1, fg in its terminal, or in the debugger."_s.arg(
                        stopped) },
              { pids.size() > 1, Outcome::Warning,
                u"Orrery runs %1 times: %2."_s.arg(QString::number(pids.size()), found),
                u"The server talks to the one that holds the socket, and quits process %1: end all "
                "but one."_s.arg(pids.value(0)) },
              { true, Outcome::Ok, u"Orrery runs: %1."_s.arg(found) } });
    for (const unsigned long pid : pids)
        checkProcessFolder(report, pid);
}
