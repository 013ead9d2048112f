// One machine: its settings, its state and its log, and the QEMU process that it is while it runs.

#pragma once

#include "qemu.h"

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>

#include <list>

class Machine
{
public:
    // A stopped machine with a folder of its own, where disk.qcow2 is, and of the settings that
    // get_vm returns.
    Machine(const QString &place, const QJsonObject &initial) : folder(place), settings(initial) { }

    QString text(QLatin1StringView key) const { return settings[key].toString(); }
    bool flag(QLatin1StringView key) const { return settings[key].toBool(); }
    bool is(QLatin1StringView state) const { return text(QLatin1StringView("state")) == state; }

    // What a tool gives of the machine: the settings of these names.
    QJsonObject pick(std::initializer_list<QLatin1StringView> keys) const;

    // They say what went wrong, or nothing. While they work the machine is busy, and has to stay.
    Later<QString> boot(); // from stopped
    Later<QString> suspend(); // running: its memory goes into the disk's file
    Later<QString> resume(); // suspended
    Later<QString> dropMemory(); // suspended, then stopped

    // Runs qemu-img in the folder: its words, with a blank between them.
    Later<Outcome> diskTool(const QString &words) const;

    QDir folder;
    QJsonObject settings;
    std::list<std::pair<QDateTime, QString>> log; // oldest first
    QString lastError;
    std::unique_ptr<Qemu> qemu; // while it runs
    QElapsedTimer started; // since the last start, while it runs
    bool booted = false; // the guest's tools have spoken since then
    bool accelerated = false; // by the host's processor, not emulated
    bool busy = false;
    bool screenIsRead = false; // which takes several commands

private:
    Later<QString> launch(const QStringList &more = {});
    QStringList arguments() const;
    void happened(const QString &event);
    void ended(const QString &error);
    void setState(QLatin1StringView state);
    void note(const QString &line);

    QLatin1StringView stateAfterEnd { "stopped" };
};

using MachinePtr = std::shared_ptr<Machine>;

// Sets a flag of a machine for as long as it lives.
struct Flag
{
    explicit Flag(bool &flag) : set(flag) { set = true; }
    ~Flag() { set = false; }
    Q_DISABLE_COPY_MOVE(Flag)
    bool &set;
};
