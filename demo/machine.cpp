#include "machine.h"

#include "host.h"
#include "process.h"

#include <QRegularExpression>

#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr size_t MaxLogLines = 2'000;
constexpr int LaunchMs = 60'000;
constexpr int PollMs = 20;
constexpr int DiskToolMs = 60'000;
const QString savedState = u"suspended"_s; // the name of the memory in the disk's file

// Whether KVM is worth a try: it may be there and still not work, which only a start tells.
bool kvmWorks = access("/dev/kvm", R_OK | W_OK) == 0;

QString hostName(const QString &machineName)
{
    static const QRegularExpression others(u"[^a-z0-9]+"_s);
    return machineName.toLower().replace(others, u"-"_s);
}

QString inOption(QString path) { return path.replace(u","_s, u",,"_s); } // as QEMU quotes it

} // namespace

Machine::Machine(const QString &place, const QJsonObject &initial)
    : folder(place), settings(initial)
{
    note(u"created"_s);
}

QSize Machine::display() const
{
    const QJsonObject size = settings["display"_L1].toObject();
    return { size["width"_L1].toInt(), size["height"_L1].toInt() };
}

QJsonObject Machine::pick(std::initializer_list<QLatin1StringView> keys) const
{
    QJsonObject picked;
    for (const auto &key : keys)
        picked[key] = settings[key];
    return picked;
}

void Machine::note(const QString &line)
{
    log.push_back({ QDateTime::currentDateTimeUtc(), line });
    if (log.size() > MaxLogLines)
        log.pop_front();
}

void Machine::setState(QLatin1StringView state)
{
    settings["state"_L1] = state;
    note("state is now "_L1 + state);
}

QStringList Machine::bootArguments() const
{
    const QString media = text("installerMedia"_L1);
    const bool small = settings["smallLinux"_L1].toBool();
    if (media.endsWith(".iso"_L1)) // a reboot finds what was installed from it
        return { u"-boot"_s,
                 u"order=c,once=d"_s,
                 u"-drive"_s,
                 u"if=none,id=cd,media=cdrom,readonly=on,format=raw,file="_s + inOption(media),
                 u"-device"_s,
                 u"ide-cd,drive=cd"_s };
    if (!small)
        return { u"-boot"_s, u"order=c"_s };
    QStringList all { u"-kernel"_s, guestFile(u"kernel"_s),
                      u"-initrd"_s, guestFile(u"initrd"_s),
                      u"-append"_s, u"console=ttyS0 console=tty0 no-scroll"_s };
    const auto tell = [&all](const QString &what) {
        all += { u"-fw_cfg"_s, "name=opt/demo/"_L1 + what };
    };
    tell("hostname,string="_L1 + hostName(text("name"_L1)));
    if (!media.isEmpty())
        tell(u"installer,string=yes"_s);
    if (const QString user = text("account"_L1); !user.isEmpty()) {
        tell("username,string="_L1 + user);
        tell(u"password,file=password"_s); // what is on a command line, everybody can read
    }
    return all;
}

QStringList Machine::arguments() const
{
    const bool windows = text("os"_L1) == "windows"_L1; // has no drivers for virtio
    QStringList all {
        u"-nodefaults"_s,
        u"-no-user-config"_s,
        u"-display"_s,
        u"none"_s,
        u"-vga"_s,
        u"std"_s,
        u"-sandbox"_s,
        u"on,obsolete=deny,elevateprivileges=deny,spawn=deny"_s,
        u"-machine"_s,
        u"pc"_s,
        u"-cpu"_s,
        u"max"_s,
        u"-accel"_s,
        accelerated ? u"kvm"_s : u"tcg,thread=multi"_s,
        u"-smp"_s,
        QString::number(settings["cpu"_L1].toInt()),
        u"-m"_s,
        QString::number(settings["ramGB"_L1].toInt()) + u'G',
        // What is kept lasts no longer than the application, so no write need reach the disk.
        u"-drive"_s,
        u"if=none,id=disk,format=qcow2,cache=unsafe,werror=report,file=disk.qcow2"_s,
        u"-device"_s,
        (windows ? u"ide-hd"_s : u"virtio-blk-pci"_s) + ",drive=disk"_L1,
        u"-netdev"_s,
        u"user,id=net,hostfwd=tcp:127.0.0.1:0-:22"_s,
        u"-device"_s,
        (windows ? u"e1000"_s : u"virtio-net-pci"_s) + ",netdev=net,romfile="_L1,
    };
    if (settings["smallLinux"_L1].toBool() && !text("installerMedia"_L1).endsWith(".iso"_L1))
        all += { u"-device"_s, u"virtio-tablet-pci"_s, u"-device"_s, u"virtio-keyboard-pci"_s };
    else
        all += { u"-usb"_s, u"-device"_s, u"usb-tablet"_s };
    return all + bootArguments();
}

