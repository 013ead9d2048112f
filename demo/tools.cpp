#include "tools.h"

#include "arguments.h"

using namespace Qt::StringLiterals;

namespace {

const QHash<QString, Tool> &allTools()
{
    static const QHash<QString, Tool> all = [] {
        QHash<QString, Tool> byName;
        for (const auto &subject :
             { machineTools(), jobTools(), screenTools(), inputTools(), guestTools() }) {
            for (const Tool &tool : subject)
                byName.insert(tool.name, tool);
        }
        return byName;
    }();
    return all;
}

struct Need
{
    QLatin1StringView word;
    QString code;
    QString message;
    bool (*holds)(const Call &call);
};

const std::vector<Need> needs {
    { "running"_L1, u"wrong_state"_s, u"the VM must be running (start_vm)"_s,
      [](const Call &call) { return call.machine->is("running"_L1); } },
    { "stopped"_L1, u"wrong_state"_s, u"the VM must be stopped (stop_vm)"_s,
      [](const Call &call) { return call.machine->is("stopped"_L1); } },
    { "unsuspended"_L1, u"wrong_state"_s, u"the VM is suspended (suspend_resume_vm)"_s,
      [](const Call &call) { return !call.machine->is("suspended"_L1); } },
    { "unstopped"_L1, u"wrong_state"_s, u"the VM is stopped (start_vm)"_s,
      [](const Call &call) { return !call.machine->is("stopped"_L1); } },
    { "installed"_L1, u"not_ready"_s, u"no system is installed yet (finish_install)"_s,
      [](const Call &call) { return call.machine->settings["installed"_L1].toBool(); } },
    { "tools"_L1, u"not_ready"_s, u"it needs the guest tools (apply_guest_tools)"_s,
      [](const Call &call) { return !call.machine->text("guestTools"_L1).isEmpty(); } },
    { "booted"_L1, u"not_ready"_s, u"the guest has not booted yet (wait_for_text)"_s,
      [](const Call &call) { return call.machine->booted; } },
    { "ssh"_L1, u"not_ready"_s, u"it needs SSH (provision_ssh)"_s,
      [](const Call &call) { return call.machine->settings["sshProvisioned"_L1].toBool(); } },
    { "linux"_L1, u"invalid_argument"_s, u"it is only for Linux VMs"_s,
      [](const Call &call) { return call.machine->text("os"_L1) == "linux"_L1; } },
    { "confirm"_L1, u"invalid_argument"_s, u"confirm must be true"_s,
      [](const Call &call) { return call.flag("confirm"_L1); } },
};

std::optional<Answer> refuse(const Tool &tool, Call &call)
{
    for (const JobPtr &job : std::as_const(call.world.jobs))
        call.job = (*job)["jobId"_L1] == call.text("jobId"_L1) ? job : call.job;
    if (!call.job && call.arguments.contains("jobId"_L1))
        return fail(u"not_found"_s, u"there is no job of this id (list_jobs)"_s);
    call.machine = call.world.machines.value(call.text("id"_L1));
    if (!call.machine && call.arguments.contains("id"_L1))
        return fail(u"not_found"_s, u"there is no VM of this id (list_vms)"_s);
    const QStringList words = tool.needs.split(u' ', Qt::SkipEmptyParts);
    for (const QString &word : words) {
        for (const Need &need : needs) {
            if (need.word == word && !need.holds(call))
                return fail(need.code, need.message);
        }
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
    call.machine = call.world.machines.value(call.text("id"_L1));
    while (call.machine && call.machine->busy)
        co_await pause(LookMs);
    if (const auto refusal = refuse(*found, call))
        co_return *refusal;
    if (!found->run)
        co_return unavailable(found->whyNot);
    co_return co_await found->run(call);
}
