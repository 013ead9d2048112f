#include "input.h"

#include "json_input.h"
#include "memory.h"
#include "replies.h"
#include "server_limits.h"

#include <atomic>
#include <cerrno>
#include <utility>

#include <poll.h>
#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr size_t LongQueue = 4'096; // requests

std::atomic<qint64> g_inFlight = NoCall; // id of the relayed call; written by the main thread
std::atomic<bool> g_cancelled = false; // that call was; set by the reader, cleared by main
std::mutex g_call; // held to change the two, which belong together

// Reads what is there, at most as much as there is space for, and waits for the first byte. 0 at
// the end of input, -1 after an error.
ssize_t readInput(std::span<char> space)
{
    for (;;) {
        const ssize_t count = read(STDIN_FILENO, space.data(), space.size());
        if (count >= 0)
            return count;
        if (errno == EAGAIN) { // in non-blocking mode
            pollfd input { STDIN_FILENO, POLLIN, 0 };
            poll(&input, 1, -1);
        } else if (errno != EINTR) {
            return -1;
        }
    }
}

// Cancels the call in flight if that is the one named. True when it was.
bool cancelInFlight(const QJsonObject &notification)
{
    // What is no integer names no call; while none is in flight there is nothing to cancel.
    const qint64 requestId = notification["params"_L1].toObject()["requestId"_L1].toInteger(NoCall);
    // The comparison and the store are one step to whoever registers a call or ends it: between the
    // two, another call could come to be in flight, and would be cancelled instead.
    const std::lock_guard lock(g_call);
    if (requestId == NoCall || requestId != g_inFlight)
        return false;
    g_cancelled.exchange(true);
    return true;
}

// One line of input: answers what must not wait behind a slow call, queues the rest.
void receiveLine(QByteArrayView line, RequestQueue &queue)
{
    if (line.endsWith('\r'))
        line.chop(1);
    if (line.isEmpty())
        return;
    std::optional<QJsonObject> message;
    if (!isTooCostly(line))
        message = parseObject(line);
    if (!message) {
        replyError(QJsonValue::Null, ParseError, u"Parse error"_s);
        return;
    }
    if (!isAnswerable(*message, line.size())) {
        replyError(QJsonValue::Null, InvalidRequest, u"Invalid Request: the id is too long"_s);
        return;
    }
    const QString method = message->value("method"_L1).toString();
    const auto id = message->constFind("id"_L1);
    if (method == "ping"_L1 && id != message->constEnd()) {
        reply(*id, {});
        return;
    }
    if (method == "notifications/cancelled"_L1 && cancelInFlight(*message))
        return;
    queue.append({ *std::move(message), line.size() });
}

// Receives a line, and sees to it that what was large is given back, if not by this thread.
void receiveAndRelease(QByteArrayView line, LineBuffer &input, RequestQueue &queue)
{
    const qsizetype size = line.size();
    const ReleaseAtOnce release(size);
    receiveLine(line, queue);
    input.releaseTaken();
    messageHandled(size);
    if (isMemoryKept())
        queue.wake();
}

} // namespace

void RequestQueue::append(Request request)
{
    {
        const std::lock_guard lock(mutex);
        bytes += request.size;
        requests.push_back(std::move(request));
        wasLong = wasLong || requests.size() >= LongQueue;
    }
    // Outside of the lock: whoever wakes takes it first.
    changed.notify_one();
}

void RequestQueue::endInput()
{
    {
        const std::lock_guard lock(mutex);
        inputEnded = true;
    }
    changed.notify_one();
}

void RequestQueue::wake()
{
    {
        const std::lock_guard lock(mutex); // not between a look and the wait
    }
    changed.notify_one();
}

std::optional<Request> RequestQueue::take()
{
    std::unique_lock lock(mutex);
    const auto ready = [this] { return inputEnded || !requests.empty(); };
    while (!changed.wait_for(lock, wasLong ? 0ms : Limits::Quiet, ready)) {
        wasLong = false;
        lock.unlock();
        giveMemoryBack();
        lock.lock();
        changed.wait(lock, [&] { return isMemoryKept() || ready(); });
    }
    if (requests.empty())
        return {};
    messageHandled(bytes); // many small requests are as much as a large one
    Request request = std::move(requests.front());
    requests.pop_front();
    bytes -= request.size;
    return request;
}

void receiveLines(LineBuffer &input, RequestQueue &queue)
{
    while (const std::optional<QByteArrayView> line = input.takeLine())
        receiveAndRelease(*line, input, queue);
}

void receiveRest(LineBuffer &input, RequestQueue &queue)
{
    receiveAndRelease(input.rest(), input, queue);
}

void readStdin(RequestQueue &queue)
{
    LineBuffer input;
    for (;;) {
        const ssize_t count = readInput(input.space(Limits::ChunkBytes));
        if (count <= 0)
            break;
        input.added(count);
        receiveLines(input, queue);
    }
    receiveRest(input, queue);
    queue.endInput();
}

// Either way nothing is cancelled yet: under the lock, a cancellation that the reader is recording
// comes before both stores, and is cleared, or after both, and finds another id.
void setInFlight(qint64 id)
{
    const std::lock_guard lock(g_call);
    g_inFlight.exchange(id);
    g_cancelled.exchange(false);
}

bool isCancelled() { return g_cancelled; }
