// A stand-in for the Orrery application, to try the server without it: serves the control pipe for
// one user and lets simulated machines answer. It is a demonstration; no machine is real.

#include "orrery_control.h"
#include "tools.h"

#include <QDir>
#include <QGuiApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLocalServer>
#include <QLocalSocket>
#include <QLockFile>
#include <QPointer>
#include <QTimer>

#include <cstdio>

using namespace Qt::StringLiterals;

namespace {

constexpr int TickMs = 50;
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
        QObject::connect(&timer, &QTimer::timeout, &timer, [this] { tick(); });
        timer.start(TickMs);
    }

    bool listen()
    {
        server.setSocketOptions(QLocalServer::UserAccessOption);
        QLocalServer::removeServer(OrreryControl::pipeName()); // of a run that was killed
        return server.listen(OrreryControl::pipeName());
    }

private:
    // A request whose answer is not there yet.
    struct Waiting
    {
        QPointer<QLocalSocket> client;
        QJsonValue id;
        Answer answer;
    };

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
        waiting.push_back({ &client, id, call(world, method, request["params"_L1].toObject()) });
        answerWaiting();
    }

    // Sends what is ready; whoever went away gets nothing.
    void answerWaiting()
    {
        std::erase_if(waiting, [](Waiting &call) {
            if (!call.client)
                return true;
            if (call.answer.later) {
                std::optional<Answer> answer = call.answer.later();
                if (!answer)
                    return false;
                call.answer = *std::move(answer);
            }
            call.answer.body["id"_L1] = call.id;
            send(*call.client, call.answer.body);
            return true;
        });
    }

    // To those who wait for an answer: nobody else reads.
    void broadcast(const QString &event, const QJsonObject &detail)
    {
        for (const Waiting &call : waiting) {
            if (call.client)
                send(*call.client, { { u"method"_s, event }, { u"params"_s, detail } });
        }
    }

    void tick()
    {
        world.tick();
        answerWaiting();
    }

    QLocalServer server;
    QTimer timer;
    World world;
    std::list<Waiting> waiting;
};

bool somebodyServes()
{
    QLocalSocket probe;
    probe.connectToServer(OrreryControl::pipeName());
    return probe.waitForConnected(ConnectMs);
}

} // namespace

int main(int argc, char *argv[])
{
    qputenv("QT_QPA_PLATFORM", "offscreen"); // pictures are painted, no window is shown
    QGuiApplication app(argc, argv);

    // The lock decides between two that start at the same moment.
    QLockFile lock(QDir::temp().filePath(OrreryControl::pipeName() + ".lock"_L1));
    lock.setStaleLockTime(0);
    if (!lock.tryLock(0) || somebodyServes()) {
        std::fputs("orrery (demonstration): the control pipe is served already\n", stderr);
        return 1;
    }
    ControlServer server;
    if (!server.listen()) {
        std::fputs("orrery (demonstration): cannot serve the control pipe\n", stderr);
        return 1;
    }
    std::puts("orrery (demonstration): serving simulated machines; nothing here is real");
    std::fflush(stdout);
    return QGuiApplication::exec();
}
