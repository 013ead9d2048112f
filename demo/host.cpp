#include "host.h"

#include "screen.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRect>
#include <QRegularExpression>

#include <algorithm>
#include <memory>

using namespace Qt::StringLiterals;

namespace {

constexpr int MaxCpu = 16;
constexpr int MaxRamGB = 64;
constexpr int MaxLogLines = 200;
constexpr int JobStepMs = 400;
constexpr int ShutdownMs = 1'000;
constexpr int BootLineMs = 300;
constexpr qint64 Second = 1'000;
constexpr auto JobSteps = { "checking the image", "making the disk",    "copying the system",
                            "copying the system", "setting up devices", "finishing" };
const QStringList bridges { u"eth0"_s, u"wlan0"_s };

Answer ok(const QJsonValue &result) { return { { { u"result"_s, result } }, {} }; }

Answer fail(const QString &code, const QString &message)
{
    const QJsonObject error { { u"code"_s, code }, { u"message"_s, message } };
    return { { { u"error"_s, error } }, {} };
}

Answer wrong(const QString &message) { return fail(u"invalid_argument"_s, message); }

Answer unavailable() { return fail(u"not_available"_s, u"not available in the demonstration"_s); }

// An answer that comes once that much time has passed.
Answer after(qint64 ms, const std::function<Answer()> &act)
{
    QElapsedTimer timer;
    timer.start();
    return { {}, [=]() -> std::optional<Answer> {
                if (timer.elapsed() < ms)
                    return {};
                return act();
            } };
}

QJsonArray imagesFor(bool macOS)
{
    const auto image = [](const QString &id, const QString &os, const QString &version, bool here) {
        return QJsonObject { { u"imageId"_s, id },
                             { u"os"_s, os },
                             { u"version"_s, version },
                             { u"downloaded"_s, here } };
    };
    if (macOS)
        return { image(u"macos-15.1"_s, u"macOS"_s, u"15.1"_s, true),
                 image(u"macos-14.6"_s, u"macOS"_s, u"14.6"_s, false) };
    return { image(u"ubuntu-24.04"_s, u"linux"_s, u"Ubuntu 24.04"_s, false),
             image(u"debian-12"_s, u"linux"_s, u"Debian 12"_s, true),
             image(u"windows-11"_s, u"windows"_s, u"Windows 11"_s, false) };
}

QString newestImage(const QString &os)
{
    const QJsonArray images = imagesFor(os == "macOS"_L1);
    const auto found = std::find_if(images.begin(), images.end(),
                                    [&](const auto &image) { return image["os"_L1] == os; });
    return found == images.end() ? QString() : (*found)["imageId"_L1].toString();
}

// Arguments, checked against the catalogue's schemas and the limits that its prose states

struct Range
{
    double min;
    double max;
};

const std::map<QString, Range> ranges {
    { u"cpu"_s, { 1, MaxCpu } },         { u"ramGB"_s, { 1, MaxRamGB } },
    { u"diskGB"_s, { 8, 2048 } },        { u"newGB"_s, { 8, 2048 } },
    { u"width"_s, { 320, 7680 } },       { u"height"_s, { 200, 4320 } },
    { u"scale"_s, { 0.1, 1 } },          { u"imageScale"_s, { 0.1, 1 } },
    { u"dy"_s, { -100, 100 } },          { u"delayMs"_s, { 0, 5000 } },
    { u"maxChars"_s, { 1, 100000 } },    { u"captureDelayMs"_s, { 0, 10000 } },
    { u"sinceSeconds"_s, { 1, 1e9 } },   { u"connectTimeoutSeconds"_s, { 1, 60 } },
    { u"timeoutSeconds"_s, { 1, 290 } }, { u"commandTimeoutSeconds"_s, { 1, 280 } },
};

QString objectComplaint(const QJsonObject &schema, const QJsonObject &arguments);

QString valueComplaint(const QJsonObject &schema, const QString &name, const QJsonValue &value)
{
    const QString type = schema["type"_L1].toString();
    const bool fits = type == "string"_L1    ? value.isString()
                      : type == "boolean"_L1 ? value.isBool()
                      : type == "number"_L1  ? value.isDouble()
                      : type == "array"_L1   ? value.isArray()
                      : type == "object"_L1  ? value.isObject()
                                             : value.toInteger(0) == value.toInteger(1);
    if (!fits)
        return u"%1 must be of type %2"_s.arg(name, type);
    const QJsonArray accepted = schema["enum"_L1].toArray();
    if (!accepted.isEmpty() && !accepted.contains(value))
        return u"%1 has no value %2"_s.arg(name, value.toString());
    if (const auto range = ranges.find(name); range != ranges.end()) {
        const double max = schema["maximum"_L1].toDouble(range->second.max);
        if (value.toDouble() < range->second.min || value.toDouble() > max)
            return u"%1 must be %2 to %3"_s.arg(name).arg(range->second.min).arg(max);
    }
    const QJsonArray elements = value.toArray();
    for (const QJsonValue &element : elements) {
        const QString complaint = valueComplaint(schema["items"_L1].toObject(),
                                                 "an element of "_L1 + name, element);
        if (!complaint.isEmpty())
            return complaint;
    }
    return value.isObject() ? objectComplaint(schema, value.toObject()) : QString();
}

QString objectComplaint(const QJsonObject &schema, const QJsonObject &arguments)
{
    const QJsonArray required = schema["required"_L1].toArray();
    for (const QJsonValue &name : required) {
        if (!arguments.contains(name.toString()))
            return name.toString() + " is required"_L1;
    }
    const QJsonObject properties = schema["properties"_L1].toObject();
    for (auto it = arguments.begin(); it != arguments.end(); ++it) {
        if (!properties.contains(it.key()))
            return "there is no argument "_L1 + it.key();
        const QString complaint
                = valueComplaint(properties[it.key()].toObject(), it.key(), it.value());
        if (!complaint.isEmpty())
            return complaint;
    }
    return {};
}

const std::map<QString, QJsonObject> &schemas()
{
    static const std::map<QString, QJsonObject> byTool = [] {
        std::map<QString, QJsonObject> all;
        QFile file(u":/demo/contract.json"_s);
        if (file.open(QIODevice::ReadOnly)) {
            const QJsonArray tools = QJsonDocument::fromJson(file.readAll())["tools"_L1].toArray();
            for (const QJsonValue &tool : tools)
                all[tool["name"_L1].toString()] = tool["inputSchema"_L1].toObject();
        }
        // A job may be waited for as long as a creation may take.
        QJsonObject properties = all[u"job_wait"_s]["properties"_L1].toObject();
        properties["timeoutSeconds"_L1]
                = QJsonObject { { u"type"_s, u"integer"_s }, { u"maximum"_s, 1800 } };
        all[u"job_wait"_s]["properties"_L1] = properties;
        return all;
    }();
    return byTool;
}

// What create_vm says of arguments that depend on each other; empty when all is well.
QString creationComplaint(const QJsonObject &a)
{
    const bool linux = a["os"_L1].toString() == "linux"_L1;
    const bool macOS = a["os"_L1].toString() == "macOS"_L1;
    const bool unattended = a["unattended"_L1].toBool();
    const bool hasUserData = a.contains("userData"_L1) || a.contains("userDataPath"_L1);
    const bool hasAccount = a.contains("username"_L1) && a.contains("password"_L1);
    if (unattended && macOS)
        return u"unattended is only for os:linux and os:windows"_s;
    if (unattended && !hasAccount)
        return u"unattended:true needs username and password"_s;
    if (!unattended && (a.contains("username"_L1) || a.contains("password"_L1)))
        return u"username and password are only for unattended:true"_s;
    if (hasUserData && !(linux && unattended))
        return u"user data is only for os:linux with unattended:true"_s;
    if (a.contains("userData"_L1) && a.contains("userDataPath"_L1))
        return u"give userData or userDataPath, not both"_s;
    if (hasUserData && !a.contains("userData"_L1)
        && !QFileInfo(a["userDataPath"_L1].toString()).isFile())
        return u"userDataPath is not a file on the host"_s;
    if (a.contains("linuxExperience"_L1) && !linux)
        return u"linuxExperience is only for os:linux"_s;
    if (!a.contains("image"_L1))
        return {};
    const QString image = a["image"_L1].toString();
    const QJsonArray images = imagesFor(macOS);
    const bool listed = std::any_of(images.begin(), images.end(), [&](const QJsonValue &known) {
        return known["imageId"_L1] == image && known["os"_L1] == a["os"_L1];
    });
    const QFileInfo file(image);
    const bool isFile
            = file.isAbsolute() && file.isFile() && file.suffix() == (macOS ? "ipsw"_L1 : "iso"_L1);
    return listed || isFile ? QString() : "there is no image for this os: "_L1 + image;
}

const QStringList keyNames { u"enter"_s, u"tab"_s,    u"escape"_s, u"space"_s,  u"backspace"_s,
                             u"up"_s,    u"delete"_s, u"insert"_s, u"down"_s,   u"left"_s,
                             u"right"_s, u"home"_s,   u"end"_s,    u"pageup"_s, u"pagedown"_s };

// What one action of send_input lacks; empty when it can be done on a screen of that size.
QString actionComplaint(const QJsonObject &action, const QSize &screen, double imageScale)
{
    const QString type = action["type"_L1].toString();
    const auto off = [&](QLatin1StringView x, QLatin1StringView y) {
        return !QRect({}, screen)
                        .contains(int(action[x].toInt(-1) / imageScale),
                                  int(action[y].toInt(-1) / imageScale));
    };
    static const QStringList pointed { u"click"_s, u"double"_s, u"move"_s, u"drag"_s };
    if ((pointed.contains(type) || action.contains("x"_L1) || action.contains("y"_L1))
        && off("x"_L1, "y"_L1))
        return type + " needs x and y inside the screen"_L1;
    if (type == "drag"_L1 && off("toX"_L1, "toY"_L1))
        return u"drag needs toX and toY inside the screen"_s;
    if (type == "scroll"_L1 && !action.contains("dy"_L1))
        return u"scroll needs dy"_s;
    if (type == "text"_L1 && !action.contains("value"_L1))
        return u"text needs value"_s;
    static const QRegularExpression functionKey(u"^f([1-9]|1[0-2])$"_s);
    const QString key = action["key"_L1].toString();
    if (type == "key"_L1 && key.size() != 1 && !keyNames.contains(key)
        && !functionKey.match(key).hasMatch())
        return "there is no key "_L1 + key;
    static const QStringList modifiers { u"ctrl"_s, u"shift"_s, u"alt"_s, u"meta"_s };
    const QJsonArray held = action["modifiers"_L1].toArray();
    for (const QJsonValue &modifier : held) {
        if (!modifiers.contains(modifier.toString()))
            return "there is no modifier "_L1 + modifier.toString();
    }
    return {};
}

} // namespace

