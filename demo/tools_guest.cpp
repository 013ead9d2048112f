// Inside the guest: its tools, SSH, network, commands and clipboard.

#include "tools.h"

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

const QString guestAddress = u"192.0.2.10"_s; // of the addresses meant for documents

Answer applyGuestTools(World &, Machine &machine, const QJsonObject &)
{
    machine.settings["guestTools"_L1] = u"1.0"_s;
    return ok(machine.pick({ "id"_L1, "guestTools"_L1 }));
}

Answer sshStatus(World &, Machine &machine, const QJsonObject &)
{
    const bool provisioned = machine.settings["sshProvisioned"_L1].toBool();
    return ok({ { u"provisioned"_s, provisioned },
                { u"user"_s, provisioned ? u"demo"_s : QJsonValue() },
                { u"host"_s, provisioned ? guestAddress : QJsonValue() },
                { u"reachable"_s, provisioned && machine.is("running"_L1) } });
}

Answer provisionSsh(World &world, Machine &machine, const QJsonObject &arguments)
{
    machine.settings["sshProvisioned"_L1] = true;
    return sshStatus(world, machine, arguments);
}

Answer revokeSsh(World &world, Machine &machine, const QJsonObject &arguments)
{
    machine.settings["sshProvisioned"_L1] = false;
    return sshStatus(world, machine, arguments);
}

Answer guestNetwork(World &, Machine &, const QJsonObject &)
{
    const QJsonObject interface {
        { u"name"_s, u"eth0"_s }, { u"mac"_s, u"52:54:00:00:00:10"_s },
        {
            u"addresses"_s, QJsonArray { guestAddress }
        }
    };
    return ok({ { u"address"_s, guestAddress },
                { u"interfaces"_s, QJsonArray { interface } },
                { u"gateway"_s, u"192.0.2.1"_s },
                { u"dns"_s, QJsonArray { u"192.0.2.1"_s } } });
}

Answer commandResult(const QJsonValue &exitCode, const QString &out, const QString &err)
{
    return ok({ { u"exitCode"_s, exitCode },
                { u"stdout"_s, out },
                { u"stderr"_s, err },
                { u"timedOut"_s, exitCode.isNull() } });
}

Answer sleepInGuest(qint64 seconds, const QJsonObject &arguments)
{
    const qint64 connecting = arguments["connectTimeoutSeconds"_L1].toInteger(10);
    const qint64 command = arguments["commandTimeoutSeconds"_L1].toInteger(35);
    const qint64 whole = arguments["timeoutSeconds"_L1].toInteger(connecting + command);
    const qint64 limit = std::min(command, whole);
    return after(std::min(seconds, limit) * 1'000, [=] {
        return commandResult(seconds > limit ? QJsonValue() : QJsonValue(0), {}, {});
    });
}

// Knows three commands: what a real guest would run is not simulated.
Answer runInGuest(World &, Machine &machine, const QJsonObject &arguments)
{
    const QStringList words = arguments["command"_L1].toString().split(u' ', Qt::SkipEmptyParts);
    const QString program = words.value(0);
    if (program == "echo"_L1)
        return commandResult(0, words.sliced(1).join(u' ') + u'\n', {});
    if (program == "uname"_L1)
        return commandResult(0, machine.text("os"_L1) + u'\n', {});
    if (program == "sleep"_L1)
        return sleepInGuest(words.value(1).toLongLong(), arguments);
    return commandResult(127, {},
                         program + ": not found (the demonstration knows echo, uname, sleep)\n"_L1);
}

Answer readGuestClipboard(World &, Machine &, const QJsonObject &arguments)
{
    if (arguments["selectAll"_L1].toBool() && !arguments["copy"_L1].toBool())
        return wrong(u"selectAll is only for copy:true"_s);
    const QString clipboard = u"clipboard of the demonstration"_s;
    const QString text = clipboard.left(arguments["maxChars"_L1].toInt(10'000));
    return ok({ { u"text"_s, text }, { u"truncated"_s, text.size() < clipboard.size() } });
}

} // namespace

std::vector<Tool> guestTools()
{
    using enum Needs;
    return {
        { "apply_guest_tools"_L1, { Running, Installed, Booted }, applyGuestTools },
        { "provision_ssh"_L1, { Running, GuestTools, Booted }, provisionSsh },
        { "ssh_status"_L1, {}, sshStatus },
        { "revoke_ssh"_L1, { Running }, revokeSsh },
        { "guest_network"_L1, { Running, GuestTools }, guestNetwork },
        { "run_in_guest"_L1, { Running, Ssh }, runInGuest },
        { "read_guest_clipboard"_L1, { Running, Ssh }, readGuestClipboard },
    };
}
