// The host: what it offers, and its networking service.

#include "arguments.h"
#include "tools.h"

using namespace Qt::StringLiterals;

namespace {

Answer hostCapabilities(World &, const QJsonObject &)
{
    return ok({ { u"maxCpu"_s, MaxCpu },
                { u"maxRamGB"_s, MaxRamGB },
                { u"freeDiskGB"_s, 500 },
                { u"nestedVirt"_s, true },
                { u"rosetta"_s, false },
                { u"bridgeInterfaces"_s, QJsonArray::fromStringList(bridgeInterfaces()) } });
}

Answer listRestoreImages(World &, const QJsonObject &)
{
    return ok({ { u"images"_s, imagesFor(true) } });
}

Answer listImages(World &, const QJsonObject &)
{
    return ok({ { u"images"_s, imagesFor(false) } });
}

Answer networkingStatus(World &world, const QJsonObject &)
{
    return ok({ { u"installed"_s, world.networkingInstalled },
                { u"running"_s, world.networkingInstalled },
                { u"version"_s, world.networkingInstalled ? u"1.0"_s : QJsonValue() },
                { u"problems"_s, QJsonArray() } });
}

Answer networkingInstall(World &world, const QJsonObject &arguments)
{
    world.networkingInstalled = true;
    return networkingStatus(world, arguments);
}

Answer networkingRepair(World &world, const QJsonObject &arguments)
{
    return world.networkingInstalled
                   ? networkingStatus(world, arguments)
                   : fail(u"not_ready"_s, u"not installed: use networking_install"_s);
}

Answer networkingUninstall(World &world, const QJsonObject &arguments)
{
    for (const Machine &machine : world.machines) {
        const bool uses = machine.text("network"_L1) == "bridge"_L1
                          || machine.text("linuxNetworkDriver"_L1) == "service"_L1;
        if (uses && !machine.is("stopped"_L1))
            return fail(u"wrong_state"_s, "in use by "_L1 + machine.text("name"_L1));
    }
    world.networkingInstalled = false;
    return networkingStatus(world, arguments);
}

} // namespace

std::vector<Tool> hostTools()
{
    return {
        { "host_capabilities"_L1, {}, hostCapabilities },
        { "list_restore_images"_L1, {}, listRestoreImages },
        { "list_images"_L1, {}, listImages },
        { "networking_status"_L1, {}, networkingStatus },
        { "networking_install"_L1, {}, networkingInstall },
        { "networking_repair"_L1, {}, networkingRepair },
        { "networking_uninstall"_L1, {}, networkingUninstall },
    };
}
