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
    return file.open(QIODevice::ReadOnly) && file.read(4) == "\177ELF";
}

// Adds what keeps a program from being started; true when there is such a thing.
bool isBroken(Report &report, const QString &name, const QString &path)
{
    const QFileInfo file(path);
    return report.judge(
            name,
            { { !file.isFile(), Outcome::Fault, u"There is no file %1."_s.arg(path),
                u"The server and the application must lie side by side: install both into one "
                "folder, or use the server of the folder where Orrery is."_s },
              { !file.isExecutable(), Outcome::Fault, u"%1 may not be executed."_s.arg(path),
                u"Make it executable (chmod +x), or install it again; a file system mounted "
                "noexec does not do."_s } });
}

void checkApplicationFile(Report &report)
{
    const QString name = u"application"_s;
    const QString path = HostProcess::appExe();
    if (isBroken(report, name, path))
        return;
    report.judge(
            name,
            { // Linux then hides from the user, too, what such a process runs.
              { !QFileInfo(path).isReadable(), Outcome::Fault,
                u"%1 may be executed, but not read: its process would not be recognised."_s.arg(
                        path),
                u"Let everybody read it (chmod a+r), or install it again."_s },
              // A running script is its interpreter's process.
              { !isElf(path), Outcome::Fault,
                u"%1 is no program: a script, or damaged."_s.arg(path),
                u"The server trusts only a process that runs this very file: put the program "
                "itself there, or a link to it."_s },
              { true, Outcome::Ok, path } });
}

void checkAppImage(Report &report)
{
    const QString name = u"appimage"_s;
    const QString image = qEnvironmentVariable("APPIMAGE");
    const QString folder = qEnvironmentVariable("APPDIR");
    const QString variables = u"APPIMAGE=%1, APPDIR=%2"_s.arg(image, folder);
    const QString own = OrreryControl::ownAppImage();
    if (!own.isEmpty() && isBroken(report, name, own))
        return;
    report.judge(name,
                 { { !own.isEmpty(), Outcome::Ok,
                     u"This runs from %1, which is what gets launched."_s.arg(own) },
                   { image.isEmpty() && folder.isEmpty(), Outcome::Ok,
                     u"This runs from no AppImage."_s },
                   { OrreryControl::isInsideAppDir(), Outcome::Warning,
                     u"%1: this runs from there, but the image file is not there."_s.arg(variables),
                     u"Start it from the image again; if this is no AppImage, unset both."_s },
                   { true, Outcome::Ok,
                     u"%1: another program's AppImage, of which this is no part; ignored."_s.arg(
                             variables) } });
}

} // namespace

QString serverPath() { return OrreryControl::siblingPath(u"orrery-mcp"_s); }

void checkInstallation(Report &report)
{
    if (!isBroken(report, u"server"_s, serverPath()))
        report.judge(u"server"_s, { { true, Outcome::Ok, serverPath() } });
    checkApplicationFile(report);
    checkAppImage(report);
}
