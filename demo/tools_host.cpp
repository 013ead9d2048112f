// The host: what it offers, and its networking service, which the demonstration does without.

#include "host.h"
#include "tools.h"

using namespace Qt::StringLiterals;

namespace {

Later<Answer> hostCapabilities(const Call &call)
{
    return ok({ { u"maxCpu"_s, hostProcessors() },
                { u"maxRamGB"_s, hostMemoryGB() },
                { u"freeDiskGB"_s, freeDiskGB(call.world.folder()) },
                { u"nestedVirt"_s, false },
                { u"rosetta"_s, false },
                { u"bridgeInterfaces"_s, QJsonArray() } });
}

Later<Answer> listRestoreImages(const Call &)
{
    return unavailable(u"this host cannot run macOS"_s);
}

Later<Answer> listImages(const Call &) { return ok({ { u"images"_s, images() } }); }

Later<Answer> networkingStatus(const Call &)
{
    return ok({ { u"installed"_s, false },
                { u"running"_s, false },
                { u"version"_s, QJsonValue::Null },
                { u"problems"_s, QJsonArray() } });
}

Later<Answer> noNetworking(const Call &)
{
    return unavailable(u"the demonstration has no networking service"_s);
}

} // namespace

std::vector<Tool> hostTools()
{
    using enum Tool::Subject;
    return {
        { "host_capabilities"_L1, Host, {}, hostCapabilities },
        { "list_restore_images"_L1, Host, {}, listRestoreImages },
        { "list_images"_L1, Host, {}, listImages },
        { "networking_status"_L1, Host, {}, networkingStatus },
        { "networking_install"_L1, Host, {}, noNetworking },
        { "networking_repair"_L1, Host, {}, noNetworking },
        { "networking_uninstall"_L1, Host, {}, noNetworking },
    };
}
