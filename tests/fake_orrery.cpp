// A scripted application: serves the control pipe and does exactly what a test asks.
//
// What it does for a request is a list of steps, taken from the file METHOD.json beside this
// program, else from "steps" of the request's parameters. Without steps it answers with the request
// itself (hello and quit: with an empty result, and quit ends it). Steps, done in order and without
// reading meanwhile:
//
//   {"send": "text", "times": N}   the bytes; $id is the request's id, $n counts up
//   {"fill": N}                    N bytes without a line feed
//   {"file": "name"}               the contents of a file beside this program
//   {"wait": MS}, {"close": 1}, {"exit": 1}
//   {"leak": S}                    another program inherits the connection, for S seconds
//
// Every line that it gets is appended to the file "received" beside it, a byte to "starts" at each
// start. FAKE_DEAF=1 keeps it from accepting anybody, FAKE_SLOW=MS makes it pause before it reads,
// FAKE_LARGE=BYTES makes it take that much memory, so that it does not end at once when it is
// killed. It prints "listening" once it serves, gives way to a living holder of the pipe, and ends
// by itself after two minutes.

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QThread>

#include <cstdio>
#include <list>

#include <poll.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr unsigned LifetimeSeconds = 120;
constexpr int Backlog = 300;

struct Client
{
    int fd;
    QByteArray buffer;
};

// False when nobody is there to take it.
bool sendAll(int fd, QByteArrayView bytes)
{
    while (!bytes.isEmpty()) {
        const ssize_t sent = send(fd, bytes.data(), size_t(bytes.size()), MSG_NOSIGNAL);
        if (sent < 0)
            return false;
        bytes = bytes.sliced(sent);
    }
    return true;
}

QString beside(const QString &name)
{
    return QDir(QCoreApplication::applicationDirPath()).filePath(name);
}

QJsonArray stepsFor(const QJsonObject &request)
{
    QFile script(beside(request["method"_L1].toString() + ".json"_L1));
    if (script.open(QIODevice::ReadOnly))
        return QJsonDocument::fromJson(script.readAll()).array();
    return request["params"_L1]["steps"_L1].toArray();
}

// Returns once the other program runs.
void leak(int fd, QByteArray seconds)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fd, STDIN_FILENO);
    char name[] = "sleep";
    char *const arguments[] { name, seconds.data(), nullptr };
    posix_spawn(nullptr, "/bin/sleep", &actions, nullptr, arguments, environ);
    posix_spawn_file_actions_destroy(&actions);
}

// False when the connection is to be closed.
bool serve(int fd, const QByteArray &line)
{
    QFile log(beside(u"received"_s));
    if (log.open(QIODevice::Append))
        log.write(line + '\n');
    log.close();
    const QJsonObject request = QJsonDocument::fromJson(line).object();
    const QString method = request["method"_L1].toString();
    const QByteArray id = QByteArray::number(request["id"_L1].toInteger());
    const QJsonArray steps = stepsFor(request);
    if (steps.isEmpty()) {
        const bool plain = method == "hello"_L1 || method == "quit"_L1;
        sendAll(fd, "{\"id\":" + id + ",\"result\":" + (plain ? QByteArray("{}") : line) + "}\n");
        if (method == "quit"_L1)
            _exit(0);
    }
    for (const QJsonValue &step : steps) {
        const QByteArray text = step["send"_L1].toString().toUtf8().replace("$id", id);
        const int times = step["times"_L1].toInt(1);
        for (int n = 0; n < times; ++n) {
            if (!sendAll(fd, QByteArray(text).replace("$n", QByteArray::number(n))))
                break;
        }
        sendAll(fd, QByteArray(step["fill"_L1].toInt(), 'x'));
        if (QFile file(beside(step["file"_L1].toString())); file.open(QIODevice::ReadOnly))
            sendAll(fd, file.readAll());
        QThread::msleep(static_cast<unsigned long>(step["wait"_L1].toInt()));
        if (const int seconds = step["leak"_L1].toInt(); seconds != 0)
            leak(fd, QByteArray::number(seconds));
        if (step["exit"_L1].toInt() != 0)
            _exit(0);
        if (step["close"_L1].toInt() != 0)
            return false;
    }
    return true;
}

// False at the end of the connection.
bool receive(Client &client)
{
    QThread::msleep(static_cast<unsigned long>(qEnvironmentVariableIntValue("FAKE_SLOW")));
    char chunk[65536];
    const ssize_t count = recv(client.fd, chunk, sizeof chunk, 0);
    if (count <= 0)
        return false;
    client.buffer.append(chunk, count);
    for (qsizetype end; (end = client.buffer.indexOf('\n')) >= 0;) {
        const QByteArray line = client.buffer.first(end);
        client.buffer.remove(0, end + 1);
        if (!serve(client.fd, line))
            return false;
    }
    return true;
}

int listenOnPipe()
{
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    const QByteArray path
            = QDir::tempPath().toLocal8Bit() + "/orrery-control-" + QByteArray::number(getuid());
    qstrncpy(address.sun_path, path.constData(), sizeof address.sun_path);
    const auto *where = reinterpret_cast<sockaddr *>(&address);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(fd, where, sizeof address) != 0) {
        if (connect(fd, where, sizeof address) == 0)
            return -1; // somebody lives there
        unlink(path.constData());
        if (bind(fd, where, sizeof address) != 0)
            return -1;
    }
    return listen(fd, qEnvironmentVariableIntValue("FAKE_DEAF") ? 0 : Backlog) == 0 ? fd : -1;
}

} // namespace

int main(int argc, char *argv[])
{
    alarm(LifetimeSeconds);
    prctl(PR_SET_THP_DISABLE, 1, 0, 0, 0); // large pages would be freed at once
    const QByteArray memory(qEnvironmentVariableIntValue("FAKE_LARGE"), 'x');
    QCoreApplication app(argc, argv);
    if (QFile starts(beside(u"starts"_s)); starts.open(QIODevice::Append))
        starts.write("x");
    const int listener = listenOnPipe();
    if (listener < 0)
        return 1;
    std::puts("listening");
    std::fflush(stdout);
    if (qEnvironmentVariableIntValue("FAKE_DEAF"))
        pause(); // nobody is ever accepted

    std::list<Client> clients;
    for (;;) {
        std::vector<pollfd> waited { { listener, POLLIN, 0 } };
        for (const Client &client : clients)
            waited.push_back({ client.fd, POLLIN, 0 });
        if (poll(waited.data(), waited.size(), -1) < 0)
            continue;
        size_t index = 1;
        for (auto client = clients.begin(); client != clients.end(); ++index) {
            if (waited[index].revents != 0 && !receive(*client)) {
                close(client->fd);
                client = clients.erase(client);
            } else {
                ++client;
            }
        }
        if (waited[0].revents != 0)
            clients.push_back({ accept4(listener, nullptr, nullptr, SOCK_CLOEXEC), {} });
    }
}
