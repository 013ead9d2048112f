#include "qemu.h"

#include "process.h"

#include <QJsonDocument>

#include <sys/socket.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype MaxLine = 1'000; // of what the guest says
constexpr qint64 MaxAgentBytes = 1 << 20;

// Gives one end to a socket, and returns the other; -1 when there are no descriptors left.
int connectPair(QLocalSocket &socket)
{
    int ends[2] { -1, -1 };
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0)
        socket.setSocketDescriptor(ends[0]);
    return ends[1];
}

QJsonObject gone()
{
    return { { u"error"_s, QJsonObject { { u"desc"_s, u"the machine has ended"_s } } } };
}

} // namespace

Qemu::Qemu(const QStringList &arguments, const QString &folder, Listener callbacks)
    : listener(std::move(callbacks))
{
    const int qmpEnd = connectPair(qmp);
    const int agentEnd = connectPair(agent);
    agent.setReadBufferSize(MaxAgentBytes);
    connect(&qmp, &QLocalSocket::readyRead, this, [this] { readMonitor(); });
    connect(&agent, &QLocalSocket::readyRead, this, [this] { readAgent(); });
    connect(&process, &QProcess::readyReadStandardOutput, this,
            [this] { readLines(serialLine, process.readAllStandardOutput()); });
    connect(&process, &QProcess::readyReadStandardError, this,
            [this] { readLines(errorLine, process.readAllStandardError()); });
    connect(&process, &QProcess::finished, this, [this] { end(); });
    connect(&process, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart)
            end();
    });
    const QString socket = u"socket,id=%1,fd=%2"_s;
    process.setWorkingDirectory(folder);
    startBound(process, u"qemu-system-x86_64"_s,
               arguments
                       + QStringList { u"-chardev"_s, socket.arg(u"qmp"_s).arg(qmpEnd), u"-mon"_s,
                                       u"chardev=qmp,mode=control"_s, u"-chardev"_s,
                                       socket.arg(u"agent"_s).arg(agentEnd), u"-device"_s,
                                       u"virtio-serial-pci"_s, u"-device"_s,
                                       u"virtserialport,chardev=agent,name=agent"_s, u"-chardev"_s,
                                       u"stdio,id=serial,signal=off"_s, u"-serial"_s,
                                       u"chardev:serial"_s },
               { qmpEnd, agentEnd });
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
    const QJsonObject request { { u"execute"_s, name },
                                { u"arguments"_s, arguments },
                                { u"id"_s, lastId } };
    qmp.write(QJsonDocument(request).toJson(QJsonDocument::Compact) + '\n');
    return answer;
}

Later<QJsonObject> Qemu::monitor(const QString &line)
{
    return command(u"human-monitor-command"_s, { { u"command-line"_s, line } });
}

Later<GuestAnswer> Qemu::inGuest(const QString &shellCommand, int limitMs)
{
    Later<GuestAnswer> answer;
    guestCommands.insert(++lastId, answer);
    agent.write(QByteArray::number(lastId) + ' ' + shellCommand.toUtf8().toBase64() + '\n');
    QTimer::singleShot(limitMs, this, [this, id = lastId] {
        if (const auto late = guestCommands.take(id); !late.isSet())
            late.set({});
    });
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
                    .set({ words[1].toInt(),
                           QString::fromUtf8(QByteArray::fromBase64(words[2].mid(1))) });
    }
}

void Qemu::readLines(QByteArray &unfinished, const QByteArray &more)
{
    unfinished += more;
    const QList<QByteArray> lines = unfinished.split('\n');
    unfinished = lines.last().right(MaxLine);
    for (qsizetype i = 0; i + 1 < lines.size(); ++i) {
        const QString line = QString::fromUtf8(lines[i].left(MaxLine)).trimmed();
        if (line.isEmpty())
            continue;
        if (&unfinished == &errorLine)
            lastWords = line;
        listener.said(line);
    }
}

void Qemu::end()
{
    readLines(errorLine, process.readAllStandardError() + '\n');
    for (const auto &waiting : std::as_const(commands))
        waiting.set(gone());
    for (const auto &waiting : std::as_const(guestCommands))
        waiting.set({});
    if (process.error() == QProcess::FailedToStart)
        lastWords = u"QEMU is missing (script/bootstrap installs it)"_s;
    listener.ended(lastWords);
}
