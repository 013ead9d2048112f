// Inside the guest: its tools, SSH, network, commands and clipboard.

#include "process.h"
#include "tools.h"

#include <QFile>
#include <QRegularExpression>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr int ToolsMs = 25'000; // for what the guest tools do
constexpr int KeyMs = 20'000;
constexpr int StatusSeconds = 10;
constexpr int GraceMs = 5'000; // between the end of a command's time and that of its connection
const QString guestAddress = u"10.0.2.15"_s; // what the network of each machine gives out

Answer silentGuest() { return fail(u"not_ready"_s, u"the guest does not answer"_s); }

Later<Answer> applyGuestTools(const Call &call)
{
    if (!call.machine->settings["smallLinux"_L1].toBool())
        co_return unavailable(u"there are guest tools only for Small Linux"_s);
    const GuestAnswer answer = co_await call.machine->qemu->inGuest(u"true"_s, ToolsMs);
    if (answer.exitCode != 0)
        co_return silentGuest();
    call.machine->settings["guestTools"_L1] = u"1.0"_s;
    co_return ok(call.machine->pick({ "id"_L1, "guestTools"_L1 }));
}

QJsonObject sshSettings(const Machine &machine)
{
    const bool provisioned = machine.settings["sshProvisioned"_L1].toBool();
    return { { u"provisioned"_s, provisioned },
             { u"user"_s, provisioned ? machine.settings["sshUser"_L1] : QJsonValue() },
             { u"host"_s, provisioned ? guestAddress : QJsonValue() } };
}

// The port of 127.0.0.1 behind which the guest's SSH server is; 0 when the machine has ended.
Later<int> sshPort(MachinePtr machine)
{
    static const QRegularExpression forward(
            u"HOST_FORWARD\\S*\\s+\\d+\\s+127\\.0\\.0\\.1\\s+(\\d+)"_s);
    if (!machine->qemu)
        co_return 0;
    const QJsonObject answer = co_await machine->qemu->monitor(u"info usernet"_s);
    co_return forward.match(answer["return"_L1].toString()).captured(1).toInt();
}

Later<Outcome> ssh(MachinePtr machine, QStringList options, QString user, QString command,
                   int connectSeconds, int limitMs)
{
    const int port = co_await sshPort(machine);
    const auto setting = [](const QString &text) { return QStringList { u"-o"_s, text }; };
    const QStringList arguments
            = QStringList { u"-F"_s, u"none"_s,
                            u"-i"_s, machine->file(u"key"_s),
                            u"-p"_s, QString::number(port) }
              + setting(u"BatchMode=yes"_s) + setting(u"IdentitiesOnly=yes"_s)
              + setting(u"StrictHostKeyChecking=accept-new"_s) + setting(u"HostKeyAlias=guest"_s)
              + setting("UserKnownHostsFile="_L1 + machine->file(u"known_hosts"_s))
              + setting(u"LogLevel=ERROR"_s) + setting(u"IdentityAgent=none"_s)
              + setting(u"ConnectTimeout=%1"_s.arg(connectSeconds)) + options
              + QStringList { u"-l"_s, user, u"127.0.0.1"_s, command };
    const Later<Outcome> running = run(u"ssh"_s, arguments, limitMs);
    co_return co_await running;
}

