#include "tools.h"

#include <QScopedValueRollback>

namespace {

// What the demonstration does without, and why.
const std::pair<QString, QString> refusedTools[] {
    { u"networking_install networking_repair networking_uninstall set_linux_network_path"_s,
      u"the demonstration has no networking service"_s },
    { u"add_shared_folder remove_shared_folder set_shared_folder_readonly"_s,
      u"the kernel of Small Linux cannot share folders"_s },
    { u"set_attach_linux_guest_tools"_s, u"there is no such disc: Small Linux has its tools"_s },
    { u"reveal_vm set_console_window_size"_s, u"the demonstration shows no windows"_s },
    { u"set_display_resolution"_s, u"the text screen has a fixed size of 720 x 400 pixels"_s },
    { u"read_guest_clipboard"_s, u"the guest has no desktop, so no clipboard"_s },
    { u"list_restore_images"_s, u"this host cannot run macOS"_s },
    { u"app_status launch_app quit_app"_s, u"the server itself answers this"_s },
};

std::optional<Answer> refuse(const QString &needs, const Call &call)
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
        { u"confirm"_s, call.flag("confirm"_L1), wrong(u"confirm must be true"_s) },
    };
    for (const auto &[word, holds, refusal] : rules) {
        if (!holds && needs.split(u' ').contains(word))
            return refusal;
    }
    return {};
}

} // namespace

Later<Answer> Tool::carryOut(QString name, Call &call)
{
    if (const auto refusal = refuseArguments(name, call.arguments))
        co_return *refusal;
    for (const JobPtr &job : std::as_const(call.world.jobs)) {
        if ((*job)["jobId"_L1] == call.text("jobId"_L1))
            call.job = job;
    }
    while ((call.machine = call.world.machines.value(call.text("id"_L1))) && call.machine->busy)
        co_await pause(LookMs); // looked up again, because it may go meanwhile
    const auto [needs, run] = all.value(name);
    if (const auto refusal = refuse(needs, call))
        co_return *refusal;
    for (const auto &[names, why] : refusedTools) {
        if (names.split(u' ').contains(name))
            co_return unavailable(why);
    }
    if (!needs.contains("alone"_L1))
        co_return co_await run(call);
    const QScopedValueRollback works(call.machine->busy, true);
    co_return co_await run(call);
}
