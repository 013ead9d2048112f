#include "checks.h"
#include "orrery_control.h"
#include "report.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include <filesystem>

#include <pwd.h>
#include <sys/statvfs.h>
#include <sys/un.h>

using namespace Qt::StringLiterals;

namespace {

constexpr qint64 MaxProcBytes = 1'048'576;
constexpr quint64 LittleBytes = 1'048'576;

// Whether a folder's file system takes hardly a file more. One that tells no sizes has no limits.
bool isFull(const QByteArray &folder)
{
    struct statvfs space
    {
    };
    return statvfs(folder.constData(), &space) == 0
           && ((space.f_blocks != 0 && space.f_bavail * space.f_frsize < LittleBytes)
               || (space.f_files != 0 && space.f_favail == 0));
}

void checkTemporaryFolder(Report &report)
{
    const QString variable = qEnvironmentVariable("TMPDIR");
    const QString folder = QDir::tempPath();
    const QFileInfo info(folder);
    const QString finding
            = !variable.isEmpty()
                      ? u"TMPDIR is %1"_s.arg(variable)
                      : u"TMPDIR is %1, so %2 is used"_s.arg(
                              variable.isNull() ? u"not set"_s : u"set to nothing"_s, folder);
    report.judge(
            u"tmpdir"_s,
            { { variable.toLocal8Bit() != qgetenv("TMPDIR"), Outcome::Fault,
                finding + u", whose bytes are no UTF-8: no program with Qt finds it."_s,
                u"Set TMPDIR to a folder with a name in UTF-8, for Orrery and for the client."_s },
              { !info.isDir(), Outcome::Fault, finding + u", which is no folder."_s,
                u"Unset TMPDIR, or set it to the folder that Orrery uses."_s },
              { socketPath().toLocal8Bit().size() >= qsizetype(sizeof(sockaddr_un::sun_path)),
                Outcome::Fault, finding + u", too long a path for a socket in it."_s,
                u"Use a shorter one, for Orrery and for the client."_s },
              { !variable.isEmpty() && QDir::isRelativePath(variable), Outcome::Warning,
                finding + u", relative to wherever a program is started."_s,
                u"Set it to an absolute path."_s },
              { !info.isWritable() || !info.isExecutable(), Outcome::Warning,
                finding + u", where you may not make files."_s,
                u"An application that is launched could not make its socket: unset TMPDIR."_s },
              { isFull(folder.toLocal8Bit()), Outcome::Warning, finding + u", and it is full."_s,
                u"An application that is launched may not come up: make room there (df, df -i)."_s },
              { true, Outcome::Ok, finding + u'.' } });
}

bool isSocket(const QString &path)
{
    std::error_code unknown;
    return std::filesystem::is_socket(path.toStdString(), unknown);
}

// What is known of one display: the socket behind it, and whether that is there.
struct Display
{
    QString text;
    bool usable = false;
};

Display waylandDisplay(const QString &name)
{
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (QDir::isRelativePath(name) && runtime.isEmpty())
        return { u"WAYLAND_DISPLAY=%1 without XDG_RUNTIME_DIR"_s.arg(name), false };
    const QString path = QDir(runtime).filePath(name);
    const bool usable = isSocket(path);
    return { u"WAYLAND_DISPLAY=%1 (%2%3)"_s.arg(name, path, usable ? u""_s : u" is no socket"_s),
             usable };
}

Display xDisplay(const QString &name)
{
    static const QRegularExpression local(u"^(?:unix)?:([0-9]+)(?:\\.[0-9]+)?$"_s);
    const QRegularExpressionMatch match = local.match(name);
    if (!match.hasMatch())
        return { u"DISPLAY=%1 (not on this host, not looked at)"_s.arg(name), true };
    const QString path = u"/tmp/.X11-unix/X"_s + match.captured(1);
    // A server may also listen on the abstract name only.
    const bool usable = isSocket(path)
                        || procText(u"/proc/net/unix"_s).contains('@' + path.toLocal8Bit() + '\n');
    return { u"DISPLAY=%1 (%2%3)"_s.arg(name, path, usable ? u""_s : u" is no socket"_s), usable };
}

void checkDisplay(Report &report)
{
    QList<Display> displays;
    if (const QString wayland = qEnvironmentVariable("WAYLAND_DISPLAY"); !wayland.isEmpty())
        displays += waylandDisplay(wayland);
    if (const QString x = qEnvironmentVariable("DISPLAY"); !x.isEmpty())
        displays += xDisplay(x);
    QStringList texts;
    bool usable = false;
    for (const Display &display : std::as_const(displays)) {
        texts += display.text;
        usable = usable || display.usable;
    }
    const QString finding = texts.isEmpty() ? u"Neither WAYLAND_DISPLAY nor DISPLAY is set."_s
                                            : texts.join(u", "_s) + u'.';
    report.judge(u"display"_s,
                 { { usable, Outcome::Ok, finding },
                   { true, Outcome::Warning, finding,
                     u"An application that is launched from here shows no window and may end at "
                     "once: start Orrery on the desktop first, or pass DISPLAY or WAYLAND_DISPLAY "
                     "and XDG_RUNTIME_DIR on in the client's settings."_s } });
}

// Variables that are worse empty or wrong than not there.
void checkVariables(Report &report)
{
    QStringList empty;
    for (const char *variable : { "DISPLAY", "WAYLAND_DISPLAY", "XDG_RUNTIME_DIR",
                                  "DBUS_SESSION_BUS_ADDRESS", "XAUTHORITY" }) {
        if (qEnvironmentVariableIsSet(variable) && qEnvironmentVariableIsEmpty(variable))
            empty += QString::fromLatin1(variable);
    }
    const QString cookies = qEnvironmentVariable("XAUTHORITY");
    report.judge(
            u"variables"_s,
            { { !empty.isEmpty(), Outcome::Warning,
                u"Set to nothing: %1."_s.arg(empty.join(u", "_s)),
                u"That is not the same as not set; an empty XAUTHORITY keeps windows away. Take "
                "them out of the client's settings."_s },
              { !cookies.isEmpty() && !QFileInfo(cookies).isFile(), Outcome::Warning,
                u"XAUTHORITY is %1, which is no file."_s.arg(cookies),
                u"Take it out of the client's settings, or give today's: it changes with each "
                "login on some desktops."_s },
              { true, Outcome::Ok, u"None of the desktop's variables is set to nothing."_s } });
}

void checkSandbox(Report &report)
{
    QStringList signs;
    for (const QString &file : { u"/.flatpak-info"_s, u"/run/.containerenv"_s, u"/.dockerenv"_s }) {
        if (QFileInfo::exists(file))
            signs += file;
    }
    for (const char *variable : { "SNAP", "container" }) {
        if (!qEnvironmentVariableIsEmpty(variable))
            signs += u"%1=%2"_s.arg(QString::fromLatin1(variable), qEnvironmentVariable(variable));
    }
    static const QRegularExpression known(
            u"(?:snap\\.|app-flatpak-|docker|libpod|containerd|kubepods|lxc|machine\\.slice)"
            "[^/\n]*"_s);
    const QString groups = QString::fromLocal8Bit(procText(u"/proc/self/cgroup"_s));
    if (const QRegularExpressionMatch match = known.match(groups); match.hasMatch())
        signs += u"control group "_s + match.captured();
    report.judge(
            u"sandbox"_s,
            { { signs.isEmpty(), Outcome::Ok, u"No sign of Flatpak, Snap or a container."_s },
              { true, Outcome::Warning,
                u"This runs in a sandbox or container (%1)."_s.arg(signs.join(u", "_s)),
                u"Processes and /tmp may be its own, not the host's: an Orrery outside of it is "
                "then not seen. Use a client that is installed without one."_s } });
}

} // namespace

QByteArray procText(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.read(MaxProcBytes) : QByteArray();
}

QString socketPath() { return QDir(QDir::tempPath()).filePath(OrreryControl::pipeName()); }

QString userText(unsigned user)
{
    const passwd *entry = getpwuid(user);
    return u"%1 (%2)"_s.arg(entry ? QString::fromLocal8Bit(entry->pw_name) : u"user"_s,
                            QString::number(user));
}

void checkEnvironment(Report &report)
{
    checkTemporaryFolder(report);
    checkDisplay(report);
    checkVariables(report);
    checkSandbox(report);
}
