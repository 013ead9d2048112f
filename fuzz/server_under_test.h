// The server's own code, without its main(), and what it wrote. Its standard output is a file in
// memory, so that each run can look at it.

#pragma once

#define main serverMain // NOLINT: the fuzzer brings the entry point
#include "../server/orrery_mcp.cpp"
#undef main

#include <sys/mman.h>

// The lines that the server has written since the last time; ends the program unless each is one
// whole object.
inline QList<QJsonObject> writtenMessages()
{
    const off_t size = lseek(STDOUT_FILENO, 0, SEEK_CUR);
    QByteArray output(size, Qt::Uninitialized);
    if (pread(STDOUT_FILENO, output.data(), static_cast<size_t>(size), 0) != size
        || ftruncate(STDOUT_FILENO, 0) != 0 || lseek(STDOUT_FILENO, 0, SEEK_SET) != 0)
        std::abort();
    QList<QByteArray> lines = output.split('\n');
    if (!lines.takeLast().isEmpty())
        std::abort(); // half a line
    QList<QJsonObject> messages;
    for (const QByteArray &line : lines) {
        const QJsonDocument document = QJsonDocument::fromJson(line);
        if (!document.isObject())
            std::abort();
        messages += document.object();
    }
    return messages;
}

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    static QCoreApplication app(*argc, *argv);
    dup2(memfd_create("output", MFD_CLOEXEC), STDOUT_FILENO);
    return 0;
}
