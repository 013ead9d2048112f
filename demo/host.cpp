#include "host.h"

#include <QCoreApplication>
#include <QFile>
#include <QStandardPaths>
#include <QThread>
#include <QTimer>

#include <csignal>
#include <filesystem>

#include <sys/prctl.h>
#include <unistd.h>

constexpr qint64 MaxOutputBytes = 16 << 20;

QByteArray contents(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// A line of /proc/meminfo, which counts in KiB.
static int memoryGB(const QByteArray &name)
{
    const QByteArray text = contents(u"/proc/meminfo"_s);
    return text.mid(text.indexOf(name)).simplified().split(' ').value(1).toInt() >> 20;
}

int hostProcessors() { return std::max(1, QThread::idealThreadCount()); }
int hostMemoryGB() { return std::max(1, memoryGB("MemTotal:") - 1); }
int availableMemoryGB() { return memoryGB("MemAvailable:"); }

// Not by QStorageInfo: Qt 6.4's finds nothing in a chroot whose root is no mount.
qint64 freeDiskGB(const QString &folder)
{
    std::error_code error;
    const auto space = std::filesystem::space(folder.toStdString(), error);
    return error ? 0 : static_cast<qint64>(space.available >> 30);
}

QString guestFile(const QString &name)
{
    return QCoreApplication::applicationDirPath() + "/guest/"_L1 + name;
}

QString missingOnHost()
{
    QStringList missing;
    for (const auto &program : { u"qemu-system-x86_64"_s, u"qemu-img"_s, u"ssh"_s }) {
        if (QStandardPaths::findExecutable(program).isEmpty())
            missing << program;
    }
    if (!QFile::exists(guestFile(u"initrd"_s)))
        missing << guestFile(u"initrd"_s);
    return missing.isEmpty() ? QString()
                             : u"this host lacks %1; script/demo, in the project's folder, "
                               "installs and makes it"_s.arg(missing.join(", "_L1));
}

void startBound(QProcess &process, const QString &program, const QStringList &arguments)
{
    process.setChildProcessModifier([parent = getpid()] {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) // it ended before that
            _exit(1);
    });
    process.start(program, arguments);
}

Later<Outcome> run(const QString &program, const QStringList &arguments, const QString &folder,
                   int limitMs)
{
    QProcess process;
    Outcome outcome;
    const auto read = [&process, &outcome] {
        outcome.output += process.readAllStandardOutput();
        outcome.errors += process.readAllStandardError();
        outcome.tooMuch = outcome.output.size() + outcome.errors.size() > MaxOutputBytes;
        if (outcome.tooMuch)
            process.kill();
    };
    const Later<bool> ended;
    QObject::connect(&process, &QProcess::stateChanged, [ended](auto state) {
        if (state == QProcess::NotRunning)
            ended.set(true);
    });
    QObject::connect(&process, &QProcess::readyReadStandardOutput, read);
    QObject::connect(&process, &QProcess::readyReadStandardError, read);
    QTimer::singleShot(limitMs, &process, SLOT(kill()));
    process.setWorkingDirectory(folder);
    startBound(process, program, arguments);
    co_await ended;
    read();
    if (process.error() == QProcess::UnknownError) // none: it was started, and not killed
        outcome.exitCode = process.exitCode();
    co_return outcome;
}

Later<Outcome> diskTool(const QString &words, const QString &folder)
{
    return run(u"qemu-img"_s, words.split(u' '), folder);
}

Later<Outcome> makeKey(const QString &name, const QString &folder)
{
    const QStringList words = u"-q -t ed25519 -C orrery -f %1 -N"_s.arg(name).split(u' ');
    return run(u"ssh-keygen"_s, words + QStringList { QString() }, folder);
}