// Machines

void Machine::note(const QString &line)
{
    log += QDateTime::currentDateTimeUtc().toString(Qt::ISODate) + u' ' + line;
}

void Machine::setState(const QString &state)
{
    settings[u"state"_s] = state;
    if (state == "running"_L1)
        started.start();
    else if (state == "stopped"_L1)
        typed.clear();
    note("state is now "_L1 + state);
}

QStringList Machine::screenLines() const
{
    QStringList lines { u"Orrery demonstration firmware"_s, "Booting "_L1 + text(u"os"_s),
                        u"[  OK  ] Started simulated services"_s, u"[  OK  ] Reached target"_s,
                        text(u"name"_s).toLower().replace(u' ', u'-') + " login: "_L1 + typed };
    const qint64 shown = started.isValid() ? 1 + started.elapsed() / BootLineMs : 0;
    lines = lines.first(std::min<qsizetype>(lines.size(), shown));
    return lines.join(u'\n').split(u'\n');
}

Host::Host(EventSink eventSink) : sink(std::move(eventSink))
{
    const auto add = [this](const char *os, const char *name, const char *state, bool tools) {
        addMachine({ { u"os"_s, QString::fromLatin1(os) },
                     { u"name"_s, QString::fromLatin1(name) },
                     { u"cpu"_s, 4 },
                     { u"ramGB"_s, 8 },
                     { u"diskGB"_s, 64 },
                     { u"network"_s, u"nat"_s },
                     { u"unattended"_s, tools } });
        machines.back().setState(QString::fromLatin1(state));
    };
    add("linux", "Debian 12", "running", true);
    add("windows", "Windows 11", "stopped", false);
    add("macOS", "macOS 15", "suspended", true);
}

