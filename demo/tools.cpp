#include "tools.h"

#include "host.h"

#include <QJsonDocument>
#include <QRegularExpression>
#include <QScopedValueRollback>

#include <algorithm>

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

// The catalogue's prose on numbers: a name, the least and the most; the first are of all others.
QStringList rangesOf(const QString &tool)
{
    const QString prose = u"other -1e8 1e8 cpu 1 %1 ramGB 1 %2 diskGB 8 2048 newGB 8 2048 "
                          "width 320 7680 height 200 4320 scale 0.1 1 imageScale 0.1 1 "
                          "dy -100 100 delayMs 0 5000 captureDelayMs 0 10000 maxChars 1 100000 "
                          "sinceSeconds 1 1e9 connectTimeoutSeconds 1 60 "
                          "commandTimeoutSeconds 1 280 timeoutSeconds 1 %3"_s;
    const int longest = tool == "job_wait"_L1 ? 1800 : 290;
    return prose.arg(hostProcessors()).arg(hostMemoryGB()).arg(longest).split(u' ');
}

// What is wrong with a value, by its schema and its range; an empty text is nothing.
QString complaintOf(const QString &tool, const QString &name, const QJsonValue &value,
                    const QJsonValue &schema)
{
    static const QStringList types = u"null boolean number string array object"_s.split(u' ');
    const QString type = schema["type"_L1].toString();
    const bool whole = value.toInteger(0) == value.toInteger(1);
    if (type != types.value(value.type()) && !(type == "integer"_L1 && whole))
        return u"%1 must be of type %2"_s.arg(name, type);
    const QJsonArray accepted = schema["enum"_L1].toArray();
    if (!accepted.isEmpty() && !accepted.contains(value))
        return u"%1 has no value %2"_s.arg(name, value.toString());
    const QStringList ranges = rangesOf(tool);
    const QStringList range = ranges.mid(std::max<qsizetype>(0, ranges.indexOf(name)), 3);
    if (value.isDouble()
        && (value.toDouble() < range[1].toDouble() || value.toDouble() > range[2].toDouble()))
        return u"%1 must be %2 to %3"_s.arg(name, range[1], range[2]);
    QString complaint;
    const QJsonArray elements = value.toArray();
    for (auto it = elements.begin(); it != elements.end() && complaint.isEmpty(); ++it)
        complaint = complaintOf(tool, "an element of "_L1 + name, *it, schema["items"_L1]);
    const QJsonObject members = value.toObject();
    const QJsonArray required = schema["required"_L1].toArray();
    for (const QJsonValue &needed : required) {
        if (!members.contains(needed.toString()))
            complaint = needed.toString() + " is required"_L1;
    }
    for (auto it = members.begin(); it != members.end() && complaint.isEmpty(); ++it) {
        const QJsonValue known = schema["properties"_L1][it.key()];
        complaint = known.isUndefined() ? "there is no argument "_L1 + it.key()
                                        : complaintOf(tool, it.key(), *it, known);
    }
    return complaint;
}

// The refusal of a call of an unknown tool, or with arguments outside the catalogue's schemas or
// the ranges in its prose. The tool itself checks what one argument asks of another.
std::optional<Answer> refuseArguments(const QString &name, const QJsonObject &arguments)
{
    static const QJsonDocument catalogue
            = QJsonDocument::fromJson(contents(u":/demo/contract.json"_s));
    const QJsonArray tools = catalogue["tools"_L1].toArray();
    const auto tool = std::find_if(tools.begin(), tools.end(), [&name](const QJsonValue &one) {
        return one["name"_L1] == name;
    });
    if (tool == tools.end())
        return fail(u"unknown_method"_s, "there is no method "_L1 + name);
    const QString complaint = complaintOf(name, u"params"_s, arguments, (*tool)["inputSchema"_L1]);
    if (!complaint.isEmpty())
        return wrong(complaint);
    for (const auto &pattern : { "pattern"_L1, "grep"_L1 }) {
        if (!QRegularExpression(arguments[pattern].toString()).isValid())
            return wrong(pattern + " is not a regular expression"_L1);
    }
    return {};
}

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
