#include "checks.h"
#include "host_process.h"
#include "orrery_control.h"
#include "report.h"

#include <QFile>
#include <QFileInfo>

using namespace Qt::StringLiterals;

namespace {

bool isElf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly)
           && file.read(4)
                      == "\x7f"
                         "ELF";
}

// Whether a program beside this one is there and can be started; reports it if not.
bool isStartable(Report &report, const QString &name, const QString &path)
{
    const QFileInfo file(path);
    if (!file.exists())
        report.fault(name, u"There is no %1."_s.arg(path),
                     u"The server and the application must lie side by side: install both into "
                     "one folder, or use the server of the folder where Orrery is."_s);
    else if (!file.isFile())
        report.fault(name, u"%1 is not a file."_s.arg(path), u"Install it again."_s);
    else if (!file.isExecutable())
        report.fault(name, u"%1 may not be executed."_s.arg(path),
                     u"Make it executable (chmod +x), or install it again; a file system mounted "
                     "noexec does not do."_s);
    else
        return true;
    return false;
}

void checkServer(Report &report)
{
    const QString path = OrreryControl::siblingPath(u"orrery-mcp"_s);
    if (isStartable(report, u"server"_s, path))
        report.ok(u"server"_s, path);
}

void checkApplicationFile(Report &report)
{
    const QString name = u"application"_s;
    const QString path = HostProcess::appExe();
    if (!isStartable(report, name, path))
        return;
    // A running script is its interpreter's process, and so never found nor trusted.
    if (!isElf(path))
        report.warn(name, u"%1 is a script or the like, not a program."_s.arg(path),
                    u"The server recognises only a process that runs this very file: put the "
                    "program itself there, or a link to it."_s);
    else
        report.ok(name, path);
}

// Why APPIMAGE and APPDIR are not believed; empty when they name an image of another program, as
// they do under a client that is an AppImage itself.
QString brokenAppImage(const QString &image, const QString &folder)
{
    if (image.isEmpty() || folder.isEmpty())
        return u"only one of the two is set"_s;
    const QString canonicalFolder = QFileInfo(folder).canonicalFilePath();
    if (canonicalFolder.isEmpty())
        return u"APPDIR does not exist"_s;
    const QString own = QFileInfo(OrreryControl::siblingPath(u"."_s)).canonicalFilePath();
    const bool inside = (own + u'/').startsWith(canonicalFolder + u'/');
    return inside ? u"the image file is not there"_s : QString();
}

void checkAppImage(Report &report)
{
    const QString name = u"appimage"_s;
    const QString image = qEnvironmentVariable("APPIMAGE");
    const QString folder = qEnvironmentVariable("APPDIR");
    const QString variables = u"APPIMAGE=%1, APPDIR=%2"_s.arg(image, folder);
    if (const QString own = OrreryControl::ownAppImage(); !own.isEmpty()) {
        report.ok(name, u"This runs from %1, which is what gets launched."_s.arg(own));
    } else if (image.isEmpty() && folder.isEmpty()) {
        report.ok(name, u"This runs from no AppImage."_s);
    } else if (const QString why = brokenAppImage(image, folder); !why.isEmpty()) {
        report.warn(name, u"%1: not believed, because %2."_s.arg(variables, why),
                    u"Start it from the image again; if this is no AppImage, unset both."_s);
    } else {
        report.ok(name, u"%1: another program's AppImage, of which this is no part; ignored."_s.arg(
                                variables));
    }
}

} // namespace

void checkInstallation(Report &report)
{
    checkServer(report);
    checkApplicationFile(report);
    checkAppImage(report);
}
