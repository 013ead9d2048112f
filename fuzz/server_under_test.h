// The server's own code, without its main(), and what it wrote. Its standard output is a buffer, so
// that each run can look at it without a system call.

#pragma once

#include <QByteArray>

#include <sys/uio.h>
#include <unistd.h>

inline QByteArray &output()
{
    static QByteArray bytes;
    return bytes;
}

inline ssize_t writeToOutput(int, const void *data, size_t size)
{
    const size_t taken = (size + 1) / 2; // as by a full pipe
    output().append(static_cast<const char *>(data), static_cast<qsizetype>(taken));
    return static_cast<ssize_t>(taken);
}

inline ssize_t writeSomeToOutput(int, const iovec *vectors, int)
{
    return writeToOutput(0, vectors->iov_base, vectors->iov_len);
}

#define write writeToOutput // NOLINT: with the next, the calls by which the server writes
#define writev writeSomeToOutput // NOLINT
#define main serverMain // NOLINT: the fuzzer brings the entry point
#include "../server/orrery_mcp.cpp"
#undef main
#undef write
#undef writev

// The lines that the server has written since the last time; ends the program unless each looks
// like a whole object. That they are JSON is what fuzz_json is for.
inline QByteArrayList writtenLines()
{
    QByteArrayList lines = std::exchange(output(), {}).split('\n');
    if (!lines.takeLast().isEmpty())
        std::abort(); // half a line
    for (const QByteArray &line : lines) {
        if (!line.startsWith('{') || !line.endsWith('}'))
            std::abort();
    }
    return lines;
}

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    static QCoreApplication app(*argc, *argv);
    return 0;
}