Machine *Host::find(const QString &id)
{
    const auto it = std::find_if(machines.begin(), machines.end(), [&](const Machine &machine) {
        return machine.text(u"id"_s) == id;
    });
    return it == machines.end() ? nullptr : &*it;
}

// A new machine of create_vm's arguments; gives its settings.
QJsonObject Host::addMachine(const QJsonObject &arguments)
{
    const QString os = arguments["os"_L1].toString();
    const QString name
            = arguments["name"_L1].toString("%1 %2"_L1.arg(os, QString::number(++lastNumber)));
    const bool installed = os == "macOS"_L1 || arguments["unattended"_L1].toBool();
    const bool bridged = arguments["network"_L1].toString() == "bridge"_L1;
    Machine machine;
    machine.settings = {
        { u"id"_s, "/home/demo/Orrery/%1.vm"_L1.arg(name) },
        { u"name"_s, name },
        { u"os"_s, os },
        { u"state"_s, u"stopped"_s },
        { u"cpu"_s, arguments["cpu"_L1] },
        { u"ramGB"_s, arguments["ramGB"_L1] },
        { u"diskGB"_s, arguments["diskGB"_L1] },
        { u"network"_s, arguments["network"_L1] },
        { u"bridgeInterface"_s,
          bridged ? arguments["bridgeInterface"_L1].toString(bridges.first()) : QJsonValue() },
        { u"nestedVirt"_s, arguments["nestedVirt"_L1].toBool() },
        { u"rosetta"_s, arguments["rosetta"_L1].toBool() },
        { u"linuxNetworkDriver"_s,
          os == "linux"_L1 ? arguments["linuxNetworkDriver"_L1].toString(u"builtin"_s)
                           : QJsonValue() },
        { u"installerMedia"_s,
          installed ? QJsonValue() : arguments["image"_L1].toString(newestImage(os)) },
        { u"installed"_s, installed },
        { u"guestTools"_s, arguments["unattended"_L1].toBool() ? u"1.0"_s : QJsonValue() },
        { u"attachLinuxGuestTools"_s, false },
        { u"sshProvisioned"_s, false },
        { u"display"_s, QJsonObject { { u"width"_s, 1024 }, { u"height"_s, 768 } } },
        { u"sharedFolders"_s, QJsonArray() },
    };
    machine.note(u"created"_s);
    machines.push_back(std::move(machine));
    return machines.back().settings;
}

// What speaks against these settings on this host; empty when nothing does.
QString Host::hardwareComplaint(const QJsonObject &settings) const
{
    const bool linux = settings["os"_L1].toString() == "linux"_L1;
    const bool bridged = settings["network"_L1].toString() == "bridge"_L1;
    const QString driver = settings["linuxNetworkDriver"_L1].toString();
    const QString bridge = settings["bridgeInterface"_L1].toString();
    if (!linux && (settings["rosetta"_L1].toBool() || !driver.isEmpty()))
        return u"rosetta and linuxNetworkDriver are only for os:linux"_s;
    if (settings["rosetta"_L1].toBool())
        return u"this host has no rosetta (host_capabilities)"_s;
    if (!bridge.isEmpty() && !bridged)
        return u"bridgeInterface is only for network:bridge"_s;
    if (!bridge.isEmpty() && !bridges.contains(bridge))
        return u"there is no interface %1 (host_capabilities)"_s.arg(bridge);
    if ((bridged || driver == "service"_L1) && !networkingInstalled)
        return u"the networking service is not installed (networking_install)"_s;
    return {};
}

// Jobs

QJsonObject *Host::findJob(const QString &jobId)
{
    const auto it = std::find_if(jobs.begin(), jobs.end(), [&](const Job &job) {
        return job.status["jobId"_L1].toString() == jobId;
    });
    return it == jobs.end() ? nullptr : &it->status;
}

