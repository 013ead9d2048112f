#include "qemu.h"

#include <QJsonDocument>

constexpr qsizetype MaxLine = 1'000; // of what the guest says
constexpr int LaunchMs = 60'000;
constexpr int QuitMs = 3'000;

Qemu::Qemu(const QStringList &arguments, const QString &folder)
{
    connect(&process, &QProcess::readyReadStandardOutput, this, &Qemu::readMonitor);
    connect(&process, &QProcess::readyReadStandardError, this,
            [this] { readLines(process.readAllStandardError()); });
    const auto changed = [this](auto state) {
        if (state == QProcess::NotRunning)
            end();
    };
    connect(&process, &QProcess::stateChanged, this, changed, Qt::QueuedConnection);
    process.setWorkingDirectory(folder);
    const QStringList lines = u"-qmp stdio -serial file:/dev/stderr"_s.split(u' ');
    startBound(process, u"qemu-system-x86_64"_s, arguments + lines);
    connect(&hangs, &QTimer::timeout, &process, &QProcess::kill);
    hangs.start(LaunchMs);
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
    QTimer::singleShot(QuitMs, &process, SLOT(kill()));
}

Later<QJsonObject> Qemu::command(const QString &name, const QJsonObject &arguments)
{
    const QJsonObject request
            = object("execute"_L1, name, "arguments"_L1, arguments, "id"_L1, ++lastId);
    process.write(QJsonDocument(request).toJson(QJsonDocument::Compact) + '\n');
    return waiting[lastId];
}

Later<QJsonObject> Qemu::monitor(const QString &line)
{
    return command(u"human-monitor-command"_s, object("command-line"_L1, line));
}

void Qemu::readMonitor()
{
    while (process.canReadLine()) {
        hangs.stop();
        const QJsonObject message = QJsonDocument::fromJson(process.readLine()).object();
        waiting.take(message["id"_L1].toInteger()).set(message);
        if (message.contains("event"_L1))
            happened(message["event"_L1].toString());
    }
}

void Qemu::readLines(const QByteArray &more)
{
    const QList<QByteArray> lines = (unfinished + more).split('\n');
    unfinished = lines.last().right(MaxLine);
    for (const QByteArray &line : lines.first(lines.size() - 1)) {
        const QString text = QString::fromUtf8(line.left(MaxLine)).trimmed();
        said(text);
        if (text.startsWith("qemu-system"_L1))
            lastWords = text;
    }
}

void Qemu::end()
{
    readLines(process.readAllStandardError() + '\n');
    for (const auto &later : std::as_const(waiting))
        later.set(object("error"_L1, object("desc"_L1, u"the machine has ended"_s)));
    if (process.error() == QProcess::FailedToStart)
        lastWords = process.errorString();
    const bool normal = process.error() == QProcess::UnknownError && process.exitCode() == 0;
    ended(normal ? QString() : lastWords);
}