// One process, which may end before the machine is made; then it says why.
Later<QString> Machine::launch(bool wake)
{
    const MachinePtr self = shared_from_this();
    launching = true;
    endExpected = false;
    stateAfterEnd = "stopped"_L1;
    const QStringList woken { u"-loadvm"_s, savedState };
    qemu = std::make_unique<Qemu>(
            arguments() + (wake ? woken : QStringList()), folder.path(),
            Qemu::Listener { [this](const QString &line) { note(line); },
                             [this](const QString &event) { happened(event); },
                             [this](const QString &words) { ended(words); } });
    const Later<QJsonObject> up = qemu->up;
    QTimer::singleShot(LaunchMs, qemu.get(), [this, up] {
        if (!up.isSet())
            qemu->kill();
    });
    const QJsonObject answer = co_await up;
    launching = false;
    if (!answer.contains("error"_L1) && qemu)
        co_return {};
    co_return lastError.isEmpty() ? u"QEMU ended at once"_s : lastError;
}

Later<QString> Machine::boot()
{
    const MachinePtr self = shared_from_this();
    busy = true;
    booted = false;
    lastError.clear();
    accelerated = kvmWorks;
    QString complaint = co_await launch(false);
    if (!complaint.isEmpty() && accelerated) {
        note("KVM does not work here: "_L1 + complaint);
        kvmWorks = accelerated = false;
        complaint = co_await launch(false);
    }
    if (complaint.isEmpty()) {
        lastError.clear();
        started.start();
        setState("running"_L1);
    }
    busy = false;
    co_return complaint;
}

Later<QString> Machine::suspend()
{
    const MachinePtr self = shared_from_this();
    busy = true;
    const Later<QJsonObject> stopped = qemu->command(u"stop"_s);
    const Later<QJsonObject> saved = qemu->monitor("savevm "_L1 + savedState);
    co_await stopped;
    const QJsonObject answer = co_await saved;
    const QString complaint
            = answer["return"_L1].toString() + answer["error"_L1]["desc"_L1].toString();
    if (qemu && complaint.isEmpty()) {
        endExpected = true;
        stateAfterEnd = "suspended"_L1;
        qemu->command(u"quit"_s);
        while (qemu)
            co_await pause(PollMs);
    } else if (qemu) {
        qemu->command(u"cont"_s);
    }
    busy = false;
    co_return complaint.trimmed();
}

Later<QString> Machine::resume()
{
    const MachinePtr self = shared_from_this();
    busy = true;
    const QString complaint = co_await launch(true);
    if (complaint.isEmpty()) {
        co_await qemu->monitor("delvm "_L1 + savedState);
        if (qemu)
            qemu->command(u"cont"_s);
        setState(qemu ? "running"_L1 : "stopped"_L1);
    }
    busy = false;
    co_return complaint;
}

void Machine::cutPower()
{
    endExpected = true;
    if (qemu)
        qemu->kill();
}

Later<QString> Machine::dropMemory()
{
    const MachinePtr self = shared_from_this();
    busy = true;
    const Later<Outcome> dropping = run(
            u"qemu-img"_s, { u"snapshot"_s, u"-q"_s, u"-d"_s, savedState, file(u"disk.qcow2"_s) },
            DiskToolMs);
    const Outcome outcome = co_await dropping;
    if (outcome.succeeded())
        setState("stopped"_L1);
    busy = false;
    co_return outcome.succeeded() ? QString() : outcome.words();
}

void Machine::happened(const QString &event)
{
    if (event == "ready"_L1) {
        booted = true;
        note(u"the guest has booted"_s);
    } else if (event == "RESET"_L1) {
        booted = false;
        note(u"the guest reboots"_s);
    } else if (event == "SHUTDOWN"_L1) {
        endExpected = true;
    }
}

void Machine::ended(const QString &lastWords)
{
    qemu.release()->deleteLater();
    if (!endExpected)
        lastError = lastWords.isEmpty() ? u"QEMU was killed"_s : lastWords;
    if (!launching)
        setState(stateAfterEnd);
}
