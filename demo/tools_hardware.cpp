// What a machine is made of: processors and memory, disk, installer media, network.

#include "tools.h"

#include <QFileInfo>

using namespace Qt::StringLiterals;

namespace {

Answer setHardware(World &world, Machine &machine, const QJsonObject &arguments)
{
    if (arguments.size() < 2)
        return wrong(u"give at least one setting to change"_s);
    QJsonObject changed = machine.settings;
    for (auto it = arguments.begin(); it != arguments.end(); ++it)
        changed[it.key()] = it.value();
    const bool bridged = changed["network"_L1].toString() == "bridge"_L1;
    if (!bridged && !arguments.contains("bridgeInterface"_L1))
        changed["bridgeInterface"_L1] = QJsonValue::Null;
    else if (changed["bridgeInterface"_L1].isNull())
        changed["bridgeInterface"_L1] = bridgeInterfaces().first();
    if (const QString complaint = hardwareComplaint(changed); !complaint.isEmpty())
        return wrong(complaint);
    if (world.lacksNetworking(arguments)) // what was chosen before may stay
        return noNetworking();
    machine.settings = changed;
    return ok(changed);
}

Answer resizeDisk(World &, Machine &machine, const QJsonObject &arguments)
{
    if (arguments["newGB"_L1].toInteger() <= machine.settings["diskGB"_L1].toInteger())
        return wrong(u"a disk can only grow"_s);
    machine.settings["diskGB"_L1] = arguments["newGB"_L1];
    return ok(machine.pick({ "id"_L1, "diskGB"_L1 }));
}

Answer setInstallerMedia(World &, Machine &machine, const QJsonObject &arguments)
{
    const QFileInfo file(arguments["path"_L1].toString());
    if (!file.isAbsolute() || !file.isFile() || file.suffix() != "iso"_L1)
        return wrong(u"path is not an .iso file on the host"_s);
    machine.settings["installerMedia"_L1] = file.filePath();
    return ok(machine.settings);
}

Answer finishInstall(World &, Machine &machine, const QJsonObject &)
{
    machine.settings["installed"_L1] = true;
    machine.settings["installerMedia"_L1] = QJsonValue::Null;
    return ok(machine.settings);
}

Answer setAttachLinuxGuestTools(World &, Machine &machine, const QJsonObject &arguments)
{
    machine.settings["attachLinuxGuestTools"_L1] = arguments["enabled"_L1];
    return ok(machine.settings);
}

Answer setLinuxNetworkPath(World &world, Machine &machine, const QJsonObject &arguments)
{
    const QJsonObject changed { { u"linuxNetworkDriver"_s, arguments["driver"_L1] } };
    if (world.lacksNetworking(changed))
        return noNetworking();
    machine.settings["linuxNetworkDriver"_L1] = arguments["driver"_L1];
    return ok(machine.pick({ "id"_L1, "linuxNetworkDriver"_L1 }));
}

} // namespace

std::vector<Tool> hardwareTools()
{
    using enum Needs;
    return {
        { "set_hardware"_L1, { Stopped }, setHardware },
        { "resize_disk"_L1, { Stopped, Confirm }, resizeDisk },
        { "set_installer_media"_L1, { Stopped, NotMacOS }, setInstallerMedia },
        { "finish_install"_L1, { Stopped }, finishInstall },
        { "set_attach_linux_guest_tools"_L1, { Stopped, Linux }, setAttachLinuxGuestTools },
        { "set_linux_network_path"_L1, { Linux }, setLinuxNetworkPath },
    };
}
