// What this host can give: memory, disk space, and the programs and files that machines need.

#pragma once

#include <QString>

int hostProcessors();
int hostMemoryGB(); // that one machine may have: all but what the host itself needs
double availableMemoryGB(); // now
qint64 freeDiskGB(const QString &folder);

// What of the programs and files is missing, and how to get it; empty when all is there.
QString missingOnHost();

// The files of Small Linux lie in the folder "guest" beside this program: kernel, initrd, version.
QString guestFile(const QString &name);
