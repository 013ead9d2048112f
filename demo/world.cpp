#include "world.h"

#include "host.h"

#include <QFileInfo>
#include <QJsonDocument>

#include <unistd.h>

using namespace Qt::StringLiterals;

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
    const QString image = arguments["image"_L1].toString(smallLinux);
    const bool installed = arguments["unattended"_L1].toBool();
    all["id"_L1] = folder;
    all["installed"_L1] = installed;
    if (all["os"_L1] == "linux"_L1)
        all["linuxNetworkDriver"_L1] = u"builtin"_s;
    all[installed ? "guestTools"_L1 : "installerMedia"_L1] = installed ? guestToolsVersion : image;
    all["smallLinux"_L1] = image == smallLinux; // from here on what is not told
    all["account"_L1] = arguments["username"_L1];
    return all;
}

} // namespace

std::optional<Answer> refuseHardware(const QJsonObject &settings)
{
    const bool linux = settings["os"_L1].toString() == "linux"_L1;
    const bool bridged = settings["network"_L1].toString() == "bridge"_L1;
    const QString driver = settings["linuxNetworkDriver"_L1].toString();
    if (!linux && (settings["rosetta"_L1].toBool() || !driver.isEmpty()))
        return wrong(u"rosetta and linuxNetworkDriver are only for os:linux"_s);
    if (!settings["bridgeInterface"_L1].toString().isEmpty() && !bridged)
        return wrong(u"bridgeInterface is only for network:bridge"_s);
    if (settings["rosetta"_L1].toBool() || settings["nestedVirt"_L1].toBool())
        return unavailable(u"this host has no rosetta and no nestedVirt (host_capabilities)"_s);
    if (bridged || !(driver.isEmpty() || driver == "builtin"_L1))
        return unavailable(u"the demonstration has no networking service, only nat and builtin"_s);
    return {};
}

bool Job::runs() const { return status["state"_L1].toString() == "running"_L1; }

World::~World()
{
    for (const MachinePtr &machine : machines) // some call may still hold it
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
    while (job->runs())
        co_await pause(1);
    jobs.clear(); // nobody asked for it
    if (!machines.empty())
        co_await machines.front()->boot();
    co_return true;
}

MachinePtr World::findMachine(const QString &id) const
{
    for (const MachinePtr &machine : machines) {
        if (machine->text("id"_L1) == id)
            return machine;
    }
    return {};
}

JobPtr World::findJob(const QString &jobId) const
{
    for (const JobPtr &job : jobs) {
        if (job->status["jobId"_L1] == jobId)
            return job;
    }
    return {};
}

bool World::isTaken(const QString &name) const
{
    bool taken = false;
    for (const MachinePtr &machine : machines)
        taken |= machine->text("name"_L1) == name;
    for (const JobPtr &job : jobs)
        taken |= job->runs() && job->status["name"_L1] == name;
    return taken;
}

std::optional<Answer> World::refuseStart(const Machine &machine) const
{
    const int wanted = machine.settings["ramGB"_L1].toInt();
    int given = 0;
    for (const MachinePtr &other : machines)
        given += other->qemu ? other->settings["ramGB"_L1].toInt() : 0;
    const int left = std::min(hostMemoryGB() - given, availableMemoryGB());
    if (wanted <= left)
        return {};
    return unavailable(
            u"it needs %1 GiB of memory, and the host has %2 left: stop another VM"_s.arg(wanted)
                    .arg(std::max(0, left)));
}

JobPtr World::startCreation(QJsonObject arguments)
{
    QString name = arguments["name"_L1].toString();
    while (name.isEmpty() || isTaken(name))
        name = "%1 %2"_L1.arg(arguments["os"_L1].toString(), QString::number(++lastNumber));
    arguments["name"_L1] = name;
    const auto job = std::make_shared<Job>();
    job->status = object("jobId"_L1, u"job-%1"_s.arg(++lastNumber), "kind"_L1, u"create_vm"_s,
                         "name"_L1, name, "state"_L1, u"running"_s, "progress"_L1, 0);
    job->arguments = arguments;
    jobs.push_front(job);
    create(job);
    return job;
}

void World::advance(Job &job, int progress, const QString &step)
{
    job.status["progress"_L1] = progress;
    job.status["step"_L1] = step;
    sink(u"job_progress"_s, job.status);
}

// What speaks against the machine, or nothing; the folder is left to the caller.
Later<QString> World::build(JobPtr job, QString folder)
{
    advance(*job, 10, u"checking the host"_s);
    if (freeDiskGB(place) < LeastFreeGB)
        co_return u"less than %1 GiB is free in %2"_s.arg(LeastFreeGB).arg(place);
    if (!QDir().mkdir(folder))
        co_return "cannot make the folder "_L1 + folder;
    advance(*job, 40, u"making the disk"_s);
    const QString words = u"create -q -f qcow2 disk.qcow2 %1G"_s;
    const QString size = words.arg(job->arguments["diskGB"_L1].toInt());
    const Outcome made = co_await run(u"qemu-img"_s, size.split(u' '), folder);
    if (!made.succeeded())
        co_return "making the disk failed: "_L1 + made.words();
    advance(*job, 80, u"setting up the system"_s);
    QFile password(folder + "/password"_L1); // for the guest, at its first boot
    if (!password.open(QIODevice::WriteOnly)
        || password.write(job->arguments["password"_L1].toString().toUtf8()) < 0)
        co_return password.errorString();
    co_return {};
}

Later<bool> World::create(JobPtr job)
{
    co_await pause(0); // whoever started it is to see all of it
    const QString folder = "%1/%2.vm"_L1.arg(place, job->status["name"_L1].toString());
    const QString error = co_await build(job, folder);
    job->status["state"_L1] = error.isEmpty() ? u"done"_s : u"failed"_s;
    if (error.isEmpty()) {
        machines.push_back(std::make_shared<Machine>(folder, settingsOf(job->arguments, folder)));
        job->status["vmId"_L1] = folder;
    } else {
        QDir(folder).removeRecursively();
        job->status["error"_L1] = error;
    }
    job->arguments.remove("password"_L1);
    advance(*job, error.isEmpty() ? 100 : job->status["progress"_L1].toInt(),
            job->status["state"_L1].toString());
    co_return error.isEmpty();
}
