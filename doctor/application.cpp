#include "checks.h"
#include "host_process.h"
#include "orrery_control.h"
#include "report.h"

#include <QDateTime>
#include <QDir>
#include <QFile>

#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

QByteArray firstLine(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readLine() : QByteArray();
}

// When a process was started; invalid when that cannot be told.
QDateTime startTime(unsigned long pid)
{
    const QByteArray stat = firstLine(u"/proc/%1/stat"_s.arg(pid));
    const double uptime = firstLine(u"/proc/uptime"_s).split(' ').value(0).toDouble();
    // The name may hold blanks and brackets, so count from its end: field 22 of proc(5).
    const QByteArray ticks = stat.mid(stat.lastIndexOf(')') + 2).split(' ').value(19);
    const long ticksPerSecond = sysconf(_SC_CLK_TCK);
    if (ticks.isEmpty() || uptime <= 0 || ticksPerSecond <= 0)
        return {};
    const double age = uptime - ticks.toDouble() / double(ticksPerSecond);
    return QDateTime::currentDateTime().addMSecs(-qint64(age * 1000));
}

QString described(unsigned long pid)
{
    const QDateTime start = startTime(pid);
    return start.isValid() ? u"process %1 since %2"_s.arg(QString::number(pid),
                                                          start.toString(u"yyyy-MM-dd HH:mm:ss"_s))
                           : u"process %1"_s.arg(pid);
}

// Whether a folder as the process sees it is ours: in a container, or a service with a /tmp of its
// own, the same path is another folder.
bool isSameFolder(unsigned long pid, const QString &theirs)
{
    const QString base = QDir::isAbsolutePath(theirs) ? u"root"_s : u"cwd/"_s;
    const QByteArray seen = (u"/proc/%1/"_s.arg(pid) + base + theirs).toLocal8Bit();
    struct stat their
    {
    };
    struct stat our
    {
    };
    if (stat(QDir::tempPath().toLocal8Bit().constData(), &our) != 0)
        return false;
    if (stat(seen.constData(), &their) != 0)
        return QDir::cleanPath(theirs) == QDir::tempPath();
    return their.st_dev == our.st_dev && their.st_ino == our.st_ino;
}

void checkProcessFolder(Report &report, unsigned long pid)
{
    const QString name = u"app-tmpdir"_s;
    const QString variable = OrreryControl::startEnv(pid, "TMPDIR");
    const QString folder = variable.isEmpty() ? u"/tmp"_s : variable;
    if (isSameFolder(pid, folder)) {
        report.ok(name, u"Process %1 was started with the same temporary folder, %2."_s.arg(
                                QString::number(pid), folder));
        return;
    }
    const bool samePath = QDir::cleanPath(folder) == QDir::tempPath();
    report.fault(name,
                 u"Process %1 was started with the temporary folder %2, here it is %3%4: the two "
                 "cannot meet."_s.arg(QString::number(pid), folder, QDir::tempPath(),
                                      samePath ? u" of another file system view"_s : u""_s),
                 samePath ? u"One of the two runs in a sandbox or container: run both outside."_s
                          : u"Set TMPDIR to %1 in the client's settings, or start Orrery again "
                            "with that of the client."_s.arg(folder));
}

} // namespace

void checkApplication(Report &report)
{
    const QString name = u"process"_s;
    const QList<unsigned long> pids = HostProcess::findApps();
    if (pids.isEmpty()) {
        report.ok(name,
                  u"Orrery does not run; where it can be started, the server does so with the "
                  "first call that needs it."_s);
        return;
    }
    QStringList texts;
    for (const unsigned long pid : pids)
        texts += described(pid);
    if (pids.size() == 1)
        report.ok(name, u"Orrery runs: %1."_s.arg(texts.first()));
    else
        report.warn(name,
                    u"Orrery runs %1 times: %2."_s.arg(QString::number(pids.size()),
                                                       texts.join(u"; "_s)),
                    u"The server talks to the one that holds the socket, and quits process %1: end "
                    "all but one."_s.arg(pids.first()));
    for (const unsigned long pid : pids)
        checkProcessFolder(report, pid);
}
