// What a machine is made of: processors and memory, disk, installer media, shared folders.

#include "process.h"
#include "tools.h"

#include <QFileInfo>

using namespace Qt::StringLiterals;

namespace {

constexpr int DiskToolMs = 60'000;

Later<Answer> setHardware(const Call &call)
{
    if (call.arguments.size() < 2)
        return wrong(u"give at least one setting to change"_s);
    QJsonObject changed = call.machine->settings;
    for (auto it = call.arguments.begin(); it != call.arguments.end(); ++it)
        changed[it.key()] = it.value();
    if (const auto refusal = refuseHardware(changed))
        return *refusal;
    call.machine->settings = changed;
    return ok(told(*call.machine));
}

Later<Answer> resizeDisk(const Call &call)
{
    const int size = call.arguments["newGB"_L1].toInt();
    if (size <= call.machine->settings["diskGB"_L1].toInt())
        co_return wrong(u"a disk can only grow"_s);
    call.machine->busy = true;
    const Later<Outcome> resizing
            = run(u"qemu-img"_s,
                  { u"resize"_s, u"-q"_s, call.machine->file(u"disk.qcow2"_s), u"%1G"_s.arg(size) },
                  DiskToolMs);
    const Outcome outcome = co_await resizing;
    call.machine->busy = false;
    if (!outcome.succeeded())
        co_return fail(u"failed"_s, outcome.words());
    call.machine->settings["diskGB"_L1] = size;
    co_return ok(call.machine->pick({ "id"_L1, "diskGB"_L1 }));
}

Later<Answer> setInstallerMedia(const Call &call)
{
    const QFileInfo file(call.arguments["path"_L1].toString());
    if (!file.isAbsolute() || !file.isFile() || !file.isReadable() || file.suffix() != "iso"_L1)
        return wrong(u"path is not a readable .iso file on the host"_s);
    call.machine->settings["installerMedia"_L1] = file.filePath();
    return ok(told(*call.machine));
}

Later<Answer> finishInstall(const Call &call)
{
    QJsonObject &settings = call.machine->settings;
    // The tools are part of Small Linux; any other system lacks them.
    if (settings["smallLinux"_L1].toBool())
        settings["guestTools"_L1] = u"1.0"_s;
    settings["installed"_L1] = true;
    settings["installerMedia"_L1] = QJsonValue::Null;
    return ok(told(*call.machine));
}

Later<Answer> setAttachLinuxGuestTools(const Call &call)
{
    if (call.arguments["enabled"_L1].toBool())
        return unavailable(u"there is no disc of guest tools: Small Linux has them built in"_s);
    return ok(told(*call.machine));
}

Later<Answer> setLinuxNetworkPath(const Call &)
{
    return unavailable(u"the demonstration has only the builtin driver"_s);
}

Later<Answer> noSharedFolders(const Call &)
{
    return unavailable(u"the kernel of Small Linux cannot share folders"_s);
}

Later<Answer> noSuchFolder(const Call &)
{
    return fail(u"not_found"_s, u"the VM shares no folder of this id"_s);
}

} // namespace

std::vector<Tool> hardwareTools()
{
    using enum Needs;
    using Tool::Subject::Machine;
    return {
        { "set_hardware"_L1, Machine, { Stopped }, setHardware },
        { "resize_disk"_L1, Machine, { Stopped, Confirm }, resizeDisk },
        { "set_installer_media"_L1, Machine, { Stopped }, setInstallerMedia },
        { "finish_install"_L1, Machine, { Stopped }, finishInstall },
        { "set_attach_linux_guest_tools"_L1,
          Machine,
          { Stopped, Linux },
          setAttachLinuxGuestTools },
        { "set_linux_network_path"_L1, Machine, { Linux }, setLinuxNetworkPath },
        { "add_shared_folder"_L1, Machine, {}, noSharedFolders },
        { "remove_shared_folder"_L1, Machine, {}, noSuchFolder },
        { "set_shared_folder_readonly"_L1, Machine, {}, noSuchFolder },
    };
}