Answer Host::createVm(const QJsonObject &arguments)
{
    QString complaint = creationComplaint(arguments);
    if (complaint.isEmpty())
        complaint = hardwareComplaint(arguments);
    const QString name = arguments["name"_L1].toString(arguments["os"_L1].toString());
    for (const Machine &machine : machines) {
        if (machine.text(u"name"_s) == name && arguments.contains("name"_L1))
            complaint = u"the name %1 is taken"_s.arg(name);
    }
    if (!complaint.isEmpty())
        return wrong(complaint);

    const QString jobId = u"job-%1"_s.arg(++lastNumber);
    jobs.push_front({ { { u"jobId"_s, jobId },
                        { u"kind"_s, u"create_vm"_s },
                        { u"name"_s, name },
                        { u"state"_s, u"running"_s },
                        { u"progress"_s, 0 } },
                      arguments,
                      {} });
    jobs.front().age.start();
    if (arguments["async"_L1].toBool())
        return ok(QJsonObject { { u"jobId"_s, jobId } });
    return { {}, [this, jobId]() -> std::optional<Answer> {
                const QJsonObject status = *findJob(jobId);
                if (status["state"_L1].toString() == "running"_L1)
                    return {};
                const Machine *machine = find(status["vmId"_L1].toString());
                return machine ? ok(machine->settings) : unavailable();
            } };
}

Answer Host::jobWait(const QJsonObject &arguments)
{
    const QString jobId = arguments["jobId"_L1].toString();
    QElapsedTimer timer;
    timer.start();
    const qint64 limit = arguments["timeoutSeconds"_L1].toInteger(120) * Second;
    return { {}, [=, this]() -> std::optional<Answer> {
                const QJsonObject status = *findJob(jobId);
                if (status["state"_L1].toString() == "running"_L1 && timer.elapsed() < limit)
                    return {};
                return ok(status);
            } };
}

void Host::tick()
{
    for (Job &job : jobs) {
        if (job.status["state"_L1].toString() != "running"_L1)
            continue;
        const auto steps = static_cast<qint64>(JobSteps.size());
        const qint64 step = std::min(job.age.elapsed() / JobStepMs, steps);
        const qint64 progress = 100 * step / steps;
        if (progress == job.status["progress"_L1].toInteger() && job.status.contains("step"_L1))
            continue;
        job.status["progress"_L1] = progress;
        job.status["step"_L1]
                = step < steps ? QString::fromLatin1(JobSteps.begin()[step]) : u"done"_s;
        if (step == steps) {
            job.status["state"_L1] = u"done"_s;
            job.status["vmId"_L1] = addMachine(job.arguments)["id"_L1];
        }
        sink(u"job_progress"_s, job.status);
    }
}

// Tools on one machine

Answer Host::startVm(Machine &machine)
{
    if (machine.is(u"suspended"_s))
        return fail(u"wrong_state"_s, u"the VM is suspended; wake it with suspend_resume_vm"_s);
    if (const QString complaint = hardwareComplaint(machine.settings); !complaint.isEmpty())
        return fail(u"not_ready"_s, complaint);
    if (!machine.is(u"running"_s))
        machine.setState(u"running"_s);
    return ok(QJsonObject { { u"id"_s, machine.settings["id"_L1] }, { u"state"_s, u"running"_s } });
}

Answer Host::stopVm(Machine &machine, const QJsonObject &arguments)
{
    const QString id = machine.text(u"id"_s);
    const bool force = arguments["mode"_L1].toString() == "force"_L1;
    if (machine.is(u"suspended"_s) && !force)
        return fail(u"wrong_state"_s, u"the VM is suspended; only mode:force stops it"_s);
    const auto stop = [this, id] {
        if (Machine *stopped = find(id); stopped && !stopped->is(u"stopped"_s))
            stopped->setState(u"stopped"_s);
        return ok(QJsonObject { { u"id"_s, id }, { u"state"_s, u"stopped"_s } });
    };
    return force || machine.is(u"stopped"_s) ? stop() : after(ShutdownMs, stop);
}

Answer Host::setHardware(Machine &machine, const QJsonObject &arguments)
{
    QJsonObject changed = machine.settings;
    for (auto it = arguments.begin(); it != arguments.end(); ++it)
        changed[it.key()] = it.value();
    const bool bridged = changed["network"_L1].toString() == "bridge"_L1;
    if (!bridged && !arguments.contains("bridgeInterface"_L1))
        changed["bridgeInterface"_L1] = QJsonValue::Null;
    else if (changed["bridgeInterface"_L1].isNull())
        changed["bridgeInterface"_L1] = bridges.first();
    if (arguments.size() < 2)
        return wrong(u"give at least one setting to change"_s);
    if (const QString complaint = hardwareComplaint(changed); !complaint.isEmpty())
        return wrong(complaint);
    machine.settings = changed;
    return ok(changed);
}

// Answers once check() gives something. It learns whether the time is up, and gets no machine when
// that has been deleted meanwhile.
Answer Host::waitFor(const QString &id, int seconds,
                     std::function<std::optional<QJsonObject>(const Machine *, bool timeUp)> check)
{
    QElapsedTimer timer;
    timer.start();
    return { {}, [=, this, check = std::move(check)]() -> std::optional<Answer> {
                const Machine *machine = find(id);
                if (!machine)
                    return fail(u"not_found"_s, "there is no VM any more: "_L1 + id);
                const auto found = check(machine, timer.elapsed() >= seconds * Second);
                return found ? std::optional(ok(*found)) : std::nullopt;
            } };
}

