#include "input.h"

#include "json_input.h"
#include "memory.h"
#include "replies.h"
#include "server_limits.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <utility>

#include <poll.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

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

// The message of a line; nothing when it is none, or would cost too much. Only what nobody looks at
// stands apart, in the arguments of a tool or beside what makes a ping.
std::optional<Message> parseLine(QByteArrayView line)
{
    if (std::optional<Message> message = parseAroundLongString(line)) {
        const QJsonValue id = message->object.value("id"_L1);
        const QJsonValue method = message->object.value("method"_L1);
        const bool isCall = method == "tools/call"_L1
                            && message->object.value("params"_L1)["name"_L1] != Placeholder;
        if ((isCall || method == "ping"_L1)
            && (id.isDouble() || (id.isString() && id != Placeholder)))
            return message;
    }
    return isTooCostly(line) ? std::nullopt : parseMessage(line);
}

// One line of input: answers what must not wait behind a slow call, queues the rest.
void receiveLine(QByteArrayView line, RequestQueue &queue)
{
    if (line.endsWith('\r'))
        line.chop(1);
    if (line.isEmpty())
        return;
    std::optional<Message> message = parseLine(line);
    if (!message) {
        replyError(QJsonValue::Null, ParseError, u"Parse error"_s);
        return;
    }
    const QJsonValue id = message->object.value("id"_L1);
    if (!isAnswerable(id, line.size())) {
        replyError(QJsonValue::Null, InvalidRequest, u"Invalid Request: the id is too long"_s);
        return;
    }
    QString method = message->object.value("method"_L1).toString();
    if (method == "ping"_L1 && !id.isUndefined()) {
        reply(id, {});
        return;
    }
    if (method == "notifications/cancelled"_L1 && cancelInFlight(message->object))
        return;
    queue.append(Request { id, std::move(method), message->object.value("params"_L1).toObject(),
                           message->longString.toByteArray(), line.size() });
}

} // namespace

void RequestQueue::append(std::optional<Request> request)
{
    {
        const std::lock_guard lock(mutex);
        requests.push_back(std::move(request));
    }
    // Outside of the lock: whoever wakes takes it first.
    changed.notify_one();
}

std::optional<Request> RequestQueue::take()
{
    std::unique_lock lock(mutex);
    changed.wait(lock, [this] { return !requests.empty(); });
    std::optional<Request> request = std::move(requests.front());
    requests.pop_front();
    return request;
}

void receiveLines(LineBuffer &input, RequestQueue &queue)
{
    while (const std::optional<QByteArrayView> line = input.takeLine()) {
        const qsizetype size = line->size();
        receiveLine(*line, queue);
        input.releaseTaken();
        messageHandled(size);
    }
}

void readStdin(RequestQueue &queue)
{
    LineBuffer input;
    for (;;) {
        const std::span<char> space = input.space(Limits::ChunkBytes);
        const ssize_t count = readInput(space);
        if (count <= 0)
            space.front() = '\n'; // the last line may lack it
        input.added(std::max<ssize_t>(count, 1));
        receiveLines(input, queue);
        if (count <= 0)
            return queue.append({});
    }
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
