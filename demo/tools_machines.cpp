// Machines from their creation, and the jobs that do it, to their deletion; what is told of them.

#include "host.h"
#include "tools.h"

#include <QFileInfo>
#include <QRegularExpression>
#include <QScopedValueRollback>

namespace {

constexpr int ShutdownMs = 45'000;
constexpr int LooksPerQuestion = 160; // a guest that boots does not hear its power button
constexpr int MaxLogLines = 200;

// What is wrong with the arguments of create_vm among themselves, or nothing.
QString creationComplaint(const Call &call)
{
    static const QRegularExpression names(u"^[^./\\0][^/\\0]{0,99}$"_s);
    static const QRegularExpression accounts(u"^(?!root$)[a-z][a-z0-9_-]{0,30}$"_s);
    static const QRegularExpression passwords(u"^[^\\n\\0]+$"_s);
    const auto has = [&call](QLatin1StringView name) { return call.arguments.contains(name); };
    const bool unattended = call.flag("unattended"_L1);
    const bool linux = call.text("os"_L1) == "linux"_L1;
    const bool userData = has("userData"_L1) || has("userDataPath"_L1);
    const QFileInfo image(call.text("image"_L1));
    const bool listed = linux && (!has("image"_L1) || call.text("image"_L1) == smallLinuxId);
    const bool disc = image.isAbsolute() && image.isFile() && image.suffix() == "iso"_L1;
    const std::pair<bool, QString> faults[] {
        { has("name"_L1) && !names.match(call.text("name"_L1)).hasMatch(),
          u"name must be 1 to 100 characters, without / and no dot in front"_s },
        { call.world.isTaken(call.text("name"_L1)), u"the name is taken"_s },
        { has("linuxExperience"_L1) && !linux, u"linuxExperience is only for os:linux"_s },
        { has("username"_L1) != unattended || has("password"_L1) != unattended,
          u"unattended:true needs username and password, and they need it"_s },
        { unattended && !accounts.match(call.text("username"_L1)).hasMatch(),
          u"username must be of a-z, 0-9, _ and -, and another than root"_s },
        { unattended && !passwords.match(call.text("password"_L1)).hasMatch(),
          u"password must be one line"_s },
        { userData && !(linux && unattended),
          u"user data is only for os:linux with unattended:true"_s },
        { !listed && !disc, u"there is no such image for this os (list_images, or an .iso)"_s },
        { !listed && unattended, u"unattended:true needs a listed image (list_images)"_s },
    };
    for (const auto &[holds, complaint] : faults) {
        if (holds)
            return complaint;
    }
    return {};
}

const Tool createVm("create_vm", "", [](const Call &call) -> Reply {
    if (call.text("os"_L1) == "macOS"_L1)
        co_return unavailable(u"this host cannot run macOS"_s);
    if (const QString complaint = creationComplaint(call); !complaint.isEmpty())
        co_return wrong(complaint);
    if (const auto refusal = refuseHardware(call.arguments))
        co_return *refusal;
    if (call.arguments.contains("userData"_L1) || call.arguments.contains("userDataPath"_L1))
        co_return unavailable(u"Small Linux has no cloud-init"_s);
    if (const QString missing = missingOnHost(); !missing.isEmpty())
        co_return unavailable(missing);
    const JobPtr job = call.world.startCreation(call.arguments);
    if (call.flag("async"_L1))
        co_return ok("jobId"_L1, (*job)["jobId"_L1]);
    while (runs(job))
        co_await pause(LookMs);
    const MachinePtr machine = call.world.machines.value(job->value("vmId"_L1).toString());
    co_return machine ? ok(machine->settings) : fail(u"failed"_s, (*job)["error"_L1].toString());
});

const Tool jobStatus("job_status", "", [](const Call &call) -> Reply { return ok(*call.job); });

const Tool jobWait("job_wait", "", [](const Call &call) -> Reply {
    const Later<bool> timeUp = pause(call.number("timeoutSeconds"_L1, 120) * 1'000);
    while (runs(call.job) && !timeUp.isSet() && call.wanted())
        co_await pause(LookMs);
    co_return ok(*call.job);
});

const Tool listJobs("list_jobs", "", [](const Call &call) -> Reply {
    QJsonArray all;
    for (const JobPtr &job : call.world.jobs)
        all.append(*job);
    return ok("jobs"_L1, all);
});

const Tool listImages("list_images", "", [](const Call &) -> Reply {
    if (!missingOnHost().isEmpty())
        return ok("images"_L1, QJsonArray());
    const QByteArray version = "Small Linux " + contents(guestFile(u"version"_s)).trimmed();
    const QJsonObject image = object("imageId"_L1, smallLinuxId, "os"_L1, u"linux"_s, "version"_L1,
                                     QString::fromUtf8(version), "downloaded"_L1, true);
    return ok("images"_L1, QJsonArray { image });
});

const Tool listVms("list_vms", "", [](const Call &call) -> Reply {
    QJsonArray vms;
    for (const MachinePtr &machine : call.world.machines)
        vms << object("id"_L1, machine->text("id"_L1), "name"_L1, machine->text("name"_L1), "os"_L1,
                      machine->text("os"_L1), "state"_L1, machine->text("state"_L1));
    return ok("vms"_L1, vms);
});

const Tool getVm("get_vm", "", [](const Call &call) -> Reply {
    co_await takePicture(call.machine); // for the size of the display
    co_return ok(call.machine->settings);
});

Answer stateOf(const Machine &machine, const QString &complaint = {})
{
    return complaint.isEmpty()
                   ? ok("id"_L1, machine.text("id"_L1), "state"_L1, machine.text("state"_L1))
                   : fail(u"failed"_s, complaint);
}

const Tool startVm("start_vm", "alone unsuspended", [](const Call &call) -> Reply {
    const auto refusal = call.world.refuseStart(*call.machine);
    if (call.machine->is("running"_L1))
        co_return stateOf(*call.machine);
    if (refusal)
        co_return *refusal;
    co_return stateOf(*call.machine, co_await call.machine->boot());
});

const Tool stopVm("stop_vm", "", [](const Call &call) -> Reply {
    Machine &machine = *call.machine;
    const bool force = call.text("mode"_L1) == "force"_L1;
    if (machine.is("suspended"_L1) && force) {
        const QScopedValueRollback works(machine.busy, true);
        co_return stateOf(machine, co_await machine.dropMemory());
    }
    if (machine.is("suspended"_L1))
        co_return wrongState(u"the VM is suspended; only mode:force stops it"_s);
    if (machine.qemu && force)
        machine.qemu->cutPower();
    const Later<bool> timeUp = pause(ShutdownMs);
    for (int look = 0; machine.qemu && !timeUp.isSet() && call.wanted(); ++look) {
        if (look % LooksPerQuestion == 0 && !force)
            machine.qemu->command(u"system_powerdown"_s);
        co_await pause(LookMs);
    }
    const QString running = u"the guest has not shut down yet (wait_for_state)"_s;
    co_return stateOf(machine, machine.qemu ? running : QString());
});

const Tool suspendResumeVm("suspend_resume_vm", "alone unstopped", [](const Call &call) -> Reply {
    if (!call.machine->is("suspended"_L1))
        co_return stateOf(*call.machine, co_await call.machine->suspend());
    if (const auto refusal = call.world.refuseStart(*call.machine))
        co_return *refusal;
    co_return stateOf(*call.machine, co_await call.machine->resume());
});

const Tool deleteVm("delete_vm", "stopped confirm", [](const Call &call) -> Reply {
    call.machine->folder.removeRecursively();
    call.world.machines.remove(call.text("id"_L1));
    return ok("id"_L1, call.machine->text("id"_L1), "deleted"_L1, true);
});

const Tool waitForState("wait_for_state", "", [](const Call &call) -> Reply {
    const QString target = call.arguments["target"_L1].toString(u"running"_s);
    const Later<bool> timeUp = pause(call.number("timeoutSeconds"_L1, 45) * 1'000);
    while (call.machine->text("state"_L1) != target && !timeUp.isSet() && call.wanted()) {
        if (!call.world.machines.contains(call.machine->text("id"_L1)))
            co_return fail(u"not_found"_s, u"the VM was deleted"_s);
        co_await pause(LookMs);
    }
    const QString state = call.machine->text("state"_L1);
    co_return ok("reached"_L1, state == target, "state"_L1, state);
});

const Tool getDiagnostics("get_diagnostics", "", [](const Call &call) -> Reply {
    const Machine &machine = *call.machine;
    const bool runs = machine.qemu != nullptr;
    QJsonArray checks;
    const auto check = [&checks](const QString &name, bool holds, const QString &remedy) {
        const QString advice = holds ? QString() : remedy;
        checks << object("name"_L1, name, "ok"_L1, holds, "advice"_L1, advice);
    };
    check(u"host"_s, missingOnHost().isEmpty(), missingOnHost());
    check(u"memory"_s, runs || !call.world.refuseStart(machine), u"Stop another VM."_s);
    check(u"disk"_s, freeDiskGB(call.world.place) > 0, "Free space in "_L1 + call.world.place);
    check(u"acceleration"_s, !runs || machine.accelerated, u"Without KVM it is slow."_s);
    check(u"system"_s, machine.flag("installed"_L1), u"Use finish_install."_s);
    check(u"guest tools"_s, !runs || machine.booted, u"Wait for the guest's login."_s);
    return ok("state"_L1, machine.settings["state"_L1], "uptimeSeconds"_L1,
              runs ? machine.started.elapsed() / 1'000 : 0, "checks"_L1, checks, "lastError"_L1,
              machine.lastError.isEmpty() ? QJsonValue() : machine.lastError);
});

const Tool tailLog("tail_log", "", [](const Call &call) -> Reply {
    const QRegularExpression pattern(call.text("grep"_L1));
    const auto oldest = QDateTime::currentDateTimeUtc().addSecs(
            -call.arguments["sinceSeconds"_L1].toInteger(1'000'000'000));
    QJsonArray lines;
    for (const auto &[time, text] : call.machine->log) {
        if (pattern.match(text).hasMatch() && time >= oldest)
            lines.append(object("time"_L1, time.toString(Qt::ISODateWithMs), "text"_L1, text));
    }
    while (lines.size() > MaxLogLines)
        lines.removeFirst();
    return ok("lines"_L1, lines);
});

const Tool setHardware("set_hardware", "stopped", [](const Call &call) -> Reply {
    if (call.arguments.size() < 2)
        return wrong(u"give at least one setting to change"_s);
    QJsonObject changed = call.machine->settings;
    for (auto it = call.arguments.begin(); it != call.arguments.end(); ++it)
        changed[it.key()] = it.value();
    if (const auto refusal = refuseHardware(changed))
        return *refusal;
    call.machine->settings = changed;
    return ok(call.machine->settings);
});

const Tool resizeDisk("resize_disk", "alone stopped confirm", [](const Call &call) -> Reply {
    const int size = call.arguments["newGB"_L1].toInt();
    if (size <= call.machine->settings["diskGB"_L1].toInt())
        co_return wrong(u"a disk can only grow"_s);
    const Outcome grown = co_await diskTool(u"resize -q disk.qcow2 %1G"_s.arg(size),
                                            call.machine->folder.path());
    if (!grown.succeeded())
        co_return fail(u"failed"_s, grown.words());
    call.machine->settings["diskGB"_L1] = size;
    co_return ok("id"_L1, call.text("id"_L1), "diskGB"_L1, size);
});

const Tool setInstallerMedia("set_installer_media", "stopped", [](const Call &call) -> Reply {
    const QFileInfo file(call.text("path"_L1));
    if (!file.isAbsolute() || !file.isFile() || !file.isReadable() || file.suffix() != "iso"_L1)
        return wrong(u"path is not a readable .iso file on the host"_s);
    call.machine->settings["installerMedia"_L1] = file.filePath();
    return ok(call.machine->settings);
});

const Tool finishInstall("finish_install", "alone stopped", [](const Call &call) -> Reply {
    Machine &machine = *call.machine;
    QJsonObject &settings = machine.settings;
    // Small Linux makes no boot sector.
    co_await diskTool(u"dd -f qcow2 -O raw bs=512 count=1 if=disk.qcow2 of=sector"_s,
                      machine.folder.path());
    machine.smallLinux &= !contents(machine.folder.filePath(u"sector"_s)).endsWith("\x55\xaa");
    settings["guestTools"_L1] = machine.smallLinux ? QJsonValue(guestToolsVersion) : QJsonValue();
    settings["installed"_L1] = true;
    settings["installerMedia"_L1] = QJsonValue::Null;
    co_return ok(settings);
});

const Tool hostCapabilities("host_capabilities", "", [](const Call &call) -> Reply {
    return ok("maxCpu"_L1, hostProcessors(), "maxRamGB"_L1, hostMemoryGB(), "freeDiskGB"_L1,
              freeDiskGB(call.world.place), "nestedVirt"_L1, false, "rosetta"_L1, false,
              "bridgeInterfaces"_L1, QJsonArray());
});

const Tool networkingStatus("networking_status", "", [](const Call &) -> Reply {
    return ok("installed"_L1, false, "running"_L1, false, "version"_L1, QJsonValue(), "problems"_L1,
              QJsonArray());
});

} // namespace
