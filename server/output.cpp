#include "output.h"

#include "server_limits.h"

#include <QElapsedTimer>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <mutex>

#include <poll.h>
#include <unistd.h>

namespace {

std::mutex g_out; // standard output, for one message

// Writes all of it, also to a slow reader or in non-blocking mode. False when that cannot be.
bool writeAll(QByteArrayView bytes)
{
    while (!bytes.isEmpty()) {
        const ssize_t count = write(STDOUT_FILENO, bytes.data(), static_cast<size_t>(bytes.size()));
        if (count >= 0) {
            bytes = bytes.sliced(count);
        } else if (errno == EAGAIN) {
            pollfd output { STDOUT_FILENO, POLLOUT, 0 };
            poll(&output, 1, -1);
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

} // namespace

void writeMessage(const JsonWriter &lines, qint64 *clientIdleMs)
{
    std::unique_lock lock(g_out, std::defer_lock); // for the first byte: without any, no wait
    for (QByteArrayView bytes : lines.pieces()) {
        while (!bytes.isEmpty()) {
            // A pipe that has room takes so much at once (pipe(7)).
            const qsizetype most = clientIdleMs == nullptr ? bytes.size() : PIPE_BUF;
            const QByteArrayView step = bytes.first(std::min(most, bytes.size()));
            QElapsedTimer timer;
            if (clientIdleMs != nullptr)
                timer.start();
            if (!lock.owns_lock())
                lock.lock(); // held by another message, of which the client takes nothing
            if (!writeAll(step))
                return;
            if (clientIdleMs != nullptr && timer.elapsed() >= Limits::ClientIdleMs)
                *clientIdleMs += timer.elapsed();
            bytes = bytes.sliced(step.size());
        }
    }
}
