// Machines from creation to deletion, and the jobs that create them.

#include "tools.h"

#include <QDateTime>
#include <QFileInfo>
#include <QRegularExpression>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr int ShutdownMs = 1'000;
constexpr int MaxLogLines = 200;

Answer listVms(World &world, const QJsonObject &)
{
    QJsonArray vms;
    for (const Machine &machine : world.machines)
        vms.append(machine.pick({ "id"_L1, "name"_L1, "os"_L1, "state"_L1 }));
    return ok({ { u"vms"_s, vms } });
}

Answer getVm(World &, Machine &machine, const QJsonObject &) { return ok(machine.settings); }

QString accountComplaint(const QJsonObject &arguments)
{
    const auto has = [&](QLatin1StringView name) { return arguments.contains(name); };
    const QString os = arguments["os"_L1].toString();
    const bool unattended = arguments["unattended"_L1].toBool();
    if (unattended && os == "macOS"_L1)
        return u"unattended is only for os:linux and os:windows"_s;
    if (unattended && !(has("username"_L1) && has("password"_L1)))
        return u"unattended:true needs username and password"_s;
    if (!unattended && (has("username"_L1) || has("password"_L1)))
        return u"username and password are only for unattended:true"_s;
    if (!has("userData"_L1) && !has("userDataPath"_L1))
        return {};
    if (os != "linux"_L1 || !unattended)
        return u"user data is only for os:linux with unattended:true"_s;
    if (has("userData"_L1) && has("userDataPath"_L1))
        return u"give userData or userDataPath, not both"_s;
    if (has("userDataPath"_L1) && !QFileInfo(arguments["userDataPath"_L1].toString()).isFile())
        return u"userDataPath is not a file on the host"_s;
    return {};
}

QString imageComplaint(const QJsonObject &arguments)
{
    const bool macOS = arguments["os"_L1].toString() == "macOS"_L1;
    const QString image = arguments["image"_L1].toString();
    const QJsonArray images = imagesFor(macOS);
    const bool listed = std::any_of(images.begin(), images.end(), [&](const QJsonValue &known) {
        return known["imageId"_L1] == image && known["os"_L1] == arguments["os"_L1];
    });
    const QFileInfo file(image);
    const bool isFile
            = file.isAbsolute() && file.isFile() && file.suffix() == (macOS ? "ipsw"_L1 : "iso"_L1);
    if (isFile && arguments["unattended"_L1].toBool())
        return u"unattended:true needs a listed image (list_images)"_s;
    return listed || isFile ? QString() : "there is no image for this os: "_L1 + image;
}

QString creationComplaint(const World &world, const QJsonObject &arguments)
{
    const QString name = arguments["name"_L1].toString();
    if (world.isTaken(name))
        return u"the name %1 is taken"_s.arg(name);
    if (const QString complaint = accountComplaint(arguments); !complaint.isEmpty())
        return complaint;
    if (arguments.contains("linuxExperience"_L1) && arguments["os"_L1].toString() != "linux"_L1)
        return u"linuxExperience is only for os:linux"_s;
    if (arguments.contains("image"_L1)) {
        if (const QString complaint = imageComplaint(arguments); !complaint.isEmpty())
            return complaint;
    }
    return hardwareComplaint(arguments);
}

Answer createVm(World &world, const QJsonObject &arguments)
{
    if (const QString complaint = creationComplaint(world, arguments); !complaint.isEmpty())
        return wrong(complaint);
    if (world.lacksNetworking(arguments))
        return noNetworking();
    const Job &job = world.startCreation(arguments);
    if (arguments["async"_L1].toBool())
        return ok({ { u"jobId"_s, job.status["jobId"_L1] } });
    return { {}, [&world, &job]() -> std::optional<Answer> {
                if (job.runs())
                    return {};
                const Machine *machine = world.findMachine(job.status["vmId"_L1].toString());
                return machine ? ok(machine->settings) : unavailable();
            } };
}

Answer jobStatus(World &, Job &job, const QJsonObject &) { return ok(job.status); }

Answer jobWait(World &, Job &job, const QJsonObject &arguments)
{
    const qint64 limit = arguments["timeoutSeconds"_L1].toInteger(120) * 1'000;
    return until(limit, [&job](bool timeUp) -> std::optional<Answer> {
        if (job.runs() && !timeUp)
            return {};
        return ok(job.status);
    });
}

Answer listJobs(World &world, const QJsonObject &)
{
    QJsonArray all;
    for (const Job &job : world.jobs)
        all.append(job.status);
    return ok({ { u"jobs"_s, all } });
}

