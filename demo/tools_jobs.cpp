// The creation of machines: what from, and the jobs that it is done by.

#include "host.h"
#include "tools.h"

#include <QFileInfo>
#include <QRegularExpression>

namespace {

// What is wrong with the arguments of create_vm among themselves, or nothing.
QString creationComplaint(const Call &call)
{
    static const QRegularExpression names(u"^[^./\\0][^/\\0]{0,99}$"_s);
    static const QRegularExpression accounts(u"^(?!root$)[a-z][a-z0-9_-]{0,30}$"_s);
    static const QRegularExpression passwords(u"^[^\\n\\0]+$"_s);
    const auto has = [&call](QLatin1StringView name) { return call.arguments.contains(name); };
    const bool unattended = call.flag("unattended"_L1);
    const bool linux = call.text("os"_L1) == "linux"_L1;
    const bool userData = has("userData"_L1) || has("userDataPath"_L1);
    const QFileInfo image(call.text("image"_L1));
    const bool listed = linux && (!has("image"_L1) || call.text("image"_L1) == smallLinuxId);
    const bool disc = image.isAbsolute() && image.isFile() && image.suffix() == "iso"_L1;
    const std::pair<bool, QString> faults[] {
        { has("name"_L1) && !names.match(call.text("name"_L1)).hasMatch(),
          u"name must be 1 to 100 characters, without / and no dot in front"_s },
        { call.world.isTaken(call.text("name"_L1)), u"the name is taken"_s },
        { has("linuxExperience"_L1) && !linux, u"linuxExperience is only for os:linux"_s },
        { has("username"_L1) != unattended || has("password"_L1) != unattended,
          u"unattended:true needs username and password, and they need it"_s },
        { unattended && !accounts.match(call.text("username"_L1)).hasMatch(),
          u"username must be of a-z, 0-9, _ and -, and another than root"_s },
        { unattended && !passwords.match(call.text("password"_L1)).hasMatch(),
          u"password must be one line"_s },
        { userData && !(linux && unattended),
          u"user data is only for os:linux with unattended:true"_s },
        { !listed && !disc, u"there is no such image for this os (list_images, or an .iso)"_s },
        { !listed && unattended, u"unattended:true needs a listed image (list_images)"_s },
    };
    for (const auto &[holds, complaint] : faults) {
        if (holds)
            return complaint;
    }
    return {};
}

const Tool createVm("create_vm", "", [](const Call &call) -> Reply {
    if (call.text("os"_L1) == "macOS"_L1)
        co_return unavailable(u"this host cannot run macOS"_s);
    if (const QString complaint = creationComplaint(call); !complaint.isEmpty())
        co_return wrong(complaint);
    if (const auto refusal = refuseHardware(call.arguments))
        co_return *refusal;
    if (call.arguments.contains("userData"_L1) || call.arguments.contains("userDataPath"_L1))
        co_return unavailable(u"Small Linux has no cloud-init"_s);
    if (const QString missing = missingOnHost(); !missing.isEmpty())
        co_return unavailable(missing);
    const JobPtr job = call.world.startCreation(call.arguments);
    if (call.flag("async"_L1))
        co_return ok("jobId"_L1, (*job)["jobId"_L1]);
    while (runs(job))
        co_await pause(LookMs);
    const MachinePtr machine = call.world.machines.value(job->value("vmId"_L1).toString());
    co_return machine ? ok(machine->settings) : fail(u"failed"_s, (*job)["error"_L1].toString());
});

const Tool jobStatus("job_status", "", [](const Call &call) -> Reply { return ok(*call.job); });

const Tool jobWait("job_wait", "", [](const Call &call) -> Reply {
    const Later<bool> timeUp = pause(call.number("timeoutSeconds"_L1, 120) * 1'000);
    while (runs(call.job) && !timeUp.isSet() && call.wanted())
        co_await pause(LookMs);
    co_return ok(*call.job);
});

const Tool listJobs("list_jobs", "", [](const Call &call) -> Reply {
    QJsonArray all;
    for (const JobPtr &job : call.world.jobs)
        all.append(*job);
    return ok("jobs"_L1, all);
});

const Tool listImages("list_images", "", [](const Call &) -> Reply {
    if (!missingOnHost().isEmpty())
        return ok("images"_L1, QJsonArray());
    const QByteArray version = "Small Linux " + contents(guestFile(u"version"_s)).trimmed();
    const QJsonObject image = object("imageId"_L1, smallLinuxId, "os"_L1, u"linux"_s, "version"_L1,
                                     QString::fromUtf8(version), "downloaded"_L1, true);
    return ok("images"_L1, QJsonArray { image });
});

} // namespace
