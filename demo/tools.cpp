#include "tools.h"

#include "arguments.h"

#include <map>

using namespace Qt::StringLiterals;

namespace {

const std::map<QString, Tool> &allTools()
{
    static const std::map<QString, Tool> all = [] {
        std::map<QString, Tool> byName;
        for (const auto &subject : { hostTools(), machineTools(), hardwareTools(), folderTools(),
                                     screenTools(), guestTools() }) {
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
    const QString os = machine.text("os"_L1);
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
        return refuse(machine.hasBooted(), u"not_ready"_s,
                      u"the guest has not booted yet (wait_for_text)"_s);
    case Needs::GuestTools:
        return refuse(!machine.settings["guestTools"_L1].isNull(), u"not_ready"_s,
                      u"needs the guest tools (apply_guest_tools)"_s);
    case Needs::Ssh:
        return refuse(machine.settings["sshProvisioned"_L1].toBool(), u"not_ready"_s,
                      u"needs SSH (provision_ssh)"_s);
    case Needs::Linux:
        return refuse(os == "linux"_L1, u"invalid_argument"_s, u"only for Linux VMs"_s);
    case Needs::NotMacOS:
        return refuse(os != "macOS"_L1, u"invalid_argument"_s, u"only for Linux and Windows VMs"_s);
    case Needs::Confirm:
        return refuse(arguments["confirm"_L1].toBool(), u"invalid_argument"_s,
                      u"confirm must be true"_s);
    }
    return {};
}

} // namespace

Answer call(World &world, const QString &tool, const QJsonObject &arguments)
{
    if (const auto refusal = refuseArguments(tool, arguments))
        return *refusal;
    const auto found = allTools().find(tool);
    if (found == allTools().end())
        return unavailable(); // of the application's process, which the server manages
    const auto &[name, needs, run] = found->second;
    if (const auto *onHost = std::get_if<OnHost>(&run))
        return (*onHost)(world, arguments);
    if (const auto *onJob = std::get_if<OnJob>(&run)) {
        Job *job = world.findJob(arguments["jobId"_L1].toString());
        return job ? (*onJob)(world, *job, arguments)
                   : fail(u"not_found"_s, u"there is no job of this id (list_jobs)"_s);
    }
    Machine *machine = world.findMachine(arguments["id"_L1].toString());
    if (!machine)
        return fail(u"not_found"_s, u"there is no VM of this id (list_vms)"_s);
    for (const Needs need : needs) {
        if (const auto refusal = refuseUnless(need, *machine, arguments))
            return *refusal;
    }
    return std::get<OnMachine>(run)(world, *machine, arguments);
}
