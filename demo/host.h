// What this host offers: programs to run as children, memory and disk space, and the files of Small
// Linux (kernel, initrd, version), which lie in the folder "guest" beside this program.

#pragma once

#include "answers.h"

#include <QProcess>

int hostProcessors();
int hostMemoryGB(); // for one machine at most: all but what the host itself needs
int availableMemoryGB(); // now
qint64 freeDiskGB(const QString &folder);
QString guestFile(const QString &name);
QByteArray contents(const QString &path); // of a file; nothing where it cannot be read

// Which programs and files are missing, and how to get them; empty when all are there.
QString missingOnHost();

// Starts a program, which the kernel kills when this process ends, however that does; it goes by
// the thread that forks, so call it from the main one.
void startBound(QProcess &process, const QString &program, const QStringList &arguments);

struct Outcome
{
    bool succeeded() const { return exitCode == 0; }
    QString words() const { return QString::fromLocal8Bit(errors).trimmed(); }

    int exitCode = -1; // -1: not started, or killed
    QByteArray output;
    QByteArray errors;
    bool tooMuch = false; // killed because it wrote more than 16 MiB
};

// Runs a program in a folder to its end, bound as above, and kills it after limitMs milliseconds.
Later<Outcome> run(const QString &program, const QStringList &arguments, const QString &folder,
                   int limitMs = 60'000);

// Runs qemu-img in a folder, with arguments that blanks separate.
Later<Outcome> diskTool(const QString &words, const QString &folder);

// Makes a pair of keys for SSH, the files of that name and with ".pub" in the folder.
Later<Outcome> makeKey(const QString &name, const QString &folder);