Answer Host::addSharedFolder(Machine &machine, const QJsonObject &arguments)
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
    const QJsonObject added { { u"folderId"_s, u"folder-%1"_s.arg(++lastNumber) },
                              { u"name"_s, name },
                              { u"hostPath"_s, folder.filePath() },
                              { u"readOnly"_s, arguments["readOnly"_L1].toBool() } };
    folders.append(added);
    machine.settings["sharedFolders"_L1] = folders;
    return ok(added);
}

Answer Host::changeSharedFolder(Machine &machine, const QJsonObject &arguments, bool remove)
{
    QJsonArray folders = machine.settings["sharedFolders"_L1].toArray();
    for (qsizetype i = 0; i < folders.size(); ++i) {
        QJsonObject folder = folders[i].toObject();
        if (folder["folderId"_L1] != arguments["folderId"_L1])
            continue;
        folder["readOnly"_L1] = arguments["readOnly"_L1];
        if (remove)
            folders.removeAt(i);
        else
            folders[i] = folder;
        machine.settings["sharedFolders"_L1] = folders;
        return ok(remove ? arguments : folder);
    }
    return fail(u"not_found"_s, u"the VM shares no folder of this id"_s);
}

Answer Host::sendInput(Machine &machine, const QJsonObject &arguments)
{
    if (arguments.contains("type"_L1) == arguments.contains("actions"_L1))
        return wrong(u"give either type or actions"_s);
    const bool captureAfter = arguments["captureAfter"_L1].toBool();
    for (const auto &needsCapture : { "captureDelayMs"_L1, "region"_L1, "scale"_L1, "format"_L1 }) {
        if (arguments.contains(needsCapture) && !captureAfter)
            return wrong(needsCapture + " is only for captureAfter:true"_L1);
    }
    const QJsonArray actions = arguments.contains("type"_L1) ? QJsonArray { arguments }
                                                             : arguments["actions"_L1].toArray();
    if (actions.isEmpty() || actions.size() > 100)
        return wrong(u"actions must have 1 to 100 elements"_s);
    const QJsonObject display = machine.settings["display"_L1].toObject();
    const QSize screen(display["width"_L1].toInt(), display["height"_L1].toInt());
    for (const QJsonValue &action : actions) {
        const QString complaint = actionComplaint(action.toObject(), screen,
                                                  arguments["imageScale"_L1].toDouble(1));
        if (!complaint.isEmpty())
            return wrong(complaint);
    }
    for (const QJsonValue &action : actions) {
        if (action["type"_L1].toString() == "text"_L1)
            machine.typed += action["value"_L1].toString();
        else if (action["key"_L1].toString() == "enter"_L1)
            machine.typed += u"\n$ "_s;
    }
    const qint64 duration = actions.size() * arguments["delayMs"_L1].toInteger(50)
                            + (captureAfter ? arguments["captureDelayMs"_L1].toInteger(500) : 0);
    const QString id = machine.text(u"id"_s);
    return after(duration, [=, this, done = actions.size()] {
        const Machine *shown = find(id);
        QJsonObject result
                = captureAfter && shown ? captureScreen(*shown, arguments) : QJsonObject();
        if (result.contains("error"_L1))
            return wrong(result["error"_L1].toString());
        result["actions"_L1] = done;
        return ok(result);
    });
}

// Knows three commands: what a real guest would run is not simulated.
Answer Host::runInGuest(const Machine &machine, const QJsonObject &arguments)
{
    const QStringList words = arguments["command"_L1].toString().split(u' ', Qt::SkipEmptyParts);
    const QString program = words.value(0);
    const auto answer = [](const QJsonValue &exitCode, const QString &out, const QString &err) {
        return ok(QJsonObject { { u"exitCode"_s, exitCode },
                                { u"stdout"_s, out },
                                { u"stderr"_s, err },
                                { u"timedOut"_s, exitCode.isNull() } });
    };
    if (program == "echo"_L1)
        return answer(0, words.sliced(1).join(u' ') + u'\n', {});
    if (program == "uname"_L1)
        return answer(0, machine.text(u"os"_s) + u'\n', {});
    if (program == "sleep"_L1) {
        const qint64 connecting = arguments["connectTimeoutSeconds"_L1].toInteger(10);
        const qint64 command = arguments["commandTimeoutSeconds"_L1].toInteger(45);
        const qint64 limit
                = std::min(command, arguments["timeoutSeconds"_L1].toInteger(connecting + command));
        const qint64 asked = words.value(1).toLongLong();
        return after(std::min(asked, limit) * Second, [=] {
            return answer(asked > limit ? QJsonValue(QJsonValue::Null) : QJsonValue(0), {}, {});
        });
    }
    return answer(127, {},
                  program + ": not found (the demonstration knows echo, uname, sleep)\n"_L1);
}

// The tables of tools

