// Machines from their start to their deletion, and what is told of them.

#include "host.h"
#include "screen.h"
#include "tools.h"

#include <QRegularExpression>

using namespace Qt::StringLiterals;

namespace {

constexpr int ShutdownMs = 45'000;
constexpr int AskAgainMs = 5'000; // a guest that boots does not hear its power button
constexpr int MaxLogLines = 200;

Later<Answer> listVms(const Call &call)
{
    QJsonArray vms;
    for (const MachinePtr &machine : call.world.machines)
        vms.append(machine->pick({ "id"_L1, "name"_L1, "os"_L1, "state"_L1 }));
    return ok({ { u"vms"_s, vms } });
}

Later<Answer> getVm(const Call &call)
{
    if (call.machine->qemu)
        co_await takePicture(call.machine); // for the size of the display
    co_return ok(told(*call.machine));
}

Answer stateOf(const Machine &machine) { return ok(machine.pick({ "id"_L1, "state"_L1 })); }

Later<Answer> startVm(const Call &call)
{
    if (call.machine->is("running"_L1))
        co_return stateOf(*call.machine);
    if (const auto refusal = call.world.refuseStart(*call.machine))
        co_return *refusal;
    const QString complaint = co_await call.machine->boot();
    co_return complaint.isEmpty() ? stateOf(*call.machine) : fail(u"failed"_s, complaint);
}

Later<Answer> stopByForce(const Call &call)
{
    if (call.machine->is("suspended"_L1)) {
        if (const QString complaint = co_await call.machine->dropMemory(); !complaint.isEmpty())
            co_return fail(u"failed"_s, complaint);
    }
    call.machine->cutPower();
    while (call.machine->qemu)
        co_await pause(LookMs);
    co_return stateOf(*call.machine);
}

Later<Answer> stopVm(const Call &call)
{
    if (call.arguments["mode"_L1].toString() == "force"_L1)
        co_return co_await stopByForce(call);
    if (call.machine->is("suspended"_L1))
        co_return wrongState(u"the VM is suspended; only mode:force stops it"_s);
    QElapsedTimer waited;
    waited.start();
    qint64 asked = -AskAgainMs;
    while (call.machine->is("running"_L1) && waited.elapsed() < ShutdownMs && call.wanted()) {
        if (call.machine->qemu && waited.elapsed() >= asked + AskAgainMs) {
            asked = waited.elapsed();
            call.machine->qemu->command(u"system_powerdown"_s);
        }
        co_await pause(LookMs);
    }
    co_return call.machine->is("stopped"_L1)
            ? stateOf(*call.machine)
            : fail(u"timeout"_s, u"the guest has not shut down yet (wait_for_state)"_s);
}

Later<Answer> suspendResumeVm(const Call &call)
{
    const bool suspended = call.machine->is("suspended"_L1);
    if (suspended) {
        if (const auto refusal = call.world.refuseStart(*call.machine))
            co_return *refusal;
    }
    const Later<QString> toggling = suspended ? call.machine->resume() : call.machine->suspend();
    const QString complaint = co_await toggling;
    co_return complaint.isEmpty() ? stateOf(*call.machine) : fail(u"failed"_s, complaint);
}

Later<Answer> deleteVm(const Call &call)
{
    call.machine->folder.removeRecursively();
    call.world.machines.remove(call.machine);
    return ok({ { u"id"_s, call.machine->text("id"_L1) }, { u"deleted"_s, true } });
}

Later<Answer> waitForState(const Call &call)
{
    const QString target = call.arguments["target"_L1].toString(u"running"_s);
    const Later<bool> timeUp = pause(call.arguments["timeoutSeconds"_L1].toInt(45) * 1'000);
    while (call.machine->text("state"_L1) != target && !timeUp.isSet() && call.wanted()) {
        if (!call.world.findMachine(call.machine->text("id"_L1)))
            co_return fail(u"not_found"_s, u"the VM was deleted"_s);
        co_await pause(LookMs);
    }
    const QString state = call.machine->text("state"_L1);
    co_return ok({ { u"reached"_s, state == target }, { u"state"_s, state } });
}

Later<Answer> getDiagnostics(const Call &call)
{
    const Machine &machine = *call.machine;
    QJsonArray checks;
    const auto check = [&checks](const QString &name, bool holds, const QString &advice) {
        checks.append(QJsonObject { { u"name"_s, name },
                                    { u"ok"_s, holds },
                                    { u"advice"_s, holds ? QString() : advice } });
    };
    const bool runs = machine.qemu != nullptr;
    const auto noMemory = runs ? std::nullopt : call.world.refuseStart(machine);
    check(u"host"_s, missingOnHost().isEmpty(), missingOnHost());
    check(u"memory"_s, !noMemory,
          noMemory ? noMemory->value("error"_L1)["message"_L1].toString() : QString());
    check(u"disk space"_s, freeDiskGB(call.world.folder()) > 0,
          u"Free space in the temporary folder: the disk cannot grow."_s);
    check(u"system"_s, machine.settings["installed"_L1].toBool(),
          u"Install one from the console, then finish_install."_s);
    if (runs) {
        check(u"hardware acceleration"_s, machine.accelerated,
              u"KVM does not work on this host: the VM is emulated, which is slow."_s);
        check(u"guest tools"_s, machine.booted,
              u"The guest has not booted yet, or has no tools."_s);
    }
    return ok({ { u"state"_s, machine.settings["state"_L1] },
                { u"uptimeSeconds"_s, runs ? machine.started.elapsed() / 1'000 : 0 },
                { u"checks"_s, checks },
                { u"lastError"_s,
                  machine.lastError.isEmpty() ? QJsonValue() : QJsonValue(machine.lastError) } });
}

Later<Answer> tailLog(const Call &call)
{
    const QRegularExpression pattern(call.arguments["grep"_L1].toString());
    const auto oldest = QDateTime::currentDateTimeUtc().addSecs(
            -call.arguments["sinceSeconds"_L1].toInteger(1'000'000'000));
    QJsonArray lines;
    for (const auto &[time, text] : call.machine->log) {
        if (pattern.match(text).hasMatch() && time >= oldest)
            lines.append(QJsonObject { { u"time"_s, time.toString(Qt::ISODateWithMs) },
                                       { u"text"_s, text } });
    }
    while (lines.size() > MaxLogLines)
        lines.removeFirst();
    return ok({ { u"lines"_s, lines } });
}

Later<Answer> revealVm(const Call &)
{
    return unavailable(u"the demonstration shows no windows"_s);
}

} // namespace

std::vector<Tool> machineTools()
{
    using enum Needs;
    using Tool::Subject::Machine;
    return {
        { "list_vms"_L1, Tool::Subject::Host, {}, listVms },
        { "get_vm"_L1, Machine, {}, getVm },
        { "start_vm"_L1, Machine, { NotSuspended }, startVm },
        { "stop_vm"_L1, Machine, {}, stopVm },
        { "suspend_resume_vm"_L1, Machine, { NotStopped }, suspendResumeVm },
        { "delete_vm"_L1, Machine, { Stopped, Confirm }, deleteVm },
        { "wait_for_state"_L1, Machine, {}, waitForState },
        { "get_diagnostics"_L1, Machine, {}, getDiagnostics },
        { "tail_log"_L1, Machine, {}, tailLog },
        { "reveal_vm"_L1, Machine, {}, revealVm },
    };
}
