// orrery-mcp: lets an AI client operate the Orrery application over the Model Context Protocol.
//
// The client writes JSON-RPC messages to standard input, a line each, and reads answers from
// standard output. The road of a message, by files:
//
//   input        the stdin reader thread reads it, answers a ping and takes a cancellation, and
//                queues the rest, which the main thread takes one by one
//   dispatcher   finds out what it asks for; answers initialize and tools/list (catalogue)
//   tools        a tool call: carried out here, or relayed to the application
//   pipe         the connection to the application: made, checked and greeted on demand
//   exchange     one request to it and its answer; events go on to the client meanwhile
//   replies      the answer as a response, a tool result if it was a tool call
//   output       standard output, the only way to it
//
// Below them: JSON text as it is read (json_input) and written (json_writer, json_escape), lines
// (line_buffer), where freed memory goes (memory), and server_limits. Nothing includes what is
// above it; input, which knows whether a call was cancelled, and the catalogue stand beside.
//
// Two threads: the stdin reader, so that pings and cancellations are served while a call blocks,
// and the main thread, which does everything else.

#include "catalogue.h"
#include "dispatcher.h"
#include "host_process.h"
#include "input.h"
#include "memory.h"

#include <QCoreApplication>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

namespace {

// Makes the process safe to run under any client: nothing that is opened later lands on a missing
// standard stream, a client that is gone does not end us by a signal, and descriptors that the
// client left open are not handed on to the application. False when the null device cannot be
// opened.
bool secureProcess()
{
    for (const int standard : { STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO }) {
        if (fcntl(standard, F_GETFD) < 0 && open("/dev/null", O_RDWR) != standard)
            return false;
    }
    std::signal(SIGPIPE, SIG_IGN);
    std::error_code ignored;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd", ignored)) {
        const int descriptor = std::atoi(entry.path().filename().c_str());
        if (descriptor > STDERR_FILENO)
            fcntl(descriptor, F_SETFD, FD_CLOEXEC);
    }
    return true;
}

} // namespace

int main(int argc, char *argv[])
{
    if (!secureProcess())
        return 1;
    if (getuid() != geteuid()) { // for which Qt would abort
        std::fputs("orrery-mcp: does not run with the rights of another user\n", stderr);
        return 1;
    }
    setUpMemory();
    // Standard error is for this program's own diagnostics.
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    QCoreApplication app(argc, argv);
    // Asked for now, because Qt keeps the first answer, and there is none once the file is
    // replaced.
    (void)QCoreApplication::applicationFilePath();

    HostProcess::binaryStdout();
    if (!loadCatalogue()) {
        std::fputs("orrery-mcp: missing contract\n", stderr);
        return 1;
    }
    HostProcess::binaryStdin();

    RequestQueue queue;
    std::thread reader(readStdin, std::ref(queue));
    while (std::optional<Request> request = queue.take()) {
        handle(*request);
        QCoreApplication::processEvents();
        const qsizetype size = request->lineBytes;
        request.reset();
        messageHandled(size);
    }
    reader.join();
    return 0;
}
