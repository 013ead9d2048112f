// Inside the guest: its tools, SSH, network, commands and clipboard.

#include "host.h"
#include "tools.h"

#include <QFile>
#include <QRegularExpression>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr int StatusMs = 10'000;
constexpr int GraceMs = 5'000; // between the end of a command's time and that of its connection
const QString guestAddress = u"10.0.2.15"_s; // what the network of each machine gives out

QString quoted(QString text) { return u'\'' + text.replace(u"'"_s, u"'\\''"_s) + u'\''; }

Answer silentGuest() { return fail(u"not_ready"_s, u"the guest does not answer"_s); }

const Tool applyGuestTools(
        "apply_guest_tools", "running installed booted", [](const Call &call) -> Reply {
            if (!call.machine->flag("smallLinux"_L1))
                co_return unavailable(u"there are guest tools only for Small Linux"_s);
            const QJsonObject answer = co_await call.machine->qemu->inGuest(u"true"_s);
            if (answer["exit"_L1] != 0)
                co_return silentGuest();
            call.machine->settings["guestTools"_L1] = guestToolsVersion;
            co_return ok(call.machine->pick({ "id"_L1, "guestTools"_L1 }));
        });

QJsonObject sshSettings(const Machine &machine)
{
    if (!machine.flag("sshProvisioned"_L1))
        return { { u"provisioned"_s, false }, { u"user"_s, {} }, { u"host"_s, {} } };
    const QString user = machine.text("sshUser"_L1);
    return object("provisioned"_L1, true, "user"_L1, user, "host"_L1, guestAddress);
}

// Runs a command as a user of the guest; the network forwards a port of 127.0.0.1 to its server.
Later<Outcome> ssh(MachinePtr machine, QString user, QString command, int limitMs,
                   bool terminal = false)
{
    static const QRegularExpression forward(u"HOST_FORWARD.*127\\.0\\.0\\.1\\s+(\\d+)"_s);
    if (!machine->qemu)
        co_return {};
    const QJsonObject network = co_await machine->qemu->monitor(u"info usernet"_s);
    const QString port = forward.match(network["return"_L1].toString()).captured(1);
    const QString words
            = u"-F none -i key -o BatchMode=yes -o IdentitiesOnly=yes -o LogLevel=ERROR "
              "-o IdentityAgent=none -o StrictHostKeyChecking=accept-new "
              "-o UserKnownHostsFile=known_hosts -o HostKeyAlias=guest "
              "-o ConnectTimeout=60 -p %1 127.0.0.1 %2 -l"_s;
    const QStringList arguments = words.arg(port, terminal ? u"-tt"_s : u"-n"_s).split(u' ')
                                  << user << command;
    co_return co_await run(u"ssh"_s, arguments, machine->folder.path(), limitMs);
}

const Tool provisionSsh("provision_ssh", "running tools booted", [](const Call &call) -> Reply {
    QFile file(call.machine->folder.filePath(u"key.pub"_s));
    if (!file.exists()) {
        const QStringList words = u"-q -t ed25519 -C orrery -f key -N"_s.split(u' ') << QString();
        const Outcome made = co_await run(u"ssh-keygen"_s, words, call.machine->folder.path());
        if (!made.succeeded())
            co_return fail(u"failed"_s, "no key could be made: "_L1 + made.words());
    }
    if (!file.open(QIODevice::ReadOnly) || !call.machine->qemu)
        co_return silentGuest();
    const QString command = "ssh-key add "_L1 + quoted(QString::fromUtf8(file.readAll()).trimmed());
    const QJsonObject answer = co_await call.machine->qemu->inGuest(command);
    if (answer["exit"_L1] != 0)
        co_return silentGuest();
    call.machine->settings["sshUser"_L1] = answer["output"_L1].toString().trimmed();
    call.machine->settings["sshProvisioned"_L1] = true;
    co_return ok(sshSettings(*call.machine));
});

const Tool sshStatus("ssh_status", "", [](const Call &call) -> Reply {
    QJsonObject status = sshSettings(*call.machine);
    Outcome tried;
    if (status["provisioned"_L1].toBool())
        tried = co_await ssh(call.machine, status["user"_L1].toString(), u"true"_s, StatusMs);
    status["reachable"_L1] = tried.succeeded();
    co_return ok(status);
});

