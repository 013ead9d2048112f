// Programs that this one runs. The kernel kills them when this process ends, however it does.

#pragma once

#include "later.h"

#include <QProcess>

// Starts a program that dies with this one, and that inherits the descriptors. The child's input is
// empty. To be called from the main thread: the kernel goes by the thread that forks.
void startBound(QProcess &process, const QString &program, const QStringList &arguments,
                const QList<int> &inherited = {});

struct Outcome
{
    bool succeeded() const { return exitCode == 0; }
    QString words() const { return QString::fromLocal8Bit(errors).trimmed(); }

    int exitCode = -1; // -1: not started, or killed
    QByteArray output;
    QByteArray errors;
    bool timedOut = false;
    bool tooMuch = false; // killed for having said more than 16 MiB
};

// Runs a program to its end; it is killed after limitMs milliseconds.
Later<Outcome> run(const QString &program, const QStringList &arguments, int limitMs);
