// A stand-in for the Orrery application, to try the server without it: serves the control pipe for
// one user, and runs small virtual machines by QEMU.

#include "host.h"
#include "orrery_control.h"
#include "tools.h"

#include <QCoreApplication>
#include <QDir>
#include <QJsonDocument>
#include <QLocalServer>
#include <QLocalSocket>
#include <QLockFile>
#include <QPointer>

#include <cstdio>

using namespace Qt::StringLiterals;

namespace {

constexpr int ConnectMs = 500;

void send(QLocalSocket &client, const QJsonObject &message)
{
    client.write(QJsonDocument(message).toJson(QJsonDocument::Compact) + '\n');
    client.flush();
}

class ControlServer
{
public:
    ControlServer()
        : world([this](const QString &event, const QJsonObject &detail) {
              broadcast(event, detail);
          })
    {
        QObject::connect(&server, &QLocalServer::newConnection, &server, [this] { accept(); });
    }

    // Serves once the first machine is there; gives what went wrong.
    Later<QString> serve()
    {
        const QString complaint = world.open();
        if (!complaint.isEmpty())
            co_return complaint;
        co_await world.begin();
        server.setSocketOptions(QLocalServer::UserAccessOption);
        QLocalServer::removeServer(OrreryControl::pipeName()); // of a run that was killed
        co_return server.listen(OrreryControl::pipeName()) ? QString() : server.errorString();
    }

private:
    void accept()
    {
        while (QLocalSocket *client = server.nextPendingConnection()) {
            QObject::connect(client, &QLocalSocket::disconnected, client, &QObject::deleteLater);
            if (OrreryControl::peerClientPid(*client) == 0) {
                client->abort(); // another user's
                continue;
            }
            QObject::connect(client, &QLocalSocket::readyRead, client, [this, client] {
                while (client->canReadLine())
                    receive(*client, QJsonDocument::fromJson(client->readLine()).object());
            });
        }
    }

    void receive(QLocalSocket &client, const QJsonObject &request)
    {
        const QJsonValue id = request["id"_L1];
        const QString method = request["method"_L1].toString();
        if (method == "hello"_L1 || method == "quit"_L1) {
            send(client,
                 { { u"id"_s, id },
                   { u"result"_s, QJsonObject { { u"app"_s, u"Orrery demonstration"_s } } } });
            if (method == "quit"_L1)
                QCoreApplication::quit();
            return;
        }
        answer(&client, id, method, request["params"_L1].toObject());
    }

    // Whoever went away gets nothing, but what the call keeps has to stay until it has ended.
    Later<bool> answer(QPointer<QLocalSocket> client, QJsonValue id, QString method,
                       QJsonObject arguments)
    {
        const auto place = waiting.insert(waiting.end(), client);
        Call call { world, arguments, [client] { return !client.isNull(); }, {}, {} };
        Answer body = co_await carryOut(method, call);
        waiting.erase(place);
        body["id"_L1] = id;
        if (client)
            send(*client, body);
        co_return true;
    }

    // To those who wait for an answer: nobody else reads.
    void broadcast(const QString &event, const QJsonObject &detail)
    {
        for (const auto &client : waiting) {
            if (client)
                send(*client, { { u"method"_s, event }, { u"params"_s, detail } });
        }
    }

    QLocalServer server;
    World world;
    std::list<QPointer<QLocalSocket>> waiting;
};

Later<bool> serveOrQuit(ControlServer &server)
{
    const QString complaint = co_await server.serve();
    if (complaint.isEmpty()) {
        std::puts("orrery (demonstration): serving virtual machines");
        std::fflush(stdout);
    } else {
        std::fprintf(stderr, "orrery (demonstration): cannot serve the control pipe: %s\n",
                     qUtf8Printable(complaint));
        QCoreApplication::exit(1);
    }
    co_return true;
}

bool somebodyServes()
{
    QLocalSocket probe;
    probe.connectToServer(OrreryControl::pipeName());
    return probe.waitForConnected(ConnectMs);
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);

    // The lock decides between two that start at the same moment.
    QLockFile lock(QDir::temp().filePath(OrreryControl::pipeName() + ".lock"_L1));
    lock.setStaleLockTime(0);
    if (!lock.tryLock(0) || somebodyServes()) {
        std::fputs("orrery (demonstration): the control pipe is served already\n", stderr);
        return 1;
    }
    if (const QString missing = missingOnHost(); !missing.isEmpty())
        std::fprintf(stderr, "orrery (demonstration): %s\n", qUtf8Printable(missing));
    ControlServer server;
    serveOrQuit(server);
    return QCoreApplication::exec();
}
