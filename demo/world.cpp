#include "world.h"

#include "host.h"

#include <QFileInfo>
#include <QJsonDocument>

#include <unistd.h>

namespace {

constexpr qint64 LeastFreeGB = 1;

QJsonObject settingsOf(const QJsonObject &arguments, const QString &folder)
{
    QJsonObject all = QJsonDocument::fromJson(R"({
        "state": "stopped", "network": "nat", "bridgeInterface": null, "nestedVirt": false,
        "rosetta": false, "linuxNetworkDriver": null, "installerMedia": null, "guestTools": null,
        "attachLinuxGuestTools": false, "sshProvisioned": false, "sharedFolders": [],
        "display": { "width": 720, "height": 400 } })")
                              .object();
    for (const auto &chosen : { "name"_L1, "os"_L1, "cpu"_L1, "ramGB"_L1, "diskGB"_L1 })
        all[chosen] = arguments[chosen];
    const QString image = arguments["image"_L1].toString(smallLinuxId);
    const bool installed = arguments["unattended"_L1].toBool();
    all["id"_L1] = folder;
    all["installed"_L1] = installed;
    if (all["os"_L1] == "linux"_L1)
        all["linuxNetworkDriver"_L1] = u"builtin"_s;
    all[installed ? "guestTools"_L1 : "installerMedia"_L1] = installed ? guestToolsVersion : image;
    return all;
}

} // namespace

std::optional<Answer> refuseHardware(const QJsonObject &settings)
{
    const bool linux = settings["os"_L1].toString() == "linux"_L1;
    const bool rosetta = settings["rosetta"_L1].toBool();
    const bool bridged = settings["network"_L1].toString() == "bridge"_L1;
    const QString driver = settings["linuxNetworkDriver"_L1].toString();
    if (!linux && (rosetta || !driver.isEmpty()))
        return wrong(u"rosetta and linuxNetworkDriver are only for os:linux"_s);
    if (!settings["bridgeInterface"_L1].toString().isEmpty() && !bridged)
        return wrong(u"bridgeInterface is only for network:bridge"_s);
    if (rosetta || settings["nestedVirt"_L1].toBool() || bridged
        || !(driver.isEmpty() || driver == "builtin"_L1))
        return unavailable(
                u"there are only network:nat and the builtin driver, no rosetta, no nestedVirt"_s);
    return {};
}

bool runs(const JobPtr &job) { return (*job)["state"_L1] == "running"_L1; }

World::~World()
{
    for (const MachinePtr &machine : std::as_const(machines)) // some call may still hold it
        machine->qemu.reset();
    if (!place.isEmpty())
        QDir(place).removeRecursively();
}

QString World::open()
{
    const QString path = QDir::temp().filePath(u"orrery-demo-%1"_s.arg(getuid()));
    const QFileInfo left(path);
    if (left.isSymLink() || (left.exists() && !(left.isDir() && left.ownerId() == getuid())))
        return path + " is in the way, and no folder of ours"_L1;
    QDir(path).removeRecursively(); // follows no links
    using enum QFileDevice::Permission;
    if (!QDir().mkdir(path, ReadOwner | WriteOwner | ExeOwner))
        return "cannot make the folder "_L1 + path;
    place = path;
    return {};
}

Later<bool> World::begin()
{
    if (!missingOnHost().isEmpty())
        co_return false;
    const JobPtr job
            = startCreation(object("os"_L1, u"linux"_s, "name"_L1, u"Demo Linux"_s, "cpu"_L1, 1,
                                   "ramGB"_L1, 1, "diskGB"_L1, 8, "unattended"_L1, true,
                                   "username"_L1, u"demo"_s, "password"_L1, u"demo"_s));
    while (runs(job))
        co_await pause(1);
    if (machines.empty())
        co_return false; // the job tells why
    jobs.clear(); // nobody asked for it
    co_await machines.first()->boot();
    co_return true;
}