Later<Answer> provisionSsh(const Call &call)
{
    const QString key = call.machine->file(u"key"_s);
    if (!QFile::exists(key)) {
        const Later<Outcome> making = run(
                u"ssh-keygen"_s,
                { u"-q"_s, u"-t"_s, u"ed25519"_s, u"-N"_s, {}, u"-C"_s, u"orrery"_s, u"-f"_s, key },
                KeyMs);
        const Outcome made = co_await making;
        if (!made.succeeded())
            co_return fail(u"failed"_s, "no key could be made: "_L1 + made.words());
    }
    QFile file(key + ".pub"_L1);
    if (!file.open(QIODevice::ReadOnly) || !call.machine->qemu)
        co_return fail(u"failed"_s, u"no key could be made"_s);
    const QString command = u"user=$(cat /home/.system/user) && cd /home/$user && mkdir -p .ssh && "
                            "echo '%1' >>.ssh/authorized_keys && chmod 700 .ssh && "
                            "chmod 600 .ssh/authorized_keys && chown -R $user .ssh && "
                            "touch /home/.system/ssh && ssh-server && echo $user"_s.arg(
                                    QString::fromUtf8(file.readAll()).trimmed());
    const GuestAnswer answer = co_await call.machine->qemu->inGuest(command, ToolsMs);
    if (answer.exitCode != 0)
        co_return silentGuest();
    call.machine->settings["sshUser"_L1] = answer.output.trimmed();
    call.machine->settings["sshProvisioned"_L1] = true;
    co_return ok(sshSettings(*call.machine));
}

