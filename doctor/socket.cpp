#include "checks.h"
#include "host_process.h"
#include "orrery_control.h"
#include "report.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocalSocket>
#include <QThread>

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int ConnectMs = 1'500;
constexpr unsigned long BacklogPauseMs = 10;

QString processName(pid_t pid)
{
    QFile file(u"/proc/%1/comm"_s.arg(pid));
    return file.open(QIODevice::ReadOnly) ? QString::fromLocal8Bit(file.readLine(64)).trimmed()
                                          : u"name unknown"_s;
}

// A holder that the kernel does not give us as a process of this user.
void reportStranger(Report &report, const QLocalSocket &socket)
{
    ucred peer {};
    socklen_t length = sizeof peer;
    const auto descriptor = static_cast<int>(socket.socketDescriptor());
    if (getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0)
        report.fault(u"holder"_s, u"Who holds the socket cannot be told: not trusted."_s,
                     u"It may have ended just now: try again."_s);
    else if (peer.uid != getuid())
        report.fault(
                u"holder"_s,
                u"The socket is held by process %1 (%2) of another user, %3: not trusted."_s.arg(
                        QString::number(peer.pid), processName(peer.pid),
                        QString::number(peer.uid)),
                u"Orrery and the client must run as the same user. If that is not your doing, "
                "somebody took the socket's name: set TMPDIR to a folder of your own for "
                "both, or ask the administrator."_s);
    else
        report.fault(u"holder"_s,
                     u"The socket is held from inside another container: not trusted."_s,
                     u"Run Orrery and the client in the same one, or both outside."_s);
}

void reportUntrusted(Report &report, unsigned long pid)
{
    const QString image = OrreryControl::processImagePath(pid);
    const QString application = HostProcess::appExe();
    const QString who = u"The socket is held by process "_s + QString::number(pid);
    if (image.isEmpty())
        report.fault(u"holder"_s, who + u", and what it runs cannot be read: not trusted."_s,
                     u"It may have ended just now: try again. Else end that process."_s);
    else if (!QFileInfo::exists(application))
        report.fault(
                u"holder"_s,
                who + u" running %1, and there is no %2: not trusted."_s.arg(image, application),
                u"Use the server that lies beside Orrery."_s);
    else if (!QFileInfo::exists(image))
        report.fault(u"holder"_s,
                     who + u" running %1, a file that is gone: not trusted."_s.arg(image),
                     u"It was updated or moved while it ran: start Orrery again."_s);
    else
        report.fault(u"holder"_s,
                     who + u" running %1, not %2: not trusted."_s.arg(image, application),
                     u"If that is your Orrery, use the server that lies beside it; if not, end "
                     "the process and start Orrery."_s);
}

// Connects as the server does; only a listener with a full backlog leaves the socket connecting.
bool reach(QLocalSocket &socket, bool *isBusy)
{
    const QDeadlineTimer deadline(ConnectMs);
    do {
        socket.connectToServer(OrreryControl::pipeName(), QIODevice::ReadWrite);
        if (socket.state() == QLocalSocket::ConnectedState)
            return true;
        *isBusy = socket.state() == QLocalSocket::ConnectingState;
        socket.abort();
        QThread::msleep(BacklogPauseMs);
    } while (*isBusy && !deadline.hasExpired());
    return false;
}

// Says nothing to the holder, whoever it is.
void checkHolder(Report &report, bool isRunning)
{
    QLocalSocket socket;
    bool isBusy = false;
    if (reach(socket, &isBusy)) {
        const unsigned long pid = OrreryControl::peerServerPid(socket);
        if (pid == 0)
            reportStranger(report, socket);
        else if (!OrreryControl::isSiblingProcess(pid, OrreryControl::exeName(u"orrery"_s)))
            reportUntrusted(report, pid);
        else
            report.ok(u"holder"_s,
                      u"Held by process %1 running %2: trusted."_s.arg(
                              QString::number(pid), OrreryControl::processImagePath(pid)));
    } else if (isBusy) {
        report.fault(u"holder"_s, u"Who holds the socket takes no connections."_s,
                     u"Orrery may hang: end it and start it again."_s);
    } else if (isRunning) {
        report.fault(u"holder"_s, u"Nobody answers on the socket, although Orrery runs."_s,
                     u"Quit Orrery and start it again."_s);
    } else {
        report.warn(u"holder"_s, u"Nobody answers: the socket is left from a process that ended."_s,
                    u"Start Orrery. If it cannot take the name, delete the file."_s);
    }
}

} // namespace

void checkSocket(Report &report)
{
    if (QDir::tempPath().isEmpty())
        return; // a TMPDIR that leads nowhere, which has been reported
    const QString name = u"socket"_s;
    const QString path = QDir(QDir::tempPath()).filePath(OrreryControl::pipeName());
    const QByteArray file = path.toLocal8Bit();
    const bool isRunning = HostProcess::findApp() != 0;
    struct stat status
    {
    };
    if (lstat(file.constData(), &status) != 0) {
        if (isRunning)
            report.fault(name, u"There is no socket %1, although Orrery runs."_s.arg(path),
                         u"If its temporary folder is the same, it is still starting or serves "
                         "none: start it again."_s);
        else
            report.ok(name, u"There is no %1 while Orrery does not run."_s.arg(path));
        return;
    }
    const QString owner = status.st_uid == getuid()
                                  ? u"yours"_s
                                  : u"of user "_s + QString::number(status.st_uid);
    // A link counts as what it leads to.
    if (stat(file.constData(), &status) != 0 || !S_ISSOCK(status.st_mode)) {
        report.fault(name, u"%1 (%2) is no socket."_s.arg(path, owner),
                     u"Delete it, and start Orrery again."_s);
        return;
    }
    report.ok(name, u"%1, a socket, %2."_s.arg(path, owner));
    checkHolder(report, isRunning);
}
