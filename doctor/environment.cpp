#include "checks.h"
#include "orrery_control.h"
#include "report.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include <sys/stat.h>
#include <sys/un.h>

using namespace Qt::StringLiterals;

namespace {

constexpr qint64 MaxProcBytes = 1'048'576;

// A file of /proc, whose size is not known before it is read.
QByteArray contents(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.read(MaxProcBytes) : QByteArray();
}

void checkTemporaryFolder(Report &report)
{
    const QString name = u"tmpdir"_s;
    const QString variable = qEnvironmentVariable("TMPDIR");
    const QString folder = QDir::tempPath();
    const QString socket = folder + u'/' + OrreryControl::pipeName();
    const QFileInfo info(folder);
    const QString finding
            = !variable.isEmpty()
                      ? u"TMPDIR is %1"_s.arg(variable)
                      : u"TMPDIR is %1, so %2 is used"_s.arg(
                              variable.isNull() ? u"not set"_s : u"set to nothing"_s, folder);
    if (!info.isDir())
        report.fault(name, finding + u", which is no folder."_s,
                     u"Unset TMPDIR, or set it to the folder that Orrery uses."_s);
    else if (socket.toLocal8Bit().size() >= qsizetype(sizeof(sockaddr_un::sun_path)))
        report.fault(name, finding + u", too long a path for a socket in it."_s,
                     u"Use a shorter one, for Orrery and for the client."_s);
    else if (!variable.isEmpty() && QDir::isRelativePath(variable))
        report.warn(name, finding + u", relative to wherever a program is started."_s,
                    u"Set it to an absolute path."_s);
    else if (!info.isWritable() || !info.isExecutable())
        report.warn(name, finding + u", where you may not make files."_s,
                    u"An application that is launched could not make its socket: unset TMPDIR."_s);
    else
        report.ok(name, finding + u'.');
}

bool isSocket(const QString &path)
{
    struct stat status
    {
    };
    return stat(path.toLocal8Bit().constData(), &status) == 0 && S_ISSOCK(status.st_mode);
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
                        || contents(u"/proc/net/unix"_s).contains('@' + path.toLocal8Bit() + '\n');
    return { u"DISPLAY=%1 (%2%3)"_s.arg(name, path, usable ? u""_s : u" is no socket"_s), usable };
}

void checkDisplay(Report &report)
{
    const QString name = u"display"_s;
    const QString advice = u"An application that is launched from here shows no window and may "
                           "end at once: start Orrery on the desktop first, or pass DISPLAY or "
                           "WAYLAND_DISPLAY and XDG_RUNTIME_DIR on in the client's settings."_s;
    QList<Display> displays;
    if (const QString wayland = qEnvironmentVariable("WAYLAND_DISPLAY"); !wayland.isEmpty())
        displays += waylandDisplay(wayland);
    if (const QString x = qEnvironmentVariable("DISPLAY"); !x.isEmpty())
        displays += xDisplay(x);
    if (displays.isEmpty()) {
        report.warn(name, u"Neither WAYLAND_DISPLAY nor DISPLAY is set."_s, advice);
        return;
    }
    QStringList texts;
    bool usable = false;
    for (const Display &display : std::as_const(displays)) {
        texts += display.text;
        usable = usable || display.usable;
    }
    if (usable)
        report.ok(name, texts.join(u", "_s) + u'.');
    else
        report.warn(name, texts.join(u", "_s) + u'.', advice);
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
    if (!empty.isEmpty())
        report.warn(u"variables"_s, u"Set to nothing: %1."_s.arg(empty.join(u", "_s)),
                    u"That is not the same as not set; an empty XAUTHORITY keeps windows away. "
                    "Take them out of the client's settings."_s);
    else if (!cookies.isEmpty() && !QFileInfo(cookies).isFile())
        report.warn(u"variables"_s, u"XAUTHORITY is %1, which is no file."_s.arg(cookies),
                    u"Take it out of the client's settings, or give today's: it changes with "
                    "each login on some desktops."_s);
    else
        report.ok(u"variables"_s, u"None of the desktop's variables is set to nothing."_s);
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
    const QString groups = QString::fromLocal8Bit(contents(u"/proc/self/cgroup"_s));
    if (const QRegularExpressionMatch match = known.match(groups); match.hasMatch())
        signs += u"control group "_s + match.captured();
    if (signs.isEmpty())
        report.ok(u"sandbox"_s, u"No sign of Flatpak, Snap or a container."_s);
    else
        report.warn(u"sandbox"_s,
                    u"This runs in a sandbox or container (%1)."_s.arg(signs.join(u", "_s)),
                    u"Processes and /tmp may be its own, not the host's: an Orrery outside of it "
                    "is then not seen. Use a client that is installed without one."_s);
}

} // namespace

void checkEnvironment(Report &report)
{
    checkTemporaryFolder(report);
    checkDisplay(report);
    checkVariables(report);
    checkSandbox(report);
}
