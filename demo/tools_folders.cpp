// Folders of the host that a machine shares.

#include "tools.h"

#include <QFileInfo>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

Answer addSharedFolder(World &world, Machine &machine, const QJsonObject &arguments)
{
    const QFileInfo folder(arguments["hostPath"_L1].toString());
    if (!folder.isAbsolute() || !folder.isDir())
        return wrong(u"hostPath is not a folder on the host"_s);
    const QString name = arguments["name"_L1].toString(folder.fileName());
    QJsonArray folders = machine.settings["sharedFolders"_L1].toArray();
    for (const QJsonValue &other : std::as_const(folders)) {
        if (other["name"_L1] == name || other["hostPath"_L1] == folder.filePath())
            return wrong(u"this name or folder is shared already"_s);
    }
    const QJsonObject added { { u"folderId"_s, u"folder-%1"_s.arg(world.newNumber()) },
                              { u"name"_s, name },
                              { u"hostPath"_s, folder.filePath() },
                              { u"readOnly"_s, arguments["readOnly"_L1].toBool() } };
    folders.append(added);
    machine.settings["sharedFolders"_L1] = folders;
    return ok(added);
}

Answer noSuchFolder() { return fail(u"not_found"_s, u"the VM shares no folder of this id"_s); }

qsizetype indexOf(const QJsonArray &folders, const QJsonValue &folderId)
{
    const auto found = std::find_if(folders.begin(), folders.end(), [&](const QJsonValue &folder) {
        return folder["folderId"_L1] == folderId;
    });
    return found == folders.end() ? -1 : found - folders.begin();
}

Answer removeSharedFolder(World &, Machine &machine, const QJsonObject &arguments)
{
    QJsonArray folders = machine.settings["sharedFolders"_L1].toArray();
    const qsizetype index = indexOf(folders, arguments["folderId"_L1]);
    if (index < 0)
        return noSuchFolder();
    folders.removeAt(index);
    machine.settings["sharedFolders"_L1] = folders;
    return ok(arguments); // id and folderId
}

Answer setSharedFolderReadonly(World &, Machine &machine, const QJsonObject &arguments)
{
    QJsonArray folders = machine.settings["sharedFolders"_L1].toArray();
    const qsizetype index = indexOf(folders, arguments["folderId"_L1]);
    if (index < 0)
        return noSuchFolder();
    QJsonObject folder = folders[index].toObject();
    folder["readOnly"_L1] = arguments["readOnly"_L1];
    folders[index] = folder;
    machine.settings["sharedFolders"_L1] = folders;
    return ok(folder);
}

} // namespace

std::vector<Tool> folderTools()
{
    return {
        { "add_shared_folder"_L1, {}, addSharedFolder },
        { "remove_shared_folder"_L1, {}, removeSharedFolder },
        { "set_shared_folder_readonly"_L1, {}, setSharedFolderReadonly },
    };
}
