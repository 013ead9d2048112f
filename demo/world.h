// What the application has: a folder of its own, machines in it, and the jobs that create them.

#pragma once

#include "machine.h"

#include <QJsonArray>
#include <QMap>

const QString smallLinuxId = u"small-linux"_s; // the id of its image
const QString guestToolsVersion = u"1.0"_s; // which Small Linux has

// The refusal if a machine's settings ask for something impossible, on this host or at all.
std::optional<Answer> refuseHardware(const QJsonObject &settings);

using JobPtr = std::shared_ptr<QJsonObject>; // as job_status returns it
bool runs(const JobPtr &job);

class World
{
public:
    using EventSink = std::function<void(const QString &event, const QJsonObject &detail)>;

    explicit World(EventSink eventSink) : sink(std::move(eventSink)) { }
    ~World(); // ends the machines and removes the folder

    // Makes the folder, in place of one that a killed application left, or says why it cannot. Only
    // the one application that may serve the pipe may call this.
    QString open();

    // Creates and starts the first machine, without being asked.
    Later<bool> begin();

    // Starts the job that creates a machine from create_vm's arguments.
    JobPtr startCreation(QJsonObject arguments);

    // Whether a machine has the name, or will get it from a running job.
    bool isTaken(const QString &name) const;

    // The refusal if the host has no memory left to run the machine.
    std::optional<Answer> refuseStart(const Machine &machine) const;

    QString place; // the folder
    QMap<QString, MachinePtr> machines; // by their ids
    QList<JobPtr> jobs; // newest first; none is ever removed

private:
    Later<QString> create(JobPtr job, QJsonObject arguments);
    void advance(const JobPtr &job, int progress, const QString &step);

    EventSink sink;
};