namespace {

Answer setSetting(Machine &machine, const QString &key, const QJsonValue &value)
{
    machine.settings[key] = value;
    return ok(machine.settings);
}

// What a tool gives of a machine: the members of these names.
QJsonObject pick(const Machine &machine, const QStringList &keys)
{
    QJsonObject picked;
    for (const QString &key : keys)
        picked[key] = machine.settings[key];
    return picked;
}

QJsonObject sshState(const Machine &machine)
{
    const bool provisioned = machine.settings["sshProvisioned"_L1].toBool();
    return { { u"provisioned"_s, provisioned },
             { u"user"_s, provisioned ? u"demo"_s : QJsonValue() },
             { u"host"_s, provisioned ? u"192.0.2.10"_s : QJsonValue() },
             { u"reachable"_s, provisioned && machine.is(u"running"_s) } };
}

Answer setSize(Machine &machine, const QJsonObject &arguments, bool display)
{
    const QJsonObject size { { u"width"_s, arguments["width"_L1] },
                             { u"height"_s, arguments["height"_L1] } };
    if (display)
        machine.settings["display"_L1] = size;
    return ok(size);
}

Answer tailLog(const Machine &machine, const QJsonObject &arguments)
{
    const QRegularExpression pattern(arguments["grep"_L1].toString());
    const auto oldest = QDateTime::currentDateTimeUtc().addSecs(
            -arguments["sinceSeconds"_L1].toInteger(1'000'000'000));
    QJsonArray lines;
    for (const QString &line : machine.log) {
        const QString time = line.section(u' ', 0, 0);
        const QString text = line.section(u' ', 1);
        if (pattern.match(text).hasMatch() && QDateTime::fromString(time, Qt::ISODate) >= oldest)
            lines.append(QJsonObject { { u"time"_s, time }, { u"text"_s, text } });
    }
    while (lines.size() > MaxLogLines)
        lines.removeFirst();
    return ok(QJsonObject { { u"lines"_s, lines } });
}

Answer diagnose(const Machine &machine)
{
    const bool tools = !machine.settings["guestTools"_L1].isNull();
    const QJsonObject check { { u"name"_s, u"guest tools"_s },
                              { u"ok"_s, tools },
                              { u"advice"_s, tools ? QString() : u"Run apply_guest_tools."_s } };
    const bool running = machine.is(u"running"_s);
    return ok(
            QJsonObject { { u"state"_s, machine.settings["state"_L1] },
                          { u"uptimeSeconds"_s, running ? machine.started.elapsed() / Second : 0 },
                          { u"checks"_s, QJsonArray { check } },
                          { u"lastError"_s, QJsonValue::Null } });
}

Answer networkOf()
{
    const QJsonObject interface {
        { u"name"_s, u"eth0"_s }, { u"mac"_s, u"52:54:00:00:00:10"_s },
        {
            u"addresses"_s, QJsonArray { u"192.0.2.10"_s }
        }
    };
    return ok(QJsonObject { { u"address"_s, u"192.0.2.10"_s },
                            { u"interfaces"_s, QJsonArray { interface } },
                            { u"gateway"_s, u"192.0.2.1"_s },
                            { u"dns"_s, QJsonArray { u"192.0.2.1"_s } } });
}

// The lines of the screen that match.
QStringList linesMatching(const Machine &machine, const QString &pattern)
{
    return machine.screenLines().filter(QRegularExpression(pattern));
}

} // namespace

// A tool on one machine and what must hold before it.
struct Host::Tool
{
    QString state; // that the machine must be in; empty for any
    enum Needs { Nothing, Installed, Tools, Ssh } needs;
    std::function<Answer(Host &, Machine &, const QJsonObject &)> run;
};

const std::map<QString, Host::Tool> &Host::machineTools()
{
    const QString any;
    const QString running = u"running"_s;
    const QString stopped = u"stopped"_s;
    using A = const QJsonObject &;
    using H = Host &;
    using M = Machine &;
    static const std::map<QString, Tool> tools {
        { u"get_vm"_s, { any, Tool::Nothing, [](H, M m, A) { return ok(m.settings); } } },
        { u"start_vm"_s, { any, Tool::Nothing, [](H h, M m, A) { return h.startVm(m); } } },
        { u"stop_vm"_s, { any, Tool::Nothing, [](H h, M m, A a) { return h.stopVm(m, a); } } },
        { u"delete_vm"_s,
          { stopped, Tool::Nothing,
            [](H h, M m, A a) {
                const QString id = m.text(u"id"_s);
                if (!a["confirm"_L1].toBool())
                    return wrong(u"confirm must be true"_s);
                h.machines.remove_if([&](const Machine &other) { return &other == &m; });
                return ok(QJsonObject { { u"id"_s, id }, { u"deleted"_s, true } });
            } } },
        { u"set_hardware"_s,
          { stopped, Tool::Nothing, [](H h, M m, A a) { return h.setHardware(m, a); } } },
        { u"resize_disk"_s,
          { stopped, Tool::Nothing,
            [](H, M m, A a) {
                if (!a["confirm"_L1].toBool())
                    return wrong(u"confirm must be true"_s);
                if (a["newGB"_L1].toInteger() <= m.settings["diskGB"_L1].toInteger())
                    return wrong(u"a disk can only grow"_s);
                m.settings["diskGB"_L1] = a["newGB"_L1];
                return ok(pick(m, { u"id"_s, u"diskGB"_s }));
            } } },
        { u"get_diagnostics"_s, { any, Tool::Nothing, [](H, M m, A) { return diagnose(m); } } },
        { u"wait_for_state"_s,
          { any, Tool::Nothing,
            [](H h, M m, A a) {
                const QString target = a["target"_L1].toString(u"running"_s);
                return h.waitFor(
                        m.text(u"id"_s), a["timeoutSeconds"_L1].toInt(45),
                        [=](const Machine *now, bool timeUp) -> std::optional<QJsonObject> {
                            if (!now->is(target) && !timeUp)
                                return {};
                            return QJsonObject { { u"reached"_s, now->is(target) },
                                                 { u"state"_s, now->settings["state"_L1] } };
                        });
            } } },
        { u"set_installer_media"_s,
          { stopped, Tool::Nothing,
            [](H, M m, A a) {
                const QFileInfo file(a["path"_L1].toString());
                if (m.text(u"os"_s) == "macOS"_L1)
                    return wrong(u"only for Linux and Windows VMs"_s);
                if (!file.isAbsolute() || !file.isFile() || file.suffix() != "iso"_L1)
                    return wrong(u"path is not an .iso file on the host"_s);
                return setSetting(m, u"installerMedia"_s, file.filePath());
            } } },
        { u"finish_install"_s,
          { stopped, Tool::Nothing,
            [](H, M m, A) {
                m.settings["installed"_L1] = true;
                return setSetting(m, u"installerMedia"_s, QJsonValue::Null);
            } } },
        { u"tail_log"_s, { any, Tool::Nothing, [](H, M m, A a) { return tailLog(m, a); } } },
        { u"suspend_resume_vm"_s,
          { any, Tool::Nothing,
            [](H, M m, A) {
                if (m.is(u"stopped"_s))
                    return fail(u"wrong_state"_s, u"the VM is stopped; boot it with start_vm"_s);
                m.setState(m.is(u"running"_s) ? u"suspended"_s : u"running"_s);
                return ok(pick(m, { u"id"_s, u"state"_s }));
            } } },
        { u"add_shared_folder"_s,
          { any, Tool::Nothing, [](H h, M m, A a) { return h.addSharedFolder(m, a); } } },
        { u"remove_shared_folder"_s,
          { any, Tool::Nothing, [](H h, M m, A a) { return h.changeSharedFolder(m, a, true); } } },
        { u"set_shared_folder_readonly"_s,
          { any, Tool::Nothing, [](H h, M m, A a) { return h.changeSharedFolder(m, a, false); } } },
        { u"apply_guest_tools"_s,
          { running, Tool::Installed,
            [](H, M m, A) {
                m.settings["guestTools"_L1] = u"1.0"_s;
                return ok(pick(m, { u"id"_s, u"guestTools"_s }));
            } } },
        { u"set_console_window_size"_s,
          { running, Tool::Nothing, [](H, M m, A a) { return setSize(m, a, false); } } },
        { u"set_display_resolution"_s,
          { running, Tool::Tools, [](H, M m, A a) { return setSize(m, a, true); } } },
        { u"set_attach_linux_guest_tools"_s,
          { stopped, Tool::Nothing,
            [](H, M m, A a) {
                if (m.text(u"os"_s) != "linux"_L1)
                    return wrong(u"only for Linux VMs"_s);
                return setSetting(m, u"attachLinuxGuestTools"_s, a["enabled"_L1]);
            } } },
        { u"set_linux_network_path"_s,
          { any, Tool::Nothing,
            [](H h, M m, A a) {
                QJsonObject changed = m.settings;
                changed["linuxNetworkDriver"_L1] = a["driver"_L1];
                if (const QString complaint = h.hardwareComplaint(changed); !complaint.isEmpty())
                    return wrong(complaint);
                m.settings = changed;
                return ok(pick(m, { u"id"_s, u"linuxNetworkDriver"_s }));
            } } },
        { u"capture_screen"_s,
          { running, Tool::Nothing,
            [](H, M m, A a) {
                const QJsonObject result = captureScreen(m, a);
                return result.contains("error"_L1) ? wrong(result["error"_L1].toString())
                                                   : ok(result);
            } } },
        { u"read_console_text"_s,
          { running, Tool::Nothing,
            [](H, M m, A a) {
                const QStringList lines = linesMatching(m, a["pattern"_L1].toString());
                return ok(QJsonObject { { u"text"_s, lines.join(u'\n') },
                                        { u"lines"_s, lines.size() } });
            } } },
        { u"wait_for_text"_s,
          { running, Tool::Nothing,
            [](H h, M m, A a) {
                const QString pattern = a["pattern"_L1].toString();
                return h.waitFor(
                        m.text(u"id"_s), a["timeoutSeconds"_L1].toInt(45),
                        [=](const Machine *now, bool timeUp) -> std::optional<QJsonObject> {
                            const QStringList lines = linesMatching(*now, pattern);
                            if (lines.isEmpty() && !timeUp)
                                return {};
                            return QJsonObject { { u"found"_s, !lines.isEmpty() },
                                                 { u"line"_s, lines.value(0) } };
                        });
            } } },
        { u"send_input"_s,
          { running, Tool::Nothing, [](H h, M m, A a) { return h.sendInput(m, a); } } },
        { u"provision_ssh"_s,
          { running, Tool::Tools,
            [](H, M m, A) {
                m.settings["sshProvisioned"_L1] = true;
                return ok(sshState(m));
            } } },
        { u"ssh_status"_s, { any, Tool::Nothing, [](H, M m, A) { return ok(sshState(m)); } } },
        { u"revoke_ssh"_s,
          { running, Tool::Nothing,
            [](H, M m, A) {
                m.settings["sshProvisioned"_L1] = false;
                return ok(sshState(m));
            } } },
        { u"guest_network"_s, { running, Tool::Tools, [](H, M, A) { return networkOf(); } } },
        { u"run_in_guest"_s,
          { running, Tool::Ssh, [](H h, M m, A a) { return h.runInGuest(m, a); } } },
        { u"read_guest_clipboard"_s,
          { running, Tool::Ssh,
            [](H, M, A a) {
                if (a["selectAll"_L1].toBool() && !a["copy"_L1].toBool())
                    return wrong(u"selectAll is only for copy:true"_s);
                const QString clipboard = u"clipboard of the demonstration"_s;
                const QString text = clipboard.left(a["maxChars"_L1].toInt(10'000));
                return ok(QJsonObject { { u"text"_s, text },
                                        { u"truncated"_s, text.size() < clipboard.size() } });
            } } },
        { u"reveal_vm"_s, { any, Tool::Nothing, [](H, M, A) { return unavailable(); } } },
    };
    return tools;
}

const std::map<QString, std::function<Answer(Host &, const QJsonObject &)>> &Host::hostTools()
{
    using A = const QJsonObject &;
    using H = Host &;
    static const auto networking = [](const Host &h) {
        return QJsonObject { { u"installed"_s, h.networkingInstalled },
                             { u"running"_s, h.networkingInstalled },
                             { u"version"_s, h.networkingInstalled ? u"1.0"_s : QJsonValue() },
                             { u"problems"_s, QJsonArray() } };
    };
    static const std::map<QString, std::function<Answer(Host &, const QJsonObject &)>> tools {
        { u"list_vms"_s,
          [](H h, A) {
              QJsonArray vms;
              for (const Machine &machine : h.machines)
                  vms.append(pick(machine, { u"id"_s, u"name"_s, u"os"_s, u"state"_s }));
              return ok(QJsonObject { { u"vms"_s, vms } });
          } },
        { u"create_vm"_s, [](H h, A a) { return h.createVm(a); } },
        { u"job_status"_s, [](H h, A a) { return ok(*h.findJob(a["jobId"_L1].toString())); } },
        { u"job_wait"_s, [](H h, A a) { return h.jobWait(a); } },
        { u"list_jobs"_s,
          [](H h, A) {
              QJsonArray all;
              for (const Job &job : h.jobs)
                  all.append(job.status);
              return ok(QJsonObject { { u"jobs"_s, all } });
          } },
        { u"networking_status"_s, [](H h, A) { return ok(networking(h)); } },
        { u"host_capabilities"_s,
          [](H, A) {
              return ok(QJsonObject {
                      { u"maxCpu"_s, MaxCpu },
                      { u"maxRamGB"_s, MaxRamGB },
                      { u"freeDiskGB"_s, 500 },
                      { u"nestedVirt"_s, true },
                      { u"rosetta"_s, false },
                      { u"bridgeInterfaces"_s, QJsonArray::fromStringList(bridges) } });
          } },
        { u"networking_install"_s,
          [](H h, A) {
              h.networkingInstalled = true;
              return ok(networking(h));
          } },
        { u"networking_repair"_s,
          [](H h, A) {
              return h.networkingInstalled
                             ? ok(networking(h))
                             : fail(u"not_ready"_s, u"not installed: use networking_install"_s);
          } },
        { u"networking_uninstall"_s,
          [](H h, A) {
              for (const Machine &machine : h.machines) {
                  const bool uses = machine.text(u"network"_s) == "bridge"_L1
                                    || machine.text(u"linuxNetworkDriver"_s) == "service"_L1;
                  if (uses && !machine.is(u"stopped"_s))
                      return fail(u"wrong_state"_s, "in use by "_L1 + machine.text(u"name"_s));
              }
              h.networkingInstalled = false;
              return ok(networking(h));
          } },
        { u"list_restore_images"_s,
          [](H, A) {
              return ok(QJsonObject { { u"images"_s, imagesFor(true) } });
          } },
        { u"list_images"_s,
          [](H, A) {
              return ok(QJsonObject { { u"images"_s, imagesFor(false) } });
          } },
    };
    return tools;
}

Answer Host::call(const QString &tool, const QJsonObject &arguments)
{
    const auto schema = schemas().find(tool);
    if (schema == schemas().end())
        return fail(u"unknown_method"_s, "there is no method "_L1 + tool);
    if (const QString complaint = objectComplaint(schema->second, arguments); !complaint.isEmpty())
        return wrong(complaint);
    for (const auto &pattern : { "pattern"_L1, "grep"_L1 }) {
        if (!QRegularExpression(arguments[pattern].toString()).isValid())
            return wrong(pattern + " is not a regular expression"_L1);
    }
    if (arguments.contains("jobId"_L1) && !findJob(arguments["jobId"_L1].toString()))
        return fail(u"not_found"_s, u"there is no job of this id (list_jobs)"_s);

    if (const auto found = hostTools().find(tool); found != hostTools().end())
        return found->second(*this, arguments);
    const auto found = machineTools().find(tool);
    if (found == machineTools().end())
        return unavailable();
    Machine *machine = find(arguments["id"_L1].toString());
    if (!machine)
        return fail(u"not_found"_s, u"there is no VM of this id (list_vms)"_s);
    const auto &[state, needs, run] = found->second;
    if (!state.isEmpty() && !machine->is(state))
        return fail(u"wrong_state"_s,
                    u"the VM is %1, but must be %2"_s.arg(machine->text(u"state"_s), state));
    if (needs == Tool::Installed && !machine->settings["installed"_L1].toBool())
        return fail(u"not_ready"_s, u"no system is installed yet (finish_install)"_s);
    if (needs == Tool::Tools && machine->settings["guestTools"_L1].isNull())
        return fail(u"not_ready"_s, u"needs the guest tools (apply_guest_tools)"_s);
    if (needs == Tool::Ssh && !machine->settings["sshProvisioned"_L1].toBool())
        return fail(u"not_ready"_s, u"needs SSH (provision_ssh)"_s);
    return run(*this, *machine, arguments);
}
