#include "host.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QStandardPaths>
#include <QStorageInfo>
#include <QThread>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr double BytesPerGB = 1 << 30;

// A line of /proc/meminfo, which counts in KiB.
double meminfoGB(const QByteArray &name)
{
    QFile file(u"/proc/meminfo"_s);
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    const QList<QByteArray> lines = file.readAll().split('\n');
    for (const QByteArray &line : lines) {
        if (line.startsWith(name + ':'))
            return line.simplified().split(' ').value(1).toDouble() / (1 << 20);
    }
    return 0;
}

} // namespace

int hostProcessors() { return std::max(1, QThread::idealThreadCount()); }

int hostMemoryGB() { return std::max(1, static_cast<int>(meminfoGB("MemTotal") - 1)); }

double availableMemoryGB() { return meminfoGB("MemAvailable"); }

qint64 freeDiskGB(const QString &folder)
{
    return static_cast<qint64>(static_cast<double>(QStorageInfo(folder).bytesAvailable())
                               / BytesPerGB);
}

QString missingOnHost()
{
    QStringList missing;
    for (const auto &[program, package] :
         { std::pair { u"qemu-system-x86_64"_s, u"qemu-system-x86"_s },
           std::pair { u"qemu-img"_s, u"qemu-utils"_s },
           std::pair { u"ssh"_s, u"openssh-client"_s } }) {
        if (QStandardPaths::findExecutable(program).isEmpty())
            missing += u"%1 (package %2)"_s.arg(program, package);
    }
    if (!QFile::exists(guestFile(u"initrd"_s)) || !QFile::exists(guestFile(u"kernel"_s)))
        missing += "Small Linux in "_L1 + guestFile({});
    return missing.isEmpty() ? QString()
                             : u"missing on this host: %1; script/demo installs and makes it"_s.arg(
                                     missing.join(u", "_s));
}

QString guestFile(const QString &name)
{
    return QCoreApplication::applicationDirPath() + "/guest/"_L1 + name;
}
