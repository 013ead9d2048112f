#include "qemu.h"

#include <QJsonDocument>

#include <sys/socket.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

constexpr qsizetype MaxLine = 1'000; // of what the guest says
constexpr qint64 MaxAgentBytes = 1 << 20;

// Gives one end to a socket, and returns the other; -1 when there are no descriptors left.
static int connectPair(QLocalSocket &socket)
{
    int ends[2] { -1, -1 };
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0)
        socket.setSocketDescriptor(ends[0]);
    return ends[1];
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
}

Qemu::~Qemu()
{
    process.disconnect(this);
    process.kill();
    process.waitForFinished();
}

Later<QJsonObject> Qemu::command(const QString &name, const QJsonObject &arguments)
{
    Later<QJsonObject> answer;
    commands.insert(++lastId, answer);
    const QJsonObject request
            = object("execute"_L1, name, "arguments"_L1, arguments, "id"_L1, lastId);
    qmp.write(QJsonDocument(request).toJson(QJsonDocument::Compact) + '\n');
    return answer;
}

Later<QJsonObject> Qemu::monitor(const QString &line)
{
    return command(u"human-monitor-command"_s, object("command-line"_L1, line));
}

Later<GuestAnswer> Qemu::inGuest(const QString &shellCommand)
{
    Later<GuestAnswer> answer;
    guestCommands.insert(++lastId, answer);
    agent.write(QByteArray::number(lastId) + ' ' + shellCommand.toUtf8().toBase64() + '\n');
    QTimer::singleShot(25'000, this, [this, id = lastId] { guestCommands.take(id).set({}); });
    return answer;
}

void Qemu::readMonitor()
{
    while (qmp.canReadLine()) {
        const QJsonObject message = QJsonDocument::fromJson(qmp.readLine()).object();
        if (message.contains("event"_L1))
            listener.happened(message["event"_L1].toString());
        else if (message.contains("id"_L1))
            commands.take(message["id"_L1].toInteger()).set(message);
    }
}

void Qemu::readAgent()
{
    while (agent.canReadLine()) {
        const QList<QByteArray> words = agent.readLine().trimmed().split(' ');
        if (words[0] == "ready")
            listener.happened(u"ready"_s);
        else if (words.size() == 3)
            guestCommands.take(words[0].toLongLong())
                    .set({ words[1].toInt(), QByteArray::fromBase64(words[2].mid(1)) });
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
    for (const auto &waiting : std::as_const(commands))
        waiting.set(object("error"_L1, object("desc"_L1, u"the machine has ended"_s)));
    for (const auto &waiting : std::as_const(guestCommands))
        waiting.set({});
    const bool normal = process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    listener.ended(process.error() == QProcess::FailedToStart ? process.errorString()
                   : normal                                   ? QString()
                   : lastWords.isEmpty()                      ? u"QEMU was killed"_s
                                                              : lastWords);
}