bool World::isTaken(const QString &name) const
{
    bool taken = false;
    for (const MachinePtr &machine : machines)
        taken |= machine->text("name"_L1) == name;
    for (const JobPtr &job : jobs)
        taken |= runs(job) && (*job)["name"_L1] == name;
    return taken;
}

std::optional<Answer> World::refuseStart(const Machine &machine) const
{
    const int wanted = machine.settings["ramGB"_L1].toInt();
    int given = 0;
    for (const MachinePtr &other : machines)
        given += other->qemu ? other->settings["ramGB"_L1].toInt() : 0;
    const int left = std::max(0, std::min(hostMemoryGB() - given, availableMemoryGB()));
    if (wanted <= left)
        return {};
    const QString lack = u"it needs %1 GiB of memory, and the host has %2 left: stop another VM"_s;
    return unavailable(lack.arg(wanted).arg(left));
}

JobPtr World::startCreation(QJsonObject arguments)
{
    QString name = arguments["name"_L1].toString();
    for (int n = 1; name.isEmpty() || isTaken(name); ++n)
        name = "%1 %2"_L1.arg(arguments["os"_L1].toString(), QString::number(n));
    arguments["name"_L1] = name;
    const QString jobId = u"job-%1"_s.arg(jobs.size() + 1);
    jobs.prepend(std::make_shared<QJsonObject>(object("jobId"_L1, jobId, "kind"_L1, u"create_vm"_s,
                                                      "name"_L1, name, "state"_L1, u"running"_s,
                                                      "progress"_L1, 0, "step"_L1, u"waiting"_s)));
    create(jobs.first(), arguments);
    return jobs.first();
}

void World::advance(const JobPtr &job, int progress, const QString &step)
{
    (*job)["progress"_L1] = progress;
    (*job)["step"_L1] = step;
    sink(u"job_progress"_s, *job);
}

Later<QString> World::create(JobPtr job, QJsonObject arguments)
{
    co_await pause(0); // whoever started it is to see all of it
    const QString name = arguments["name"_L1].toString();
    const QString folder = "%1/%2.vm"_L1.arg(place, name);
    advance(job, 10, u"checking the host"_s);
    const bool room = freeDiskGB(place) >= LeastFreeGB && QDir().mkdir(folder);
    advance(job, 40, u"making the disk"_s);
    const QString disk = u"create -q -f qcow2 disk.qcow2 %1G"_s;
    const Outcome made = co_await diskTool(disk.arg(arguments["diskGB"_L1].toInt()), folder);
    advance(job, 80, u"setting up the system"_s);
    const Outcome key = co_await makeKey(u"tools"_s, folder);
    QFile setup(folder + "/setup"_L1); // for the guest
    const QString lines = "%1\n%2\n%3\n"_L1.arg(arguments["username"_L1].toString(),
                                                arguments["password"_L1].toString(), name);
    const bool written
            = setup.open(QIODevice::WriteOnly) && setup.write(lines.toUtf8()) > 0 && setup.flush();
    const QString error = !room               ? "there is no room in "_L1 + place
                          : !made.succeeded() ? "making the disk failed: "_L1 + made.words()
                          : !key.succeeded()  ? "making a key failed: "_L1 + key.words()
                          : !written          ? setup.errorString()
                                              : QString();
    (*job)["state"_L1] = error.isEmpty() ? u"done"_s : u"failed"_s;
    if (error.isEmpty()) {
        (*job)["vmId"_L1] = folder;
        machines[folder] = std::make_shared<Machine>(folder, settingsOf(arguments, folder));
        machines[folder]->smallLinux = arguments["image"_L1].toString(smallLinuxId) == smallLinuxId;
    } else {
        (*job)["error"_L1] = error;
        QDir(folder).removeRecursively();
    }
    advance(job, error.isEmpty() ? 100 : 80, (*job)["state"_L1].toString());
    co_return error;
}
