#include "qemu.h"

#include <QJsonDocument>

#include <sys/socket.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

constexpr qsizetype MaxLine = 1'000; // of what the guest says
constexpr int GuestMs = 25'000;
constexpr int LaunchMs = 60'000;
constexpr int QuitMs = 3'000;
constexpr qint64 MaxAgentBytes = 1 << 20;

// Gives one end to a socket, and returns the other; -1 when there are no descriptors left.
static int connectPair(QLocalSocket &socket)
{
    int ends[2] { -1, -1 };
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0)
        socket.setSocketDescriptor(ends[0]);
    return ends[1];
}

static Later<bool> giveUp(Later<QJsonObject> answer)
{
    co_await pause(GuestMs);
    answer.set({});
    co_return true;
}

Qemu::Qemu(const QStringList &arguments, const QString &folder, Listener callbacks)
    : listener(std::move(callbacks))
{
    const int qmpEnd = connectPair(qmp);
    const int agentEnd = connectPair(agent);
    agent.setReadBufferSize(MaxAgentBytes);
    connect(&qmp, &QLocalSocket::readyRead, this, [this] { readMonitor(); });
    connect(&agent, &QLocalSocket::readyRead, this, [this] { readAgent(); });
    process.setProcessChannelMode(QProcess::MergedChannels);
    connect(&process, &QProcess::readyRead, this, [this] { readLines(process.readAll()); });
    connect(&process, &QProcess::finished, this, [this] { end(); });
    connect(&process, &QProcess::errorOccurred, this, [this](auto error) {
        if (error == QProcess::FailedToStart)
            end();
    });
    const QString lines = u"-chardev socket,id=qmp,fd=%1 -mon chardev=qmp,mode=control "
                          "-chardev socket,id=agent,fd=%2 -device virtio-serial-pci "
                          "-device virtserialport,chardev=agent,name=agent "
                          "-chardev stdio,id=serial,signal=off -serial chardev:serial"_s;
    process.setWorkingDirectory(folder);
    startBound(process, u"qemu-system-x86_64"_s,
               arguments + lines.arg(qmpEnd).arg(agentEnd).split(u' '), { qmpEnd, agentEnd });
    close(qmpEnd);
    close(agentEnd);
    up = command(u"qmp_capabilities"_s);
    killAfter(&process, LaunchMs, up);
}

Qemu::~Qemu()
{
    process.disconnect(this);
    process.kill();
    process.waitForFinished();
}

void Qemu::cutPower()
{
    command(u"quit"_s);
    killAfter(&process, QuitMs);
}

Later<QJsonObject> Qemu::command(const QString &name, const QJsonObject &arguments)
{
    const QJsonObject request
            = object("execute"_L1, name, "arguments"_L1, arguments, "id"_L1, ++lastId);
    qmp.write(QJsonDocument(request).toJson(QJsonDocument::Compact) + '\n');
    return waiting[lastId];
}

Later<QJsonObject> Qemu::monitor(const QString &line)
{
    return command(u"human-monitor-command"_s, object("command-line"_L1, line));
}

Later<QJsonObject> Qemu::inGuest(const QString &shellCommand)
{
    const Later<QJsonObject> answer = waiting[++lastId];
    agent.write(QByteArray::number(lastId) + ' ' + shellCommand.toUtf8().toBase64() + '\n');
    giveUp(answer);
    return answer;
}

void Qemu::readMonitor()
{
    while (qmp.canReadLine()) {
        const QJsonObject message = QJsonDocument::fromJson(qmp.readLine()).object();
        waiting.take(message["id"_L1].toInteger()).set(message);
        if (message.contains("event"_L1))
            listener.happened(message["event"_L1].toString());
    }
}

void Qemu::readAgent()
{
    while (agent.canReadLine()) {
        const QList<QByteArray> words = agent.readLine().trimmed().split(' ');
        const QString output = QString::fromUtf8(QByteArray::fromBase64(words.last().mid(1)));
        waiting.take(words[0].toLongLong())
                .set(object("exit"_L1, words.value(1).toInt(), "output"_L1, output));
        if (words[0] == "ready")
            listener.happened(u"ready"_s);
    }
}

void Qemu::readLines(const QByteArray &more)
{
    const QList<QByteArray> lines = (unfinished + more).split('\n');
    unfinished = lines.last().right(MaxLine);
    for (qsizetype i = 0; i + 1 < lines.size(); ++i) {
        listener.said(QString::fromUtf8(lines[i].left(MaxLine)).trimmed());
        if (lines[i].startsWith("qemu-system"))
            lastWords = QString::fromUtf8(lines[i].left(MaxLine)).trimmed();
    }
}

void Qemu::end()
{
    while (qmp.waitForReadyRead(0)) { } // what it said last
    readLines(process.readAll() + '\n');
    qmp.disconnect(this);
    agent.disconnect(this);
    for (const auto &later : std::as_const(waiting))
        later.set(object("error"_L1, object("desc"_L1, u"the machine has ended"_s)));
    const bool normal = process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    if (lastWords.isEmpty())
        lastWords = process.error() == QProcess::FailedToStart ? process.errorString()
                                                               : u"QEMU was killed"_s;
    listener.ended(normal ? QString() : lastWords);
}
