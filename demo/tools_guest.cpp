// Inside the guest: its tools, SSH, network, commands and clipboard.

#include "host.h"
#include "tools.h"

#include <QRegularExpression>

#include <algorithm>

namespace {

constexpr int StatusMs = 10'000;
constexpr int ToolsMs = 25'000;
constexpr int GraceMs = 5'000; // between the end of a command's time and that of its connection
const QString guestAddress = u"10.0.2.15"_s; // what the network of each machine gives out

QString quoted(QString text) { return u'\'' + text.replace(u"'"_s, u"'\\''"_s) + u'\''; }

Answer silentGuest(const Outcome &tried)
{
    return fail(u"not_ready"_s, "the guest does not answer: "_L1 + tried.words());
}

// Runs a command as a user of the guest who has the key. QEMU forwards a port of 127.0.0.1 to its
// server, and tells which, so the server needs no proof of its own.
Later<Outcome> ssh(MachinePtr machine, QString key, QString user, QString command, int limitMs,
                   bool terminal = false)
{
    static const QRegularExpression forward(u"HOST_FORWARD.*127\\.0\\.0\\.1\\s+(\\d+)"_s);
    if (!machine->qemu)
        co_return {};
    const QJsonObject network = co_await machine->qemu->monitor(u"info usernet"_s);
    const QString port = forward.match(network["return"_L1].toString()).captured(1);
    const QString words = u"-F none -i %1 -o BatchMode=yes -o IdentitiesOnly=yes -o LogLevel=ERROR "
                          "-o IdentityAgent=none -o NoHostAuthenticationForLocalhost=yes "
                          "-o ConnectTimeout=60 -p %2 127.0.0.1 %3 -l"_s;
    const QStringList arguments = words.arg(key, port, terminal ? u"-tt"_s : u"-n"_s).split(u' ')
                                  << user << command;
    co_return co_await run(u"ssh"_s, arguments, machine->folder.path(), limitMs);
}

// What guest tools do: a command as root, by the key that the machine was made with.
Later<Outcome> byTools(const MachinePtr &machine, const QString &command)
{
    return ssh(machine, u"tools"_s, u"root"_s, command, ToolsMs);
}

const Tool apply("apply_guest_tools", "running installed booted", [](const Call &call) -> Reply {
    if (!call.machine->smallLinux)
        co_return unavailable(u"there are guest tools only for Small Linux"_s);
    const Outcome tried = co_await byTools(call.machine, u"true"_s);
    if (!tried.succeeded())
        co_return silentGuest(tried);
    call.machine->settings["guestTools"_L1] = guestToolsVersion;
    co_return ok("id"_L1, call.text("id"_L1), "guestTools"_L1, guestToolsVersion);
});

QJsonObject sshSettings(const Machine &machine)
{
    if (!machine.flag("sshProvisioned"_L1))
        return { { u"provisioned"_s, false }, { u"user"_s, {} }, { u"host"_s, {} } };
    return object("provisioned"_L1, true, "user"_L1, machine.sshUser, "host"_L1, guestAddress);
}

const Tool provisionSsh("provision_ssh", "running tools booted", [](const Call &call) -> Reply {
    const QDir &folder = call.machine->folder;
    if (!folder.exists(u"key.pub"_s)) {
        const Outcome made = co_await makeKey(u"key"_s, folder.path());
        if (!made.succeeded())
            co_return fail(u"failed"_s, "no key could be made: "_L1 + made.words());
    }
    const QString key = QString::fromUtf8(contents(folder.filePath(u"key.pub"_s))).trimmed();
    const Outcome added = co_await byTools(call.machine, "ssh-key add "_L1 + quoted(key));
    if (!added.succeeded())
        co_return silentGuest(added);
    call.machine->sshUser = QString::fromUtf8(added.output).trimmed();
    call.machine->settings["sshProvisioned"_L1] = true;
    co_return ok(sshSettings(*call.machine));
});

const Tool sshStatus("ssh_status", "", [](const Call &call) -> Reply {
    QJsonObject status = sshSettings(*call.machine);
    Outcome tried;
    if (status["provisioned"_L1].toBool())
        tried = co_await ssh(call.machine, u"key"_s, status["user"_L1].toString(), u"true"_s,
                             StatusMs);
    status["reachable"_L1] = tried.succeeded();
    co_return ok(status);
});

const Tool revokeSsh("revoke_ssh", "running", [](const Call &call) -> Reply {
    if (call.machine->flag("sshProvisioned"_L1)) {
        const Outcome removed = co_await byTools(call.machine, u"ssh-key remove"_s);
        if (!removed.succeeded())
            co_return silentGuest(removed);
        for (const auto &name : { u"key"_s, u"key.pub"_s })
            call.machine->folder.remove(name);
        call.machine->settings["sshProvisioned"_L1] = false;
    }
    co_return ok("provisioned"_L1, false);
});

const Tool guestNetwork("guest_network", "running tools booted", [](const Call &call) -> Reply {
    const Outcome told = co_await byTools(
            call.machine, u"ip -o link; ip -o addr; ip route; cat /etc/resolv.conf"_s);
    if (!told.succeeded())
        co_return silentGuest(told);
    const QString text = QString::fromUtf8(told.output);
    const auto all = [&text](const QString &pattern) {
        QJsonArray found;
        const QRegularExpression lines(pattern, QRegularExpression::MultilineOption);
        for (auto it = lines.globalMatch(text); it.hasNext();)
            found.append(it.next().captured(1));
        return found;
    };
    const QJsonObject interface = object("name"_L1, u"eth0"_s, "mac"_L1,
                                         all(u"eth0:.*link/ether (\\S+)"_s)[0], "addresses"_L1,
                                         all(u"eth0 +inet6? ([^ /]+)"_s));
    co_return ok("address"_L1, all(u"eth0 +inet ([^ /]+)"_s)[0], "interfaces"_L1,
                 QJsonArray { interface }, "gateway"_L1, all(u"^default via (\\S+)"_s)[0], "dns"_L1,
                 all(u"^nameserver (\\S+)"_s));
});

const Tool runInGuest("run_in_guest", "running ssh", [](const Call &call) -> Reply {
    static int lastNumber = 0;
    const MachinePtr machine = call.machine;
    if (call.arguments["host"_L1].toString(guestAddress) != guestAddress)
        co_return wrong(u"the guest has only the address %1"_s.arg(guestAddress));
    const int wholeMs = call.number("timeoutSeconds"_L1, 290) * 1'000;
    const int connectMs = std::min(call.number("connectTimeoutSeconds"_L1, 10) * 1'000, wholeMs);
    const int commandMs = std::min(call.number("commandTimeoutSeconds"_L1, 35) * 1'000, wholeMs);
    const Later<bool> wholeUp = pause(wholeMs);
    const QString user = call.arguments["user"_L1].toString(machine->sshUser);
    const Outcome tried = co_await ssh(machine, u"key"_s, user, u"true"_s, connectMs);
    if (!tried.succeeded())
        co_return fail(u"unreachable"_s, "no connection to the guest: "_L1 + tried.words());

    const bool interactive = call.flag("interactive"_L1);
    const QString number = QString::number(++lastNumber);
    const QString command = u"exec env ORRERY_RUN=%1 sh %2 %3"_s.arg(
            number, interactive ? u"-lc"_s : u"-c"_s, quoted(call.text("command"_L1)));
    const Later<Outcome> running
            = ssh(machine, u"key"_s, user, command, commandMs + GraceMs, interactive);
    const Later<bool> commandUp = pause(commandMs);
    while (!running.isSet() && !commandUp.isSet() && !wholeUp.isSet() && call.wanted())
        co_await pause(LookMs);
    const bool timedOut = !running.isSet();
    if (timedOut || (co_await running).tooMuch)
        co_await byTools(machine, "kill-run "_L1 + number);
    const Outcome outcome = co_await running;
    if (!machine->is("running"_L1))
        co_return wrongState("the VM is now "_L1 + machine->text("state"_L1));
    if (outcome.tooMuch)
        co_return fail(u"failed"_s, u"the command said more than 16 MiB, and was cut off"_s);
    co_return ok("exitCode"_L1, timedOut ? QJsonValue() : outcome.exitCode, "timedOut"_L1, timedOut,
                 "stdout"_L1, QString::fromUtf8(outcome.output), "stderr"_L1,
                 QString::fromUtf8(outcome.errors));
});

} // namespace
