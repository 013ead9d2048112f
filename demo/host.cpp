#include "host.h"

#include <QCoreApplication>
#include <QFile>
#include <QStandardPaths>
#include <QThread>

#include <csignal>
#include <filesystem>

#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

constexpr qint64 MaxOutputBytes = 16 << 20;

// A line of /proc/meminfo, which counts in KiB.
static int memoryGB(const QByteArray &name)
{
    QFile file(u"/proc/meminfo"_s);
    file.open(QIODevice::ReadOnly);
    const QByteArray text = file.readAll();
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

void startBound(QProcess &process, const QString &program, const QStringList &arguments,
                const QList<int> &inherited)
{
    process.setChildProcessModifier([parent = getpid(), inherited] {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) // it ended before that
            _exit(1);
        for (const int descriptor : inherited)
            fcntl(descriptor, F_SETFD, 0);
    });
    process.start(program, arguments);
}

Later<bool> killAfter(QPointer<QProcess> process, int ms, Later<QJsonObject> unless)
{
    co_await pause(ms);
    if (process && !unless.isSet())
        process->kill();
    co_return true;
}

Later<Outcome> run(const QString &program, const QStringList &arguments, const QString &folder,
                   int limitMs)
{
    auto *process = new QProcess;
    const auto outcome = std::make_shared<Outcome>();
    const Later<Outcome> done;
    const auto read = [process, outcome] {
        outcome->output += process->readAllStandardOutput();
        outcome->errors += process->readAllStandardError();
        outcome->tooMuch = outcome->output.size() + outcome->errors.size() > MaxOutputBytes;
        if (outcome->tooMuch)
            process->kill();
    };
    const auto end = [=](int exitCode) {
        read();
        outcome->exitCode = exitCode;
        done.set(*outcome);
        process->deleteLater();
    };
    QObject::connect(process, &QProcess::readyReadStandardOutput, process, read);
    QObject::connect(process, &QProcess::readyReadStandardError, process, read);
    QObject::connect(process, &QProcess::finished, process, [=](int exitCode, auto status) {
        end(status == QProcess::NormalExit ? exitCode : -1);
    });
    QObject::connect(process, &QProcess::errorOccurred, process, [=](auto error) {
        if (error == QProcess::FailedToStart)
            end(-1);
    });
    killAfter(process, limitMs);
    process->setWorkingDirectory(folder);
    startBound(*process, program, arguments);
    return done;
}
