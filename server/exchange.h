// One request to the application and its answer, while both sides may talk: the application may say
// something, or answer, before it has taken the request.

#pragma once

#include "json_input.h"
#include "json_writer.h"
#include "line_buffer.h"

#include <QDeadlineTimer>
#include <QString>

#include <algorithm>
#include <array>
#include <optional>

class QLocalSocket;

namespace HostProcess {
class Handle;
}

// What the application says during an exchange, line by line.
class PipeLines
{
public:
    PipeLines(LineBuffer &buffer, int request) : input(buffer), requestId(request) { }

    // Works through what was received: passes events on to the client, and drops answers to other
    // requests. Stops at the answer, at a line that is refused, after as much as goes out in one
    // write, or when no whole line is left. clientIdleMs: see writeMessage().
    void take(qint64 *clientIdleMs);

    // Whether there may be a whole line left.
    bool mayHaveMore = true;

    // The answer, once it came. Its long string lies in the buffer.
    std::optional<Message> answer;

    // Why a line was refused; empty while none was.
    QString refusal;

private:
    void takeLine(QByteArrayView line);

    LineBuffer &input;
    const int requestId;
    JsonWriter events; // that go out in one write
};

// An exchange on a connection that stands.
class Exchange
{
public:
    // request is a line, which stands until run() has ended. peer is the process at the other end.
    // buffer holds what came on the connection before, and keeps what comes behind the answer.
    Exchange(QLocalSocket &pipe, const HostProcess::Handle &peer, LineBuffer &buffer,
             const JsonWriter &request, int requestId);

    // Writes the request and waits for the answer, for limitMs from when the request is written.
    // True with the answer in *answer, false with the reason in *error.
    bool run(int limitMs, Message *answer, QString *error);

    // Whether the whole request has been written.
    [[nodiscard]] bool isRequestOut() const
    {
        return std::all_of(unsent.begin(), unsent.end(), isEmpty);
    }

private:
    static bool isEmpty(QByteArrayView piece) { return piece.isEmpty(); }
    bool isOver(QString *reason);
    void takeReadAhead();
    void wait();
    void send();
    void receive(bool isLast);

    QLocalSocket &socket;
    const int descriptor; // of the socket
    const HostProcess::Handle &holder;
    LineBuffer &received;
    PipeLines lines;
    std::array<QByteArrayView, 3> unsent; // of the request
    QDeadlineTimer writeLimit; // for the next bytes of the request
    QDeadlineTimer answerLimit; // once the request is written
    int answerMs = 0;
    bool isUnwritable = false; // the application takes nothing any more
    bool isClosed = false; // and says nothing any more
};
