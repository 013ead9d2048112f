// One QEMU process: its monitor (QMP), its serial line, and the line to the guest's tools. It
// inherits all three as descriptors, so they have no names that anybody else could use.

#pragma once

#include "host.h"

#include <QHash>
#include <QLocalSocket>

class Qemu : public QObject
{
public:
    struct Listener
    {
        std::function<void(const QString &line)> said; // on the serial line, or by QEMU itself
        std::function<void(const QString &event)> happened; // an event of QMP, or "ready"
        std::function<void(const QString &error)> ended; // its last words, or nothing
    };

    // Starts it in a folder, and adds to the arguments what its lines need.
    Qemu(const QStringList &arguments, const QString &folder, Listener listener);
    ~Qemu() override;

    // A QMP command; the answer has "return" or "error", the latter also once QEMU has ended.
    Later<QJsonObject> command(const QString &name, const QJsonObject &arguments = {});

    // A command of the human monitor; the answer has what that says.
    Later<QJsonObject> monitor(const QString &line);

    // Runs a shell command as root through the guest's tools. The answer has "exit" and, with both
    // streams in it, "output"; it is empty when 25 s have passed.
    Later<QJsonObject> inGuest(const QString &shellCommand);

    // Ends it: politely, or by force if that does not help.
    void cutPower();

    // The first answer, which comes once the machine is made and its processors can be started.
    Later<QJsonObject> up;

private:
    void readMonitor();
    void readAgent();
    void readLines(const QByteArray &more);
    void end();

    QProcess process;
    QLocalSocket qmp, agent;
    Listener listener;
    QHash<qint64, Later<QJsonObject>> waiting; // for an answer on either line
    qint64 lastId = 0;
    QByteArray unfinished; // line
    QString lastWords;
};
