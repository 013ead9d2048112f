// Standard input: the stdin reader thread, the queue through which requests come to the main
// thread, and the cancellation of the call in flight.

#pragma once

#include "line_buffer.h"

#include <QJsonObject>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>

// What the client asks for. It may wait in the thousands, so nothing else of its message is kept.
struct Request
{
    QJsonValue id; // undefined: a notification
    QString method;
    QJsonObject params;
    QByteArray longString; // of the params, see Message
    qsizetype lineBytes = 0;
};

// What the reader hands to the main thread, in order. Outlives the reader.
class RequestQueue
{
public:
    // Nothing, for the last time: input has ended.
    void append(std::optional<Request> request);

    // Waits for the next one.
    std::optional<Request> take();

private:
    std::mutex mutex; // guards the requests
    std::condition_variable changed;
    std::deque<std::optional<Request>> requests;
};

// The stdin reader thread: reads until standard input ends. Answers what must not wait behind a
// slow call, as a ping, and queues the rest.
void readStdin(RequestQueue &queue);

// What the reader does with the whole lines of what it has read.
void receiveLines(LineBuffer &input, RequestQueue &queue);

// The id of no call.
inline constexpr qint64 NoCall = -1;

// Registers a call as the one that the client can cancel, or NoCall. Main thread.
void setInFlight(qint64 id);

// Whether the client has cancelled the call in flight.
[[nodiscard]] bool isCancelled();
