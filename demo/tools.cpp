#include "tools.h"

#include "arguments.h"

using namespace Qt::StringLiterals;

namespace {

QHash<QString, Tool> collect()
{
    QHash<QString, Tool> byName;
    for (const auto &subject :
         { machineTools(), jobTools(), screenTools(), inputTools(), guestTools() }) {
        for (const Tool &tool : subject) {
            for (const auto &name : tool.names.split(u' '))
                byName.insert(name, tool);
        }
    }
    return byName;
}

std::optional<Answer> refuse(const Tool &tool, const Call &call)
{
    if (call.arguments.contains("jobId"_L1) && !call.job)
        return fail(u"not_found"_s, u"there is no job of this id (list_jobs)"_s);
    if (call.arguments.contains("id"_L1) && !call.machine)
        return fail(u"not_found"_s, u"there is no VM of this id (list_vms)"_s);
    if (!call.machine)
        return {};
    const Machine &vm = *call.machine;
    const QString state = vm.text("state"_L1);
    const Answer inState
            = wrongState(u"the VM is %1: see start_vm, stop_vm, suspend_resume_vm"_s.arg(state));
    const auto notReady = [](const QString &what) { return fail(u"not_ready"_s, what); };
    const std::tuple<QString, bool, Answer> rules[] {
        { u"running"_s, state == "running"_L1, inState },
        { u"stopped"_s, state == "stopped"_L1, inState },
        { u"unstopped"_s, state != "stopped"_L1, inState },
        { u"unsuspended"_s, state != "suspended"_L1, inState },
        { u"installed"_s, vm.flag("installed"_L1),
          notReady(u"nothing is installed yet (finish_install)"_s) },
        { u"tools"_s, !vm.text("guestTools"_L1).isEmpty(),
          notReady(u"it needs apply_guest_tools"_s) },
        { u"booted"_s, vm.booted, notReady(u"the guest has not booted yet (wait_for_text)"_s) },
        { u"ssh"_s, vm.flag("sshProvisioned"_L1), notReady(u"it needs provision_ssh"_s) },
        { u"linux"_s, vm.text("os"_L1) == "linux"_L1, wrong(u"it is only for Linux VMs"_s) },
        { u"confirm"_s, call.flag("confirm"_L1), wrong(u"confirm must be true"_s) },
    };
    for (const auto &[word, holds, refusal] : rules) {
        if (!holds && tool.needs.split(u' ').contains(word))
            return refusal;
    }
    return {};
}

} // namespace

QJsonObject told(const Machine &machine)
{
    QJsonObject settings = machine.settings;
    for (const auto &own : { "smallLinux"_L1, "account"_L1, "sshUser"_L1 })
        settings.remove(own);
    return settings;
}

Later<Answer> carryOut(QString tool, Call &call)
{
    static const QHash<QString, Tool> tools = collect();
    if (const auto refusal = refuseArguments(tool, call.arguments))
        co_return *refusal;
    const auto found = tools.find(tool);
    if (found == tools.end()) // of the application's process, which the server manages
        co_return unavailable(u"the application does not have this tool"_s);
    for (const JobPtr &job : std::as_const(call.world.jobs)) {
        if ((*job)["jobId"_L1] == call.text("jobId"_L1))
            call.job = job;
    }
    call.machine = call.world.machines.value(call.text("id"_L1));
    while (call.machine && call.machine->busy)
        co_await pause(LookMs);
    call.machine = call.world.machines.value(call.text("id"_L1)); // it may be gone meanwhile
    if (const auto refusal = refuse(*found, call))
        co_return *refusal;
    if (!found->run)
        co_return unavailable(found->whyNot);
    co_return co_await found->run(call);
}