Answer startVm(World &world, Machine &machine, const QJsonObject &)
{
    if (world.lacksNetworking(machine.settings))
        return noNetworking();
    if (!machine.is("running"_L1))
        machine.setState("running"_L1);
    return ok(machine.pick({ "id"_L1, "state"_L1 }));
}

Answer stopVm(World &world, Machine &machine, const QJsonObject &arguments)
{
    const bool force = arguments["mode"_L1].toString() == "force"_L1;
    if (machine.is("suspended"_L1) && !force)
        return fail(u"wrong_state"_s, u"the VM is suspended; only mode:force stops it"_s);
    const auto stop = [&world, id = machine.text("id"_L1)] {
        Machine *stopped = world.findMachine(id);
        if (stopped && !stopped->is("stopped"_L1))
            stopped->setState("stopped"_L1);
        return ok({ { u"id"_s, id }, { u"state"_s, u"stopped"_s } });
    };
    return force || machine.is("stopped"_L1) ? stop() : after(ShutdownMs, stop);
}

Answer suspendResumeVm(World &, Machine &machine, const QJsonObject &)
{
    machine.setState(machine.is("running"_L1) ? "suspended"_L1 : "running"_L1);
    return ok(machine.pick({ "id"_L1, "state"_L1 }));
}

Answer deleteVm(World &world, Machine &machine, const QJsonObject &)
{
    const QString id = machine.text("id"_L1);
    world.machines.remove_if([&](const Machine &other) { return &other == &machine; });
    return ok({ { u"id"_s, id }, { u"deleted"_s, true } });
}

Answer waitForState(World &world, Machine &machine, const QJsonObject &arguments)
{
    const QString target = arguments["target"_L1].toString(u"running"_s);
    return world.watch(
            machine, arguments["timeoutSeconds"_L1].toInt(45),
            [target](const Machine &now, bool timeUp) -> std::optional<Answer> {
                const bool reached = now.text("state"_L1) == target;
                if (!reached && !timeUp)
                    return {};
                return ok({ { u"reached"_s, reached }, { u"state"_s, now.settings["state"_L1] } });
            });
}

Answer getDiagnostics(World &, Machine &machine, const QJsonObject &)
{
    const bool tools = !machine.settings["guestTools"_L1].isNull();
    const QJsonObject check { { u"name"_s, u"guest tools"_s },
                              { u"ok"_s, tools },
                              { u"advice"_s, tools ? QString() : u"Run apply_guest_tools."_s } };
    const qint64 uptimeMs = machine.is("running"_L1) ? machine.started.elapsed() : 0;
    return ok({ { u"state"_s, machine.settings["state"_L1] },
                { u"uptimeSeconds"_s, uptimeMs / 1'000 },
                { u"checks"_s, QJsonArray { check } },
                { u"lastError"_s, QJsonValue::Null } });
}

Answer tailLog(World &, Machine &machine, const QJsonObject &arguments)
{
    const QRegularExpression pattern(arguments["grep"_L1].toString());
    const auto oldest = QDateTime::currentDateTimeUtc().addSecs(
            -arguments["sinceSeconds"_L1].toInteger(1'000'000'000));
    QJsonArray lines;
    for (const QString &line : std::as_const(machine.log)) {
        const QString time = line.section(u' ', 0, 0);
        const QString text = line.section(u' ', 1);
        if (pattern.match(text).hasMatch() && QDateTime::fromString(time, Qt::ISODate) >= oldest)
            lines.append(QJsonObject { { u"time"_s, time }, { u"text"_s, text } });
    }
    while (lines.size() > MaxLogLines)
        lines.removeFirst();
    return ok({ { u"lines"_s, lines } });
}

Answer revealVm(World &, Machine &, const QJsonObject &) { return unavailable(); }

} // namespace

std::vector<Tool> machineTools()
{
    using enum Needs;
    return {
        { "list_vms"_L1, {}, listVms },
        { "get_vm"_L1, {}, getVm },
        { "create_vm"_L1, {}, createVm },
        { "job_status"_L1, {}, jobStatus },
        { "job_wait"_L1, {}, jobWait },
        { "list_jobs"_L1, {}, listJobs },
        { "start_vm"_L1, { NotSuspended }, startVm },
        { "stop_vm"_L1, {}, stopVm },
        { "suspend_resume_vm"_L1, { NotStopped }, suspendResumeVm },
        { "delete_vm"_L1, { Stopped, Confirm }, deleteVm },
        { "wait_for_state"_L1, {}, waitForState },
        { "get_diagnostics"_L1, {}, getDiagnostics },
        { "tail_log"_L1, {}, tailLog },
        { "reveal_vm"_L1, {}, revealVm },
    };
}
