#include "tools.h"

#include "arguments.h"

#include <map>

using namespace Qt::StringLiterals;

namespace {

const std::map<QString, Tool> &allTools()
{
    static const std::map<QString, Tool> all = [] {
        std::map<QString, Tool> byName;
        for (const auto &subject : { hostTools(), machineTools(), jobTools(), hardwareTools(),
                                     screenTools(), inputTools(), guestTools() }) {
            for (const Tool &tool : subject)
                byName.emplace(tool.name, tool);
        }
        return byName;
    }();
    return all;
}

std::optional<Answer> refuseUnless(Needs need, const Machine &machine, const QJsonObject &arguments)
{
    const auto refuse = [](bool holds, const QString &code, const QString &message) {
        return holds ? std::nullopt : std::optional(fail(code, message));
    };
    const auto mustBe = [&](QLatin1StringView state) {
        return refuse(
                machine.is(state), u"wrong_state"_s,
                u"the VM is %1, but must be %2"_s.arg(machine.text("state"_L1), QString(state)));
    };
    switch (need) {
    case Needs::Running:
        return mustBe("running"_L1);
    case Needs::Stopped:
        return mustBe("stopped"_L1);
    case Needs::NotSuspended:
        return refuse(!machine.is("suspended"_L1), u"wrong_state"_s,
                      u"the VM is suspended; wake it with suspend_resume_vm"_s);
    case Needs::NotStopped:
        return refuse(!machine.is("stopped"_L1), u"wrong_state"_s,
                      u"the VM is stopped; boot it with start_vm"_s);
    case Needs::Installed:
        return refuse(machine.settings["installed"_L1].toBool(), u"not_ready"_s,
                      u"no system is installed yet (finish_install)"_s);
    case Needs::Booted:
        return refuse(machine.booted, u"not_ready"_s,
                      u"the guest has not booted yet (wait_for_text)"_s);
    case Needs::GuestTools:
        return refuse(!machine.settings["guestTools"_L1].isNull(), u"not_ready"_s,
                      u"needs the guest tools (apply_guest_tools)"_s);
    case Needs::Ssh:
        return refuse(machine.settings["sshProvisioned"_L1].toBool(), u"not_ready"_s,
                      u"needs SSH (provision_ssh)"_s);
    case Needs::Linux:
        return refuse(machine.text("os"_L1) == "linux"_L1, u"invalid_argument"_s,
                      u"only for Linux VMs"_s);
    case Needs::Confirm:
        return refuse(arguments["confirm"_L1].toBool(), u"invalid_argument"_s,
                      u"confirm must be true"_s);
    }
    return {};
}

// Finds the machine or job that a tool is for.
std::optional<Answer> refuseSubject(const Tool &tool, Call &call)
{
    if (tool.subject == Tool::Subject::Job) {
        call.job = call.world.findJob(call.arguments["jobId"_L1].toString());
        if (!call.job)
            return fail(u"not_found"_s, u"there is no job of this id (list_jobs)"_s);
    } else if (tool.subject == Tool::Subject::Machine) {
        call.machine = call.world.findMachine(call.arguments["id"_L1].toString());
        if (!call.machine)
            return fail(u"not_found"_s, u"there is no VM of this id (list_vms)"_s);
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
    if (const auto refusal = refuseArguments(tool, call.arguments))
        co_return *refusal;
    const auto found = allTools().find(tool);
    if (found == allTools().end()) // of the application's process, which the server manages
        co_return unavailable(u"the application does not have this tool"_s);
    if (const auto refusal = refuseSubject(found->second, call))
        co_return *refusal;
    while (call.machine && call.machine->busy)
        co_await pause(LookMs);
    if (const auto refusal = refuseSubject(found->second, call)) // it may be gone meanwhile
        co_return *refusal;
    for (const Needs need : found->second.needs) {
        if (const auto refusal = refuseUnless(need, *call.machine, call.arguments))
            co_return *refusal;
    }
    co_return co_await found->second.run(call);
}
