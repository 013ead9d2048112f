// The demonstration's simulated host: a handful of machines in memory, their jobs, and the tools of
// the catalogue on them. It keeps the preconditions, limits and defaults that the catalogue states.

#pragma once

#include <QElapsedTimer>
#include <QJsonObject>
#include <QStringList>

#include <functional>
#include <list>
#include <map>
#include <optional>

// What a tool gives: a body with "result" or "error" now, or later() to ask again until it has one.
struct Answer
{
    QJsonObject body;
    std::function<std::optional<Answer>()> later;
};

struct Machine
{
    QJsonObject settings; // as get_vm returns them
    QStringList log; // lines with their time in front
    QElapsedTimer started; // since the last start, while running
    QString typed; // what send_input left on the screen

    QString text(const QString &key) const { return settings[key].toString(); }
    bool is(const QString &state) const { return text(QStringLiteral("state")) == state; }
    void setState(const QString &state);
    void note(const QString &line);
    QStringList screenLines() const; // what the console shows now
};

class Host
{
public:
    using EventSink = std::function<void(const QString &event, const QJsonObject &detail)>;

    explicit Host(EventSink sink);

    // Carries out one tool of the catalogue; its arguments are checked here.
    Answer call(const QString &tool, const QJsonObject &arguments);

    // Moves the running jobs on; to be called a few times a second.
    void tick();

private:
    struct Tool;
    static const std::map<QString, Tool> &machineTools();
    static const std::map<QString, std::function<Answer(Host &, const QJsonObject &)>> &hostTools();

    Machine *find(const QString &id);
    QJsonObject addMachine(const QJsonObject &arguments);
    QJsonObject *findJob(const QString &jobId);
    QString hardwareComplaint(const QJsonObject &settings) const;

    Answer createVm(const QJsonObject &arguments);
    Answer jobWait(const QJsonObject &arguments);
    Answer startVm(Machine &machine);
    Answer stopVm(Machine &machine, const QJsonObject &arguments);
    Answer setHardware(Machine &machine, const QJsonObject &arguments);
    Answer waitFor(const QString &id, int seconds,
                   std::function<std::optional<QJsonObject>(const Machine *, bool timeUp)> check);
    Answer addSharedFolder(Machine &machine, const QJsonObject &arguments);
    Answer changeSharedFolder(Machine &machine, const QJsonObject &arguments, bool remove);
    Answer sendInput(Machine &machine, const QJsonObject &arguments);
    Answer runInGuest(const Machine &machine, const QJsonObject &arguments);

    struct Job
    {
        QJsonObject status; // as job_status returns it
        QJsonObject arguments; // of create_vm
        QElapsedTimer age;
    };

    EventSink sink;
    std::list<Machine> machines;
    std::list<Job> jobs; // newest first
    bool networkingInstalled = false;
    int lastNumber = 0; // of machines, jobs and folders
};
