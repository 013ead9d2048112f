// One machine: its settings, its state and its log, and the QEMU process that it is while it runs.

#pragma once

#include "qemu.h"

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QSize>

#include <list>

class Machine : public std::enable_shared_from_this<Machine>
{
public:
    // A stopped machine with a folder of its own, where disk.qcow2 is, and of the settings that
    // get_vm returns.
    Machine(const QString &folder, const QJsonObject &settings);

    QString text(QLatin1StringView key) const { return settings[key].toString(); }
    bool is(QLatin1StringView state) const { return text(QLatin1StringView("state")) == state; }
    QSize display() const; // in pixels, as last seen
    QString file(const QString &name) const { return folder.filePath(name); }

    // What a tool gives of the machine: the settings of these names.
    QJsonObject pick(std::initializer_list<QLatin1StringView> keys) const;

    // All three say what went wrong, or nothing. While they work the machine is busy.
    Later<QString> boot(); // from stopped
    Later<QString> suspend(); // running: its memory goes into the disk's file
    Later<QString> resume(); // suspended
    bool busy = false;

    void cutPower(); // of a running machine; it has stopped once qemu is gone
    Later<QString> dropMemory(); // of a suspended machine, which then is stopped

    void note(const QString &line);

    struct LogLine
    {
        QDateTime time;
        QString text;
    };

    QDir folder;
    QJsonObject settings;
    std::list<LogLine> log; // oldest first
    QString lastError;
    std::unique_ptr<Qemu> qemu; // while it runs
    QElapsedTimer started; // since the last start, while it runs
    bool booted = false; // the guest's tools have spoken since then
    bool accelerated = false; // by the host's processor, not emulated
    bool textIsRead = false; // off its screen, which takes several commands

private:
    Later<QString> launch(bool wake);
    QStringList arguments() const;
    QStringList bootArguments() const;
    void happened(const QString &event);
    void ended(const QString &lastWords);
    void setState(QLatin1StringView state);

    QLatin1StringView stateAfterEnd { "stopped" };
    bool launching = false;
    bool endExpected = false;
};

using MachinePtr = std::shared_ptr<Machine>;
