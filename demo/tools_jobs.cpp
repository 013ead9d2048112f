// The creation of machines, and the jobs that it is done by.

#include "host.h"
#include "tools.h"

#include <QFileInfo>
#include <QRegularExpression>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype MaxNameLength = 100;

QString accountComplaint(const QJsonObject &arguments)
{
    static const QRegularExpression account(u"^[a-z][a-z0-9_-]{0,30}$"_s);
    const auto has = [&](QLatin1StringView name) { return arguments.contains(name); };
    const bool unattended = arguments["unattended"_L1].toBool();
    const QString user = arguments["username"_L1].toString();
    const QString password = arguments["password"_L1].toString();
    if (unattended && !(has("username"_L1) && has("password"_L1)))
        return u"unattended:true needs username and password"_s;
    if (!unattended && (has("username"_L1) || has("password"_L1)))
        return u"username and password are only for unattended:true"_s;
    if (unattended && (!account.match(user).hasMatch() || user == "root"_L1))
        return u"username must be of a-z, 0-9, _ and -, and another than root"_s;
    if (unattended && (password.isEmpty() || password.contains(u'\n') || password.contains(u'\0')))
        return u"password must be one line"_s;
    if (!has("userData"_L1) && !has("userDataPath"_L1))
        return {};
    if (arguments["os"_L1].toString() != "linux"_L1 || !unattended)
        return u"user data is only for os:linux with unattended:true"_s;
    if (has("userData"_L1) && has("userDataPath"_L1))
        return u"give userData or userDataPath, not both"_s;
    if (has("userDataPath"_L1) && !QFileInfo(arguments["userDataPath"_L1].toString()).isFile())
        return u"userDataPath is not a file on the host"_s;
    return {};
}

QString imageComplaint(const QJsonObject &arguments)
{
    const QString image = arguments["image"_L1].toString();
    const QJsonArray listed = images();
    const bool known = std::any_of(listed.begin(), listed.end(), [&](const QJsonValue &one) {
        return (image.isEmpty() || one["imageId"_L1] == image)
               && one["os"_L1] == arguments["os"_L1];
    });
    const QFileInfo file(image);
    if (known && (!image.isEmpty() || !arguments.contains("image"_L1)))
        return {};
    if (!file.isAbsolute() || !file.isFile() || file.suffix() != "iso"_L1)
        return "there is no image for this os (list_images, or an .iso): "_L1 + image;
    return arguments["unattended"_L1].toBool()
                   ? u"unattended:true needs a listed image (list_images)"_s
                   : QString();
}

std::optional<Answer> refuseCreation(const World &world, const QJsonObject &arguments)
{
    const QString name = arguments["name"_L1].toString();
    if (arguments.contains("name"_L1)
        && (name.isEmpty() || name.size() > MaxNameLength || name.startsWith(u'.')
            || name.contains(u'/') || name.contains(u'\0')))
        return wrong(u"name must be up to %1 characters, without / and no dot in front"_s.arg(
                MaxNameLength));
    if (world.isTaken(name))
        return wrong(u"the name %1 is taken"_s.arg(name));
    if (arguments["os"_L1].toString() == "macOS"_L1)
        return unavailable(u"this host cannot run macOS"_s);
    if (const QString missing = missingOnHost(); !missing.isEmpty())
        return unavailable(missing);
    if (arguments.contains("linuxExperience"_L1) && arguments["os"_L1].toString() != "linux"_L1)
        return wrong(u"linuxExperience is only for os:linux"_s);
    for (const QString &complaint : { accountComplaint(arguments), imageComplaint(arguments) }) {
        if (!complaint.isEmpty())
            return wrong(complaint);
    }
    if (arguments.contains("userData"_L1) || arguments.contains("userDataPath"_L1))
        return unavailable(u"Small Linux has no cloud-init"_s);
    return refuseHardware(arguments);
}

Later<Answer> createVm(const Call &call)
{
    if (const auto refusal = refuseCreation(call.world, call.arguments))
        co_return *refusal;
    const JobPtr job = call.world.startCreation(call.arguments);
    if (call.arguments["async"_L1].toBool())
        co_return ok({ { u"jobId"_s, job->status["jobId"_L1] } });
    while (job->runs())
        co_await pause(LookMs);
    const MachinePtr machine = call.world.findMachine(job->status["vmId"_L1].toString());
    co_return machine ? ok(told(*machine)) : fail(u"failed"_s, job->status["error"_L1].toString());
}

Later<Answer> jobStatus(const Call &call) { return ok(call.job->status); }

Later<Answer> jobWait(const Call &call)
{
    const Later<bool> timeUp
            = pause(static_cast<int>(call.arguments["timeoutSeconds"_L1].toInteger(120) * 1'000));
    while (call.job->runs() && !timeUp.isSet() && call.wanted())
        co_await pause(LookMs);
    co_return ok(call.job->status);
}

Later<Answer> listJobs(const Call &call)
{
    QJsonArray all;
    for (const JobPtr &job : call.world.jobs)
        all.append(job->status);
    return ok({ { u"jobs"_s, all } });
}

} // namespace

std::vector<Tool> jobTools()
{
    using enum Tool::Subject;
    return {
        { "create_vm"_L1, Host, {}, createVm },
        { "job_status"_L1, Job, {}, jobStatus },
        { "job_wait"_L1, Job, {}, jobWait },
        { "list_jobs"_L1, Host, {}, listJobs },
    };
}
