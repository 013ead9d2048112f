#include "output.h"

#include "server_limits.h"

#include <QElapsedTimer>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <mutex>

#include <poll.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

using Pieces = std::array<QByteArrayView, 3>;

std::mutex g_out; // standard output, for one message

// Until standard output takes bytes, or nobody ever will.
void waitForRoom()
{
    pollfd output { STDOUT_FILENO, POLLOUT, 0 };
    poll(&output, 1, -1);
}

// write(2) of pieces that stand apart. Most messages are in one piece, for which it is quicker.
ssize_t writeSome(const QByteArrayView *piece, const QByteArrayView *end)
{
    if (end - piece == 1)
        return write(STDOUT_FILENO, piece->data(), static_cast<size_t>(piece->size()));
    std::array<iovec, 3> vectors {};
    const auto vectorsEnd = std::transform(piece, end, vectors.begin(), [](QByteArrayView bytes) {
        return iovec { const_cast<char *>(bytes.data()), static_cast<size_t>(bytes.size()) };
    });
    return writev(STDOUT_FILENO, vectors.data(), static_cast<int>(vectorsEnd - vectors.begin()));
}

// Writes all pieces, also to a slow reader or in non-blocking mode. False when that cannot be.
bool writeAll(Pieces pieces)
{
    auto *piece = pieces.data();
    const auto *const end = std::remove(piece, piece + pieces.size(), QByteArrayView());
    while (piece != end) {
        ssize_t count = writeSome(piece, end);
        if (count >= 0) {
            for (; piece != end && piece->size() <= count; ++piece)
                count -= piece->size();
            if (piece != end)
                *piece = piece->sliced(count);
        } else if (errno == EAGAIN) {
            waitForRoom();
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

} // namespace

void writeMessage(const JsonWriter &lines)
{
    if (lines.bytes().isEmpty())
        return;
    const std::lock_guard lock(g_out);
    writeAll(lines.pieces());
}

qint64 writeMessageTimed(const JsonWriter &lines)
{
    qint64 idleMs = 0;
    if (lines.bytes().isEmpty())
        return idleMs;
    const std::lock_guard lock(g_out);
    for (QByteArrayView bytes : lines.pieces()) {
        while (!bytes.isEmpty()) {
            QElapsedTimer timer;
            timer.start();
            // A pipe with room takes so much at once (pipe(7)).
            const QByteArrayView step = bytes.first(std::min<qsizetype>(PIPE_BUF, bytes.size()));
            waitForRoom();
            if (!writeAll({ step }))
                return idleMs;
            if (timer.elapsed() >= Limits::WaitSliceMs)
                idleMs += timer.elapsed();
            bytes = bytes.sliced(step.size());
        }
    }
    return idleMs;
}
