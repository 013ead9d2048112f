// What this host gives: programs that run as children, memory and disk space, and the files of
// Small Linux, which lie in the folder "guest" beside this program: kernel, initrd, version.

#pragma once

#include "answers.h"

#include <QPointer>
#include <QProcess>

int hostProcessors();
int hostMemoryGB(); // that one machine may have: all but what the host itself needs
int availableMemoryGB(); // now
qint64 freeDiskGB(const QString &folder);
QString guestFile(const QString &name);

// What of the programs and files is missing, and how to get it; empty when all is there.
QString missingOnHost();

// Starts a program that inherits the descriptors. The kernel kills it when this process ends,
// however that does; it goes by the thread that forks, so call it from the main one.
void startBound(QProcess &process, const QString &program, const QStringList &arguments,
                const QList<int> &inherited = {});

// Kills what still runs after that many milliseconds, unless that value has come.
Later<bool> killAfter(QPointer<QProcess> process, int ms, Later<QJsonObject> unless = {});

struct Outcome
{
    bool succeeded() const { return exitCode == 0; }
    QString words() const { return QString::fromLocal8Bit(errors).trimmed(); }

    int exitCode = -1; // -1: not started, or killed
    QByteArray output;
    QByteArray errors;
    bool tooMuch = false; // killed for having said more than 16 MiB
};

// Runs a program in a folder to its end, bound as above; it is killed after limitMs milliseconds.
Later<Outcome> run(const QString &program, const QStringList &arguments, const QString &folder,
                   int limitMs = 60'000);
