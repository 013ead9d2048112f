#include "host_process.h"

#include "orrery_control.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <climits>
#include <csignal>
#include <filesystem>
#include <limits>

#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

enum class Sought { Ours, HiddenOurs, Others };

QString appName() { return OrreryControl::exeName(u"orrery"_s); }

// Whether the kernel does not tell us which file a process executes, and calls it as ours; one that
// has just ended executes none.
bool isHiddenNamesake(const QString &pid)
{
    std::error_code error;
    (void)std::filesystem::read_symlink(("/proc/"_L1 + pid + "/exe"_L1).toStdString(), error);
    QFile name("/proc/"_L1 + pid + "/comm"_L1);
    return error == std::errc::permission_denied && name.open(QIODevice::ReadOnly)
           && name.readLine().trimmed() == appName().toLocal8Bit();
}

// The first processes of the application in listing order, at most limit of them: looking at a
// process can mean comparing files.
QList<unsigned long> search(qsizetype limit, Sought sought)
{
    const QString app = HostProcess::appExe();
    const QString appPath = app.isEmpty() ? QString() : QFileInfo(app).canonicalFilePath();
    if (appPath.isEmpty())
        return {};

    QList<unsigned long> found;
    const QStringList entries
            = QDir(u"/proc"_s).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::NoSort);
    for (const QString &entry : entries) {
        bool isPid = false;
        const unsigned long pid = entry.toULong(&isPid);
        if (!isPid)
            continue;
        struct stat status
        {
        };
        if (stat(("/proc/"_L1 + entry).toLocal8Bit().constData(), &status) != 0
            || (status.st_uid == getuid()) == (sought == Sought::Others))
            continue;
        if ((sought != Sought::HiddenOurs && OrreryControl::processImagePath(pid) == appPath)
            || (sought != Sought::Ours && isHiddenNamesake(entry)))
            found += pid;
        if (found.size() == limit)
            break;
    }
    return found;
}

} // namespace

namespace HostProcess {

QString appExe() { return OrreryControl::siblingPath(appName()); }

bool isApp(unsigned long pid) { return OrreryControl::isSiblingProcess(pid, appName()); }

unsigned long findApp() { return search(1, Sought::Ours).value(0); }

QList<unsigned long> findApps()
{
    return search(std::numeric_limits<qsizetype>::max(), Sought::Ours);
}

unsigned long findForeignApp()
{
    const unsigned long hidden = search(1, Sought::HiddenOurs).value(0);
    return hidden != 0 ? hidden : search(1, Sought::Others).value(0);
}

QString exeVersion([[maybe_unused]] const QString &path, const QString &key)
{
    if (key == "ProductVersion"_L1)
        return QStringLiteral(ORRERY_VERSION);
    return QString::number(ORRERY_BUILD);
}

void binaryStdout() { }

void binaryStdin() { }

Handle::Handle(unsigned long pid)
{
    // A larger number would be cut to a pid_t, and so mean some other process.
    if (pid == 0 || pid > INT_MAX)
        return;
    const long descriptor = syscall(SYS_pidfd_open, static_cast<pid_t>(pid), 0);
    if (descriptor >= 0)
        descriptorPlusOne = static_cast<quint64>(descriptor) + 1;
}

Handle::~Handle()
{
    if (isValid())
        close(descriptor());
}

bool Handle::isValid() const { return descriptorPlusOne != 0; }

int Handle::descriptor() const { return static_cast<int>(descriptorPlusOne) - 1; }

bool Handle::waitExit(int ms)
{
    if (!isValid())
        return false;
    pollfd process { descriptor(), POLLIN, 0 };
    return poll(&process, 1, ms) == 1;
}

void Handle::terminate()
{
    if (isValid())
        syscall(SYS_pidfd_send_signal, descriptor(), SIGKILL, nullptr, 0);
}

} // namespace HostProcess