const Tool revokeSsh("revoke_ssh", "running", [](const Call &call) -> Reply {
    if (call.machine->flag("sshProvisioned"_L1)) {
        const QJsonObject answer = co_await call.machine->qemu->inGuest(u"ssh-key remove"_s);
        if (answer["exit"_L1] != 0)
            co_return silentGuest();
        for (const auto &name : { u"key"_s, u"key.pub"_s })
            call.machine->folder.remove(name);
        call.machine->settings["sshProvisioned"_L1] = false;
    }
    co_return ok("provisioned"_L1, false);
});

const Tool guestNetwork("guest_network", "running tools booted", [](const Call &call) -> Reply {
    const QJsonObject answer = co_await call.machine->qemu->inGuest(
            u"ip -o link; ip -o addr; ip route; cat /etc/resolv.conf"_s);
    if (!answer.contains("exit"_L1))
        co_return silentGuest();
    const auto all = [&answer](const QString &pattern) {
        QJsonArray found;
        const QRegularExpression lines(pattern, QRegularExpression::MultilineOption);
        for (auto it = lines.globalMatch(answer["output"_L1].toString()); it.hasNext();)
            found.append(it.next().captured(1));
        return found;
    };
    const auto first = [&all](const QString &pattern) { return all(pattern).first(); };
    const QJsonObject interface = object("name"_L1, u"eth0"_s, "mac"_L1,
                                         first(u"eth0:.*link/ether (\\S+)"_s), "addresses"_L1,
                                         all(u"eth0 +inet6? ([^ /]+)"_s));
    co_return ok("address"_L1, first(u"eth0 +inet ([^ /]+)"_s), "interfaces"_L1,
                 QJsonArray { interface }, "gateway"_L1, first(u"^default via (\\S+)"_s), "dns"_L1,
                 all(u"^nameserver (\\S+)"_s));
});

const Tool runInGuest("run_in_guest", "running ssh", [](const Call &call) -> Reply {
    static int lastNumber = 0;
    const MachinePtr machine = call.machine;
    const QJsonObject &arguments = call.arguments;
    if (arguments["host"_L1].toString(guestAddress) != guestAddress)
        co_return wrong(u"the guest has only the address %1"_s.arg(guestAddress));
    const int wholeMs = call.number("timeoutSeconds"_L1, 290) * 1'000;
    const int connectMs = std::min(call.number("connectTimeoutSeconds"_L1, 10) * 1'000, wholeMs);
    const int commandMs = std::min(call.number("commandTimeoutSeconds"_L1, 35) * 1'000, wholeMs);
    const Later<bool> wholeUp = pause(wholeMs);
    const QString user = arguments["user"_L1].toString(machine->text("sshUser"_L1));
    const Outcome tried = co_await ssh(machine, user, u"true"_s, connectMs);
    if (!tried.succeeded())
        co_return fail(u"unreachable"_s, "no connection to the guest: "_L1 + tried.words());

    const bool interactive = arguments["interactive"_L1].toBool();
    const QString mark = u"/tmp/.run-%1"_s.arg(++lastNumber);
    const QString command = u"limited %1 %2 %3"_s.arg(mark, interactive ? u"-l"_s : u"-c"_s,
                                                      quoted(arguments["command"_L1].toString()));
    const Later<Outcome> running = ssh(machine, user, command, commandMs + GraceMs, interactive);
    const Later<bool> commandUp = pause(commandMs);
    while (!running.isSet() && !commandUp.isSet() && !wholeUp.isSet() && call.wanted())
        co_await pause(LookMs);
    const auto clean = [&machine, &mark](const QString &how) {
        if (machine->qemu)
            machine->qemu->inGuest(u"kill-session %1 %2"_s.arg(mark, how));
    };
    const bool timedOut = !running.isSet();
    if (timedOut)
        clean(u"now"_s);
    const Outcome outcome = co_await running;
    clean(outcome.tooMuch ? u"now"_s : u"done"_s);
    if (!machine->is("running"_L1))
        co_return wrongState("the VM is now "_L1 + machine->text("state"_L1));
    if (outcome.tooMuch)
        co_return fail(u"failed"_s, u"the command said more than 16 MiB, and was cut off"_s);
    co_return ok("exitCode"_L1, timedOut ? QJsonValue() : outcome.exitCode, "timedOut"_L1, timedOut,
                 "stdout"_L1, QString::fromUtf8(outcome.output), "stderr"_L1,
                 QString::fromUtf8(outcome.errors));
});

} // namespace
