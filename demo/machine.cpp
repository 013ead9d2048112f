#include "machine.h"

#include <unistd.h>

namespace {

constexpr size_t MaxLogLines = 2'000;

// Whether KVM is worth a try: it may be there and still not work, which only a start tells.
bool kvmWorks = access("/dev/kvm", R_OK | W_OK) == 0;

} // namespace

void Machine::note(const QString &line)
{
    log.emplace_back(QDateTime::currentDateTimeUtc(), line);
    if (log.size() > MaxLogLines)
        log.pop_front();
}

void Machine::setState(QLatin1StringView state)
{
    settings["state"_L1] = state;
    note("state is now "_L1 + state);
}

QStringList Machine::arguments() const
{
    QString media = text("installerMedia"_L1);
    const bool disc = media.endsWith(".iso"_L1);
    const bool small = smallLinux && !disc;
    // What is kept lasts no longer than the application, so no write need reach the disk.
    const QString words
            = u"-nodefaults -no-user-config -display none -vga std -machine pc -cpu max "
              "-sandbox on,obsolete=deny,elevateprivileges=deny,spawn=deny -accel %1 "
              "-drive if=none,id=disk,format=qcow2,cache=unsafe,werror=report,"
              "file=disk.qcow2 -netdev user,id=net,hostfwd=tcp:127.0.0.1:0-:22 -smp %2 -m %3G "_s;
    // Small Linux has no drivers but virtio's; other systems surely have one for these.
    const QString devices = small ? u"-device virtio-blk-pci,drive=disk "
                                    "-device virtio-net-pci,netdev=net,romfile= "
                                    "-device virtio-tablet-pci -device virtio-keyboard-pci "
                                    "-fw_cfg name=opt/demo/setup,file=setup "
                                    "-fw_cfg name=opt/demo/key,file=tools.pub"_s
                                  : u"-device ide-hd,drive=disk -device e1000,netdev=net,romfile= "
                                    "-usb -device usb-tablet"_s;
    QStringList all = (words.arg(accelerated ? u"kvm"_s : u"tcg,thread=multi"_s)
                               .arg(settings["cpu"_L1].toInt())
                               .arg(settings["ramGB"_L1].toInt())
                       + devices)
                              .split(u' ');
    if (disc) // a reboot finds what was installed from it
        all << u"-boot order=c,once=d -device ide-cd,drive=cd -drive"_s.split(u' ')
            << u"if=none,id=cd,media=cdrom,readonly=on,format=raw,file="_s
                        + media.replace(u","_s, u",,"_s);
    if (small)
        all << u"-kernel"_s << guestFile(u"kernel"_s) << u"-initrd"_s << guestFile(u"initrd"_s)
            << u"-append"_s
            << u"console=ttyS0 console=tty0 no-scroll"_s
                        + (media.isEmpty() ? QString() : u" installer"_s);
    return all;
}

// One process, which may end before the machine is made; then it says why.
Later<QString> Machine::launch(const QStringList &more)
{
    lastError.clear();
    qemu = std::make_unique<Qemu>(arguments() + more, folder.path());
    qemu->said = [this](const QString &line) {
        note(line);
        booted |= line == "Small Linux is ready"_L1;
    };
    qemu->happened = [this](const QString &event) {
        if (event != "RESET"_L1)
            return;
        booted = false;
        note(u"the guest reboots"_s);
    };
    qemu->ended = [this](const QString &error) {
        qemu.release()->deleteLater();
        lastError = error;
        setState(stateAfterEnd);
    };
    co_await qemu->command(u"qmp_capabilities"_s); // answered once the processors can be started
    co_return qemu ? QString() : lastError;
}

Later<QString> Machine::boot()
{
    booted = false;
    accelerated = kvmWorks;
    QString complaint = co_await launch();
    if (!complaint.isEmpty() && accelerated) {
        note("KVM does not work here: "_L1 + complaint);
        kvmWorks = accelerated = false;
        complaint = co_await launch();
    }
    started.start();
    if (complaint.isEmpty())
        setState("running"_L1);
    co_return complaint;
}

Later<QString> Machine::suspend()
{
    qemu->command(u"stop"_s);
    const QJsonObject answer = co_await qemu->monitor(u"savevm suspended"_s);
    const QString complaint
            = answer["return"_L1].toString() + answer["error"_L1]["desc"_L1].toString();
    if (qemu && complaint.isEmpty())
        stateAfterEnd = "suspended"_L1;
    if (qemu)
        qemu->command(complaint.isEmpty() ? u"quit"_s : u"cont"_s);
    while (qemu && complaint.isEmpty())
        co_await pause(LookMs);
    co_return complaint.trimmed();
}

Later<QString> Machine::resume()
{
    const QString complaint = co_await launch(u"-loadvm suspended"_s.split(u' '));
    if (!complaint.isEmpty())
        co_return complaint;
    stateAfterEnd = "stopped"_L1;
    setState("running"_L1);
    const Later<QJsonObject> dropped = qemu->monitor(u"delvm suspended"_s);
    qemu->command(u"cont"_s);
    co_await dropped;
    co_return lastError;
}

Later<QString> Machine::dropMemory()
{
    const Outcome dropped
            = co_await diskTool(u"snapshot -q -d suspended disk.qcow2"_s, folder.path());
    stateAfterEnd = "stopped"_L1;
    if (dropped.succeeded())
        setState("stopped"_L1);
    co_return dropped.words();
}
