// One QEMU process: its monitor (QMP) on its standard input and output, and what it and its
// machine's serial line say on its standard error. So they have no names that anybody else could
// use.

#pragma once

#include "host.h"

#include <QHash>
#include <QTimer>

class Qemu : public QObject
{
public:
    // Starts it in a folder, and adds to the arguments what its lines need. It calls the functions
    // below from the event loop, so set them next.
    Qemu(const QStringList &arguments, const QString &folder);
    ~Qemu() override;

    // A QMP command; the answer has "return" or "error", the latter also once QEMU has ended.
    Later<QJsonObject> command(const QString &name, const QJsonObject &arguments = {});

    // A command of the human monitor; the answer has what that says.
    Later<QJsonObject> monitor(const QString &line);

    // Ends it: politely, and if that does not help, by force.
    void cutPower();

    std::function<void(const QString &line)> said; // on the serial line, or by QEMU itself
    std::function<void(const QString &event)> happened; // of QMP
    std::function<void(const QString &error)> ended; // its last words, or nothing

private:
    void readMonitor();
    void readLines(const QByteArray &more);
    void end();

    QProcess process;
    QTimer hangs; // times out unless it says something soon
    QHash<qint64, Later<QJsonObject>> waiting; // for an answer
    qint64 lastId = 0;
    QByteArray unfinished; // line
    QString lastWords = u"QEMU was killed"_s;
};
