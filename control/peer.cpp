#include "orrery_control.h"

#include <QDeadlineTimer>
#include <QLocalSocket>
#include <QThread>

#include <sys/socket.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr unsigned long BacklogPauseMs = 10;

// The process at the other end of the pipe; whichever end asks, the question is the same.
unsigned long peerPid(const QLocalSocket &socket)
{
    ucred peer {};
    socklen_t length = sizeof peer;
    const int descriptor = static_cast<int>(socket.socketDescriptor());
    if (getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0)
        return 0;
    if (peer.uid != getuid() || peer.pid <= 0)
        return 0;
    return static_cast<unsigned long>(peer.pid);
}

} // namespace

namespace OrreryControl {

QString pipeName() { return u"orrery-control-"_s + QString::number(getuid()); }

// A local connect succeeds or fails at once; only a listener with a full backlog leaves it
// connecting. waitForConnected() would poll that one without a pause, so it is tried again.
bool reachPipe(QLocalSocket &socket, int limitMs)
{
    const QDeadlineTimer deadline(limitMs);
    for (;;) {
        socket.connectToServer(pipeName(), QIODevice::ReadWrite);
        if (socket.state() == QLocalSocket::ConnectedState)
            return true;
        const bool backlogFull = socket.state() == QLocalSocket::ConnectingState;
        socket.abort();
        if (!backlogFull || deadline.hasExpired())
            return false;
        QThread::msleep(BacklogPauseMs);
    }
}

unsigned long peerServerPid(const QLocalSocket &socket) { return peerPid(socket); }

unsigned long peerClientPid(const QLocalSocket &socket) { return peerPid(socket); }

} // namespace OrreryControl
