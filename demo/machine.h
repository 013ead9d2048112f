// One machine: its settings, its state and its log, and, while it runs, its QEMU process.

#pragma once

#include "qemu.h"

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>

#include <list>

class Machine
{
public:
    // A stopped machine with the settings that get_vm returns, and a folder of its own, in which
    // disk.qcow2 is.
    Machine(const QString &place, const QJsonObject &initial) : folder(place), settings(initial) { }

    QString text(QLatin1StringView key) const { return settings[key].toString(); }
    bool flag(QLatin1StringView key) const { return settings[key].toBool(); }
    bool is(QLatin1StringView state) const { return text("state"_L1) == state; }

    // These return what went wrong, or nothing. Meanwhile the machine has to be busy, and to stay.
    Later<QString> boot(); // from stopped
    Later<QString> suspend(); // running: its memory goes into the disk's file
    Later<QString> resume(); // suspended
    Later<QString> dropMemory(); // suspended, then stopped

    QDir folder;
    QJsonObject settings;
    std::list<std::pair<QDateTime, QString>> log; // oldest first
    QString lastError;
    std::unique_ptr<Qemu> qemu; // while it runs
    QElapsedTimer started; // since the last start, while it runs
    bool smallLinux = false; // which boots from the host's files, other systems from their disk
    QString sshUser; // whom provision_ssh chose
    bool booted = false; // Small Linux has reported so since then
    bool accelerated = false; // by the host's processor, not emulated
    bool busy = false; // with a call that no other may meet
    bool screenIsRead = false; // right now, which takes several commands

private:
    Later<QString> launch(const QStringList &more = {});
    QStringList arguments() const;
    void setState(QLatin1StringView state);
    void note(const QString &line);

    QLatin1StringView stateAfterEnd = "stopped"_L1;
};

using MachinePtr = std::shared_ptr<Machine>;