Later<Answer> sshStatus(const Call &call)
{
    QJsonObject status = sshSettings(*call.machine);
    bool reachable = false;
    if (status["provisioned"_L1].toBool() && call.machine->qemu) {
        const Later<Outcome> trying = ssh(call.machine, {}, status["user"_L1].toString(), u"true"_s,
                                          StatusSeconds, StatusSeconds * 1'000);
        const Outcome tried = co_await trying;
        reachable = tried.succeeded();
    }
    status["reachable"_L1] = reachable;
    co_return ok(status);
}

Later<Answer> revokeSsh(const Call &call)
{
    if (call.machine->settings["sshProvisioned"_L1].toBool()) {
        const GuestAnswer answer = co_await call.machine->qemu->inGuest(
                u"cd /home/$(cat /home/.system/user) && sed -i '/ orrery$/d' .ssh/authorized_keys"_s,
                ToolsMs);
        if (answer.exitCode != 0)
            co_return silentGuest();
        for (const auto &name : { u"key"_s, u"key.pub"_s })
            QFile::remove(call.machine->file(name));
        call.machine->settings["sshProvisioned"_L1] = false;
    }
    co_return ok({ { u"provisioned"_s, false } });
}

Later<Answer> guestNetwork(const Call &call)
{
    const GuestAnswer answer = co_await call.machine->qemu->inGuest(
            u"ip -o link; ip -o addr; ip route; cat /etc/resolv.conf"_s, ToolsMs);
    if (answer.exitCode < 0)
        co_return silentGuest();
    const auto find = [&](const QString &pattern) -> QJsonValue {
        const auto match = QRegularExpression(pattern, QRegularExpression::MultilineOption)
                                   .match(answer.output);
        return match.hasMatch() ? QJsonValue(match.captured(1)) : QJsonValue();
    };
    const auto findAll = [&](const QString &pattern) {
        QJsonArray all;
        auto matches = QRegularExpression(pattern, QRegularExpression::MultilineOption)
                               .globalMatch(answer.output);
        while (matches.hasNext())
            all.append(matches.next().captured(1));
        return all;
    };
    const QJsonObject interface {
        { u"name"_s, u"eth0"_s }, { u"mac"_s, find(u"eth0:.*link/ether (\\S+)"_s) },
                { u"addresses"_s, findAll(u"eth0 +inet6? ([^ /]+)"_s) },
    };
    co_return ok({ { u"address"_s, find(u"eth0 +inet ([^ /]+)"_s) },
                   { u"interfaces"_s, QJsonArray { interface } },
                   { u"gateway"_s, find(u"^default via (\\S+)"_s) },
                   { u"dns"_s, findAll(u"^nameserver (\\S+)"_s) } });
}

QString quoted(QString text) { return u'\'' + text.replace(u"'"_s, u"'\\''"_s) + u'\''; }

// How long connecting, the command and the whole may take, in seconds.
struct Limits
{
    explicit Limits(const QJsonObject &arguments)
        : connect(arguments["connectTimeoutSeconds"_L1].toInt(10)),
          command(arguments["commandTimeoutSeconds"_L1].toInt(35)),
          whole(arguments["timeoutSeconds"_L1].toInt(std::min(connect + command, 290)))
    {
        connect = std::min(connect, whole);
    }

    int connect;
    int command;
    int whole;
};

Later<Answer> runInGuest(const Call &call)
{
    static int lastNumber = 0;
    const MachinePtr machine = call.machine;
    const QJsonObject &arguments = call.arguments;
    if (arguments["host"_L1].toString(guestAddress) != guestAddress)
        co_return wrong(u"the guest has only the address %1"_s.arg(guestAddress));
    const Limits limits(arguments);
    const bool interactive = arguments["interactive"_L1].toBool();
    const QString user = arguments["user"_L1].toString(machine->settings["sshUser"_L1].toString());
    const QString mark = u"/tmp/.run-%1"_s.arg(++lastNumber);
    const Later<Outcome> trying
            = ssh(machine, {}, user, u"true"_s, limits.connect, limits.connect * 1'000);
    QElapsedTimer spent;
    spent.start();
    const Outcome tried = co_await trying;
    if (!tried.succeeded())
        co_return fail(u"unreachable"_s, "no connection to the guest: "_L1 + tried.words());
    const int commandMs = static_cast<int>(
            std::min<qint64>(limits.command * 1'000, limits.whole * 1'000 - spent.elapsed()));
    const Later<Outcome> running
            = ssh(machine, interactive ? QStringList { u"-tt"_s } : QStringList(), user,
                  u"limited %1 %2 %3"_s.arg(mark, interactive ? u"-l"_s : u"-c"_s,
                                            quoted(arguments["command"_L1].toString())),
                  limits.connect, commandMs + GraceMs);
    const Later<bool> timeUp = pause(commandMs);
    while (!running.isSet() && !timeUp.isSet() && call.wanted())
        co_await pause(LookMs);
    const bool timedOut = !running.isSet();
    if (timedOut && machine->qemu)
        machine->qemu->inGuest(u"kill-session $(cat %1)"_s.arg(mark), ToolsMs);
    const Outcome outcome = co_await running;
    if (machine->qemu)
        machine->qemu->inGuest("rm -f "_L1 + mark, ToolsMs);
    if (outcome.tooMuch)
        co_return fail(u"failed"_s, u"the command said more than 16 MiB, and was cut off"_s);
    if (!machine->is("running"_L1))
        co_return wrongState("the VM is now "_L1 + machine->text("state"_L1));
    co_return ok({ { u"exitCode"_s, timedOut ? QJsonValue() : QJsonValue(outcome.exitCode) },
                   { u"stdout"_s, QString::fromUtf8(outcome.output) },
                   { u"stderr"_s, QString::fromUtf8(outcome.errors) },
                   { u"timedOut"_s, timedOut } });
}

Later<Answer> readGuestClipboard(const Call &call)
{
    if (call.arguments["selectAll"_L1].toBool() && !call.arguments["copy"_L1].toBool())
        return wrong(u"selectAll is only for copy:true"_s);
    return unavailable(u"the guest has no desktop, so no clipboard"_s);
}

} // namespace

std::vector<Tool> guestTools()
{
    using enum Needs;
    using Tool::Subject::Machine;
    return {
        { "apply_guest_tools"_L1, Machine, { Running, Installed, Booted }, applyGuestTools },
        { "provision_ssh"_L1, Machine, { Running, GuestTools, Booted }, provisionSsh },
        { "ssh_status"_L1, Machine, {}, sshStatus },
        { "revoke_ssh"_L1, Machine, { Running }, revokeSsh },
        { "guest_network"_L1, Machine, { Running, GuestTools, Booted }, guestNetwork },
        { "run_in_guest"_L1, Machine, { Running, Ssh }, runInGuest },
        { "read_guest_clipboard"_L1, Machine, { Running, Ssh }, readGuestClipboard },
    };
}
