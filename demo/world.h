// The simulated host: its machines, the jobs that create some, its networking, and time passing.

#pragma once

#include "answers.h"
#include "machine.h"

#include <QJsonArray>

#include <list>

// What the host offers, newest or preferred first.
QJsonArray imagesFor(bool macOS);
QStringList bridgeInterfaces();

// What speaks against a machine with these settings; empty when nothing does.
QString hardwareComplaint(const QJsonObject &settings);

struct Job
{
    bool runs() const;

    QJsonObject status; // as job_status returns it
    QJsonObject arguments; // of create_vm
    QElapsedTimer age;
};

class World
{
public:
    using EventSink = std::function<void(const QString &event, const QJsonObject &detail)>;

    explicit World(EventSink sink);

    // Moves the running jobs on; to be called a few times a second.
    void tick();

    // The job that creates a machine of create_vm's arguments.
    const Job &startCreation(QJsonObject arguments);

    Machine *findMachine(const QString &id);
    Job *findJob(const QString &jobId);

    // Whether a machine has the name, or a running job is to give it to one.
    bool isTaken(const QString &name) const;

    // Whether such settings ask for the networking service, which is not there.
    bool lacksNetworking(const QJsonObject &settings) const;

    // Looks at a machine until that gives an answer, as it must when the time is up.
    using Look = std::function<std::optional<Answer>(const Machine &machine, bool timeUp)>;
    Answer watch(const Machine &machine, int seconds, Look look);

    int newNumber() { return ++lastNumber; } // of a machine, job or folder

    std::list<Machine> machines;
    std::list<Job> jobs; // newest first; none is ever removed
    bool networkingInstalled = false;

private:
    Machine &addMachine(QJsonObject arguments);
    void advance(Job &job);

    EventSink sink;
    int lastNumber = 0;
};
