#include "world.h"

#include "host.h"
#include "process.h"

#include <QFileInfo>

#include <algorithm>
#include <numeric>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int DiskToolMs = 60'000;
constexpr qint64 LeastFreeGB = 1;
const QString smallLinux = u"small-linux"_s;

QJsonObject settingsOf(const QJsonObject &arguments, const QString &folder)
{
    const bool installed = arguments["unattended"_L1].toBool();
    const QString image = arguments["image"_L1].toString(smallLinux);
    const QString os = arguments["os"_L1].toString();
    return {
        { u"id"_s, folder },
        { u"name"_s, arguments["name"_L1] },
        { u"os"_s, os },
        { u"state"_s, u"stopped"_s },
        { u"cpu"_s, arguments["cpu"_L1] },
        { u"ramGB"_s, arguments["ramGB"_L1] },
        { u"diskGB"_s, arguments["diskGB"_L1] },
        { u"network"_s, u"nat"_s },
        { u"bridgeInterface"_s, QJsonValue::Null },
        { u"nestedVirt"_s, false },
        { u"rosetta"_s, false },
        { u"linuxNetworkDriver"_s, os == "linux"_L1 ? u"builtin"_s : QJsonValue() },
        { u"installerMedia"_s, installed ? QJsonValue() : image },
        { u"installed"_s, installed },
        { u"guestTools"_s, installed ? u"1.0"_s : QJsonValue() },
        { u"attachLinuxGuestTools"_s, false },
        { u"sshProvisioned"_s, false },
        { u"display"_s, QJsonObject { { u"width"_s, 720 }, { u"height"_s, 400 } } },
        { u"sharedFolders"_s, QJsonArray() },
        // not told, but needed to boot it
        { u"smallLinux"_s, image == smallLinux },
        { u"account"_s, installed ? arguments["username"_L1] : QJsonValue() },
    };
}

// The file that the guest reads the password of its account from, at its first boot.
bool writePrivately(const QString &path, const QString &text)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::NewOnly,
                     QFileDevice::ReadOwner | QFileDevice::WriteOwner)
           && file.write(text.toUtf8()) == text.toUtf8().size() && file.flush();
}

} // namespace

QJsonArray images()
{
    if (!missingOnHost().isEmpty())
        return {};
    QFile file(guestFile(u"version"_s));
    const QString version = file.open(QIODevice::ReadOnly)
                                    ? QString::fromUtf8(file.readAll()).trimmed()
                                    : QString();
    return { QJsonObject { { u"imageId"_s, smallLinux },
                           { u"os"_s, u"linux"_s },
                           { u"version"_s, "Small Linux "_L1 + version },
                           { u"downloaded"_s, true } } };
}

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
    machines.clear();
    if (!place.isEmpty())
        QDir(place).removeRecursively();
}

QString World::open()
{
    const QString path = QDir::temp().filePath(u"orrery-demo-%1"_s.arg(getuid()));
    const QByteArray name = path.toLocal8Bit();
    struct stat found
    {
    };
    if (lstat(name.constData(), &found) == 0) {
        const bool ours = S_ISDIR(found.st_mode) && found.st_uid == getuid()
                          && (found.st_mode & 0777) == 0700;
        if (!ours)
            return path + " is in the way, and no folder of ours"_L1;
        QDir(path).removeRecursively(); // follows no links
    }
    if (mkdir(name.constData(), 0700) != 0)
        return "cannot make the folder "_L1 + path;
    place = path;
    return {};
}

Later<bool> World::begin()
{
    const JobPtr job = startCreation({ { u"os"_s, u"linux"_s },
                                       { u"name"_s, u"Demo Linux"_s },
                                       { u"cpu"_s, 1 },
                                       { u"ramGB"_s, 1 },
                                       { u"diskGB"_s, 8 },
                                       { u"unattended"_s, true },
                                       { u"username"_s, u"demo"_s },
                                       { u"password"_s, u"demo"_s } });
    while (job->runs())
        co_await pause(1);
    jobs.clear(); // nobody asked for it
    if (!machines.empty())
        co_await machines.front()->boot();
    co_return !machines.empty();
}

MachinePtr World::findMachine(const QString &id) const
{
    const auto it = std::find_if(machines.begin(), machines.end(), [&](const MachinePtr &machine) {
        return machine->text("id"_L1) == id;
    });
    return it == machines.end() ? nullptr : *it;
}

JobPtr World::findJob(const QString &jobId) const
{
    const auto it = std::find_if(jobs.begin(), jobs.end(), [&](const JobPtr &job) {
        return job->status["jobId"_L1] == jobId;
    });
    return it == jobs.end() ? nullptr : *it;
}

bool World::isTaken(const QString &name) const
{
    return std::any_of(machines.begin(), machines.end(),
                       [&](const auto &machine) { return machine->text("name"_L1) == name; })
           || std::any_of(jobs.begin(), jobs.end(), [&](const JobPtr &job) {
                  return job->runs() && job->status["name"_L1] == name;
              });
}

std::optional<Answer> World::refuseStart(const Machine &machine) const
{
    const int wanted = machine.settings["ramGB"_L1].toInt();
    const int given = std::accumulate(
            machines.begin(), machines.end(), 0, [](int sum, const MachinePtr &other) {
                return other->qemu ? sum + other->settings["ramGB"_L1].toInt() : sum;
            });
    const int left = std::min(hostMemoryGB() - given, static_cast<int>(availableMemoryGB()));
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
    job->status = { { u"jobId"_s, u"job-%1"_s.arg(++lastNumber) },
                    { u"kind"_s, u"create_vm"_s },
                    { u"name"_s, name },
                    { u"state"_s, u"running"_s },
                    { u"progress"_s, 0 } };
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

Later<bool> World::create(JobPtr job)
{
    co_await pause(0); // whoever started it is to see all of it
    const QString folder = "%1/%2.vm"_L1.arg(place, job->status["name"_L1].toString());
    QString error;
    advance(*job, 10, u"checking the host"_s);
    if (freeDiskGB(place) < LeastFreeGB)
        error = u"less than %1 GiB is free in %2"_s.arg(LeastFreeGB).arg(place);
    else if (!QDir().mkdir(folder))
        error = "cannot make the folder "_L1 + folder;
    if (error.isEmpty()) {
        advance(*job, 40, u"making the disk"_s);
        const QString size = u"%1G"_s.arg(job->arguments["diskGB"_L1].toInt());
        const Later<Outcome> making = run(
                u"qemu-img"_s,
                { u"create"_s, u"-q"_s, u"-f"_s, u"qcow2"_s, folder + "/disk.qcow2"_L1, size },
                DiskToolMs);
        const Outcome made = co_await making;
        error = made.succeeded() ? QString() : "making the disk failed: "_L1 + made.words();
    }
    if (error.isEmpty()) {
        advance(*job, 80, u"setting up the system"_s);
        if (!writePrivately(folder + "/password"_L1, job->arguments["password"_L1].toString()))
            error = "cannot write in "_L1 + folder;
    }
    job->status["state"_L1] = error.isEmpty() ? u"done"_s : u"failed"_s;
    if (error.isEmpty()) {
        machines.push_back(std::make_shared<Machine>(folder, settingsOf(job->arguments, folder)));
        job->status["vmId"_L1] = folder;
        advance(*job, 100, u"done"_s);
    } else {
        QDir(folder).removeRecursively();
        job->status["error"_L1] = error;
        advance(*job, job->status["progress"_L1].toInt(), u"failed"_s);
    }
    job->arguments.remove("password"_L1);
    co_return error.isEmpty();
}
