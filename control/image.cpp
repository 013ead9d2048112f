// Which program does a process run, and is it this installation's? Every decision about whom to
// talk to, whom to quit and what to kill rests on this file.
//
// The answer comes from /proc/PID/exe, which the kernel keeps and a process can only change by
// executing another file. An AppImage complicates it: each start of the image mounts it at a new
// place, so the same program has a different path in every start. Such a path is mapped into our
// own mount, and because APPDIR and APPIMAGE in the other process's environment are only that
// process's word, the mapping counts only if the two files turn out to be the same, byte for byte.

#include "orrery_control.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr qint64 MaxEnvironBytes = 1'048'576;
constexpr qint64 MaxComparedBytes = 268'435'456;

QString procPath(unsigned long pid, QLatin1StringView file)
{
    return "/proc/%1/%2"_L1.arg(QString::number(pid), file);
}

QString canonical(const QString &path)
{
    // QFileInfo would take an empty path for one without a file, but warn about it.
    return path.isEmpty() ? QString() : QFileInfo(path).canonicalFilePath();
}

// The value of a variable in an environment as proc(5) lays it out, null when it is not there.
QString environValue(const QByteArray &environ, const QByteArray &name)
{
    const QByteArray entry = name + '=';
    const QList<QByteArray> entries = environ.split('\0');
    for (const QByteArray &candidate : entries) {
        if (candidate.startsWith(entry))
            return QString::fromLocal8Bit(candidate.sliced(entry.size()));
    }
    return {};
}

// The parent's id in a process's status line, 0 when there is none.
unsigned long statParent(const QByteArray &stat)
{
    // "pid (name) state ppid ...": the name may hold blanks and brackets, so count from its end.
    const qsizetype nameEnd = stat.lastIndexOf(')');
    return stat.mid(nameEnd + 2).split(' ').value(1).toULong();
}

bool sameContents(const QString &a, const QString &b)
{
    QFile fileA(a);
    QFile fileB(b);
    if (!fileA.open(QIODevice::ReadOnly) || !fileB.open(QIODevice::ReadOnly))
        return false;
    if (fileA.size() != fileB.size() || fileA.size() > MaxComparedBytes)
        return false;
    QCryptographicHash hashA(QCryptographicHash::Sha256);
    QCryptographicHash hashB(QCryptographicHash::Sha256);
    return hashA.addData(&fileA) && hashB.addData(&fileB) && hashA.result() == hashB.result();
}

} // namespace

namespace OrreryControl {

QString startEnv(unsigned long pid, const QByteArray &name)
{
    QFile environ(procPath(pid, "environ"_L1));
    return environ.open(QIODevice::ReadOnly) ? environValue(environ.read(MaxEnvironBytes), name)
                                             : QString();
}

bool isInsideAppDir()
{
    const QString appDir = canonical(qEnvironmentVariable("APPDIR"));
    const QString ownDir = canonical(siblingPath(u"."_s));
    // With the separator, so that /tmp/mount1 does not contain /tmp/mount10.
    return !appDir.isEmpty() && (ownDir + u'/').startsWith(appDir + u'/');
}

QString ownAppImage()
{
    const QString appImage = canonical(qEnvironmentVariable("APPIMAGE"));
    return QFileInfo(appImage).isFile() && isInsideAppDir() ? appImage : QString();
}

QString processImagePath(unsigned long pid)
{
    const QString exe = procPath(pid, "exe"_L1);
    QString target = QFileInfo(exe).symLinkTarget();
    constexpr auto Deleted = " (deleted)"_L1;
    if (target.endsWith(Deleted))
        target.chop(Deleted.size());

    const QString own = ownAppImage();
    if (target.isEmpty() || own.isEmpty() || pid == static_cast<unsigned long>(getpid()))
        return target;
    const QString theirDir = startEnv(pid, "APPDIR");
    if (theirDir.isEmpty() || !target.startsWith(theirDir + u'/'))
        return target;
    if (!samePath(canonical(startEnv(pid, "APPIMAGE")), own))
        return target;

    const QString candidate
            = canonical(qEnvironmentVariable("APPDIR")) + target.sliced(theirDir.size());
    // Through /proc/PID/exe, which opens what the process runs even after its file was deleted.
    return sameContents(exe, candidate) ? candidate : target;
}

QString parentImagePath(unsigned long pid)
{
    QFile file(procPath(pid, "stat"_L1));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const unsigned long parent = statParent(file.readAll());
    return parent == 0 ? QString() : processImagePath(parent);
}

bool isSiblingProcess(unsigned long pid, const QString &name)
{
    const QString image = canonical(processImagePath(pid));
    const QString sibling = canonical(siblingPath(name));
    // Two unknown paths are equal as strings; what cannot be verified is not trusted.
    return !image.isEmpty() && !sibling.isEmpty() && samePath(image, sibling);
}

QString siblingPath(const QString &name)
{
    // Without its file path the program's directory would read as ".", and the current directory
    // would decide who is trusted.
    if (QCoreApplication::applicationFilePath().isEmpty())
        return {};
    return QDir(QCoreApplication::applicationDirPath()).filePath(name);
}

QString exeName(const QString &name) { return name; }

bool samePath(const QString &a, const QString &b) { return a == b; }

} // namespace OrreryControl
