#include "world.h"

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr int JobStepMs = 400;
constexpr auto JobSteps = { "checking the image", "making the disk",    "copying the system",
                            "copying the system", "setting up devices", "finishing" };

QString newestImage(const QString &os)
{
    const QJsonArray images = imagesFor(os == "macOS"_L1);
    const auto found = std::find_if(images.begin(), images.end(),
                                    [&](const auto &image) { return image["os"_L1] == os; });
    return found == images.end() ? QString() : (*found)["imageId"_L1].toString();
}

} // namespace

QJsonArray imagesFor(bool macOS)
{
    const auto image = [](const QString &id, const QString &os, const QString &version, bool here) {
        return QJsonObject { { u"imageId"_s, id },
                             { u"os"_s, os },
                             { u"version"_s, version },
                             { u"downloaded"_s, here } };
    };
    if (macOS)
        return { image(u"macos-15.1"_s, u"macOS"_s, u"15.1"_s, true),
                 image(u"macos-14.6"_s, u"macOS"_s, u"14.6"_s, false) };
    return { image(u"ubuntu-24.04"_s, u"linux"_s, u"Ubuntu 24.04"_s, false),
             image(u"debian-12"_s, u"linux"_s, u"Debian 12"_s, true),
             image(u"windows-11"_s, u"windows"_s, u"Windows 11"_s, false) };
}

QStringList bridgeInterfaces() { return { u"eth0"_s, u"wlan0"_s }; }

QString hardwareComplaint(const QJsonObject &settings)
{
    const bool linux = settings["os"_L1].toString() == "linux"_L1;
    const bool bridged = settings["network"_L1].toString() == "bridge"_L1;
    const QString driver = settings["linuxNetworkDriver"_L1].toString();
    const QString bridge = settings["bridgeInterface"_L1].toString();
    if (!linux && (settings["rosetta"_L1].toBool() || !driver.isEmpty()))
        return u"rosetta and linuxNetworkDriver are only for os:linux"_s;
    if (settings["rosetta"_L1].toBool())
        return u"this host has no rosetta (host_capabilities)"_s;
    if (!bridge.isEmpty() && !bridged)
        return u"bridgeInterface is only for network:bridge"_s;
    if (!bridge.isEmpty() && !bridgeInterfaces().contains(bridge))
        return u"there is no interface %1 (host_capabilities)"_s.arg(bridge);
    return {};
}

bool Job::runs() const { return status["state"_L1].toString() == "running"_L1; }

World::World(EventSink eventSink) : sink(std::move(eventSink))
{
    const auto add = [this](const QString &os, const QString &name, const auto &state, bool tools) {
        addMachine({ { u"os"_s, os },
                     { u"name"_s, name },
                     { u"cpu"_s, 4 },
                     { u"ramGB"_s, 8 },
                     { u"diskGB"_s, 64 },
                     { u"network"_s, u"nat"_s },
                     { u"unattended"_s, tools } })
                .setState(state);
    };
    add(u"linux"_s, u"Debian 12"_s, "running"_L1, true);
    add(u"windows"_s, u"Windows 11"_s, "stopped"_L1, false);
    add(u"macOS"_s, u"macOS 15"_s, "suspended"_L1, true);
}

Machine *World::findMachine(const QString &id)
{
    const auto it = std::find_if(machines.begin(), machines.end(), [&](const Machine &machine) {
        return machine.text("id"_L1) == id;
    });
    return it == machines.end() ? nullptr : &*it;
}

Job *World::findJob(const QString &jobId)
{
    const auto it = std::find_if(jobs.begin(), jobs.end(),
                                 [&](const Job &job) { return job.status["jobId"_L1] == jobId; });
    return it == jobs.end() ? nullptr : &*it;
}

Machine &World::addMachine(QJsonObject arguments)
{
    const QString os = arguments["os"_L1].toString();
    if (!arguments.contains("image"_L1))
        arguments["image"_L1] = newestImage(os);
    if (!arguments.contains("bridgeInterface"_L1))
        arguments["bridgeInterface"_L1] = bridgeInterfaces().first();
    machines.push_back(Machine::created(arguments));
    return machines.back();
}

bool World::isTaken(const QString &name) const
{
    return std::any_of(machines.begin(), machines.end(),
                       [&](const Machine &machine) { return machine.text("name"_L1) == name; })
           || std::any_of(jobs.begin(), jobs.end(), [&](const Job &job) {
                  return job.runs() && job.status["name"_L1] == name;
              });
}

bool World::lacksNetworking(const QJsonObject &settings) const
{
    return !networkingInstalled
           && (settings["network"_L1].toString() == "bridge"_L1
               || settings["linuxNetworkDriver"_L1].toString() == "service"_L1);
}

const Job &World::startCreation(QJsonObject arguments)
{
    QString name = arguments["name"_L1].toString();
    while (name.isEmpty() || isTaken(name))
        name = "%1 %2"_L1.arg(arguments["os"_L1].toString(), QString::number(newNumber()));
    arguments["name"_L1] = name;
    jobs.push_front({ { { u"jobId"_s, u"job-%1"_s.arg(newNumber()) },
                        { u"kind"_s, u"create_vm"_s },
                        { u"name"_s, name },
                        { u"state"_s, u"running"_s },
                        { u"progress"_s, 0 } },
                      arguments,
                      {} });
    jobs.front().age.start();
    return jobs.front();
}

void World::advance(Job &job)
{
    const auto steps = static_cast<qint64>(JobSteps.size());
    const qint64 step = std::min(job.age.elapsed() / JobStepMs, steps);
    const qint64 progress = 100 * step / steps;
    if (progress == job.status["progress"_L1].toInteger() && job.status.contains("step"_L1))
        return;
    job.status["progress"_L1] = progress;
    job.status["step"_L1] = step < steps ? QString::fromLatin1(JobSteps.begin()[step]) : u"done"_s;
    if (step == steps) {
        job.status["state"_L1] = u"done"_s;
        job.status["vmId"_L1] = addMachine(job.arguments).text("id"_L1);
    }
    sink(u"job_progress"_s, job.status);
}

void World::tick()
{
    for (Job &job : jobs) {
        if (job.runs())
            advance(job);
    }
}

Answer World::watch(const Machine &machine, int seconds, Look look)
{
    const QString id = machine.text("id"_L1);
    return until(seconds * 1'000LL,
                 [=, this, look = std::move(look)](bool timeUp) -> std::optional<Answer> {
                     const Machine *now = findMachine(id);
                     return now ? look(*now, timeUp)
                                : fail(u"not_found"_s, "there is no VM any more: "_L1 + id);
                 });
}
