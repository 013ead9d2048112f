// A stand-in for the Orrery application, to try the server without it: serves the control pipe for
// one user, and runs small virtual machines by QEMU.

#include "host.h"
#include "orrery_control.h"
#include "tools.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QLocalServer>
#include <QLocalSocket>
#include <QLockFile>
#include <QPointer>
#include <QSocketNotifier>

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <tuple>
#include <unistd.h>

namespace {

constexpr int ConnectMs = 500;
constexpr qsizetype MaxPathBytes = 107; // of a socket, unix(7)

void send(const QPointer<QLocalSocket> &client, const QJsonObject &message)
{
    if (!client) // it went away
        return;
    client->write(QJsonDocument(message).toJson(QJsonDocument::Compact) + '\n');
    client->flush();
}

// Why this process cannot serve the pipe; the lock decides between two that start together.
QString obstacle(QLockFile &lock)
{
    if (QDir::temp().filePath(OrreryControl::pipeName()).toLocal8Bit().size() > MaxPathBytes)
        return u"TMPDIR is too long: the control pipe's path may have %1 bytes"_s.arg(MaxPathBytes);
    if (!QFileInfo(QDir::tempPath()).isWritable())
        return u"TMPDIR, else /tmp, is no folder that can be written to"_s;
    lock.setStaleLockTime(0);
    const bool locked = lock.tryLock(0);
    QLocalSocket probe;
    probe.connectToServer(OrreryControl::pipeName());
    return locked && !probe.waitForConnected(ConnectMs) ? QString()
                                                        : u"the control pipe is served already"_s;
}

void tell(const QString &text)
{
    if (!text.isEmpty())
        std::fprintf(stderr, "orrery (demonstration): %s\n", qUtf8Printable(text));
}

class ControlServer
{
public:
    // Serves once the first machine is there, or ends the program.
    Later<bool> serve()
    {
        QObject::connect(&server, &QLocalServer::newConnection, &server, [this] {
            while (QLocalSocket *client = server.nextPendingConnection()) {
                QObject::connect(client, &QLocalSocket::disconnected, client,
                                 &QObject::deleteLater);
                QObject::connect(client, &QLocalSocket::readyRead, client, [this, client] {
                    while (client->canReadLine())
                        answer(client, QJsonDocument::fromJson(client->readLine()).object());
                });
            }
        });
        co_await pause(0); // until the event loop runs, which may have to end
        tell(missingOnHost());
        QString complaint = obstacle(lock);
        if (complaint.isEmpty())
            complaint = world.open();
        if (complaint.isEmpty()) {
            co_await world.begin();
            server.setSocketOptions(QLocalServer::UserAccessOption);
            QLocalServer::removeServer(OrreryControl::pipeName()); // of a run that was killed
            if (server.listen(OrreryControl::pipeName()))
                co_return true;
            complaint = server.errorString();
        }
        tell(complaint);
        QCoreApplication::exit(1);
        co_return false;
    }

private:
    // A call stays until its tool has ended, also when nobody waits for the answer any more.
    Later<bool> answer(QPointer<QLocalSocket> client, QJsonObject request)
    {
        const QString method = request["method"_L1].toString();
        Answer body = ok("app"_L1, u"Orrery demonstration"_s);
        if (method != "hello"_L1 && method != "quit"_L1) {
            waiting << client;
            const auto wanted = [client] { return !client.isNull(); };
            Call call { world, request["params"_L1].toObject(), wanted, {}, {} };
            body = co_await Tool::carryOut(method, call);
            waiting.removeOne(client);
        }
        body["id"_L1] = request["id"_L1];
        send(client, body);
        if (method == "quit"_L1)
            QCoreApplication::quit();
        co_return true;
    }

    QLockFile lock { QDir::temp().filePath(OrreryControl::pipeName() + ".lock"_L1) };
    QLocalServer server;
    QList<QPointer<QLocalSocket>> waiting; // for an answer: nobody else reads events
    World world { [this](const QString &event, const QJsonObject &detail) {
        for (const auto &client : std::as_const(waiting))
            send(client, object("method"_L1, event, "params"_L1, detail));
    } };
};

// Ctrl-C and the like end the application as quit does, which leaves nothing behind.
void quitOnSignals()
{
    static int signalled[2]; // a pipe into the event loop
    if (pipe2(signalled, O_CLOEXEC) != 0)
        return;
    auto *came = new QSocketNotifier(signalled[0], QSocketNotifier::Read, qApp);
    QObject::connect(came, &QSocketNotifier::activated, qApp, &QCoreApplication::quit);
    for (const int number : { SIGINT, SIGTERM })
        std::signal(number, [](int) { std::ignore = write(signalled[1], "", 1); });
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    quitOnSignals();
    ControlServer server;
    server.serve();
    return QCoreApplication::exec();
}
