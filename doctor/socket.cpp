#include "checks.h"
#include "host_process.h"
#include "orrery_control.h"
#include "report.h"

#include <QDir>
#include <QFileInfo>
#include <QLocalSocket>

#include <filesystem>

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int ConnectMs = 1'500;

const QString ownFolder = u"Set TMPDIR to a folder of your own, for Orrery and for the client, or "
                          "ask the administrator to take that away."_s;

// Whether the holder is trusted, by the rules of the server.
void judgeHolder(Report &report, const QLocalSocket &socket)
{
    ucred peer {};
    socklen_t length = sizeof peer;
    const auto descriptor = static_cast<int>(socket.socketDescriptor());
    const bool isKnown = getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0;
    const unsigned long pid = OrreryControl::peerServerPid(socket);
    const QString image = OrreryControl::processImagePath(pid);
    const QString process = u"process "_s + QString::number(peer.pid);
    const QString held = u"The socket is held by %1, running %2"_s.arg(process, image);
    report.judge(
            u"holder"_s,
            { { pid != 0 && HostProcess::isApp(pid), Outcome::Ok,
                u"Held by %1 running %2: trusted."_s.arg(process, image) },
              { isKnown && peer.uid != getuid(), Outcome::Fault,
                u"The socket is held by %1 (%2) of another user, %3: not trusted."_s.arg(
                        process,
                        QString::fromLocal8Bit(
                                procText(u"/proc/%1/comm"_s.arg(peer.pid)).trimmed()),
                        userText(peer.uid)),
                u"Orrery and the client must run as the same user. If that is not your doing, "
                "somebody took the socket's name. "_s
                        + ownFolder },
              { isKnown && pid == 0, Outcome::Fault,
                u"The socket is held from inside another container: not trusted."_s,
                u"Run Orrery and the client in the same one, or both outside."_s },
              { image.isEmpty(), Outcome::Fault,
                u"The socket is held by %1, and what it runs cannot be read: not trusted."_s.arg(
                        process),
                u"It may have ended just now: try again. Else \"process\" above says why, or it is "
                "no Orrery: end it."_s },
              { !QFileInfo::exists(image), Outcome::Fault,
                held + u", a file that is gone: not trusted."_s,
                u"It was updated or moved while it ran: start Orrery again."_s },
              { true, Outcome::Fault, held + u", not %1: not trusted."_s.arg(HostProcess::appExe()),
                u"If that is your Orrery, use the server that lies beside it; if not, end the "
                "process and start Orrery."_s } });
}

// Says nothing to the holder, whoever it is.
void checkHolder(Report &report, bool isForeign, bool isRunning)
{
    QLocalSocket socket;
    if (OrreryControl::reachPipe(socket, ConnectMs))
        return judgeHolder(report, socket);
    const QLocalSocket::LocalSocketError error = socket.error();
    if (isForeign)
        return; // its owner says all
    report.judge(
            u"holder"_s,
            { { error == QLocalSocket::SocketAccessError, Outcome::Fault,
                u"You may not connect to the socket."_s,
                u"Start Orrery again, or give the socket its mode back (chmod u+rwx)."_s },
              { error != QLocalSocket::ConnectionRefusedError
                        && error != QLocalSocket::ServerNotFoundError,
                Outcome::Fault, u"Who holds the socket takes no connections."_s,
                u"Orrery may hang: end it and start it again."_s },
              { isRunning, Outcome::Fault, u"Nobody answers on the socket, although Orrery runs."_s,
                u"Quit Orrery and start it again."_s },
              { true, Outcome::Warning,
                u"Nobody answers: the socket is left from a process that ended."_s,
                u"Start Orrery. If it cannot take the name, delete the file."_s } });
}

} // namespace

void checkSocket(Report &report)
{
    if (QDir::tempPath().isEmpty())
        return; // a TMPDIR that leads nowhere, which has been reported
    const QString path = socketPath();
    const bool isRunning = HostProcess::findApp() != 0;
    struct stat own
    {
    };
    const bool isThere = lstat(path.toLocal8Bit().constData(), &own) == 0;
    std::error_code unknown; // a link counts as what it leads to
    const bool isSocket = std::filesystem::is_socket(path.toStdString(), unknown);
    const bool isForeign = isThere && own.st_uid != getuid();
    report.judge(
            u"socket"_s,
            { { !isThere && isRunning, Outcome::Fault,
                u"There is no socket %1, although Orrery runs."_s.arg(path),
                u"If its temporary folder is the same, it is still starting or serves none: start "
                "it again."_s },
              { !isThere, Outcome::Ok, u"There is no %1 while Orrery does not run."_s.arg(path) },
              { isForeign, Outcome::Fault,
                u"%1 is not yours: another user, %2, has taken the name."_s.arg(
                        path, userText(own.st_uid)),
                ownFolder },
              { !isSocket, Outcome::Fault, u"%1 (yours) is no socket."_s.arg(path),
                u"Delete it, and start Orrery again."_s },
              { true, Outcome::Ok, u"%1, a socket, yours."_s.arg(path) } });
    if (isSocket)
        checkHolder(report, isForeign, isRunning);
}
