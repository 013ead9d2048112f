#include "exchange.h"

#include "host_process.h"
#include "input.h"
#include "json_input.h"
#include "memory.h"
#include "output.h"
#include "server_limits.h"

#include <QLocalSocket>

#include <algorithm>
#include <cerrno>
#include <utility>

#include <poll.h>
#include <sys/socket.h>

using namespace Qt::StringLiterals;

namespace {

// An application's event as a notification to the client. Members that the event lacks stay out.
void putEvent(JsonWriter &lines, const QJsonObject &event)
{
    const auto detail = event.constFind("params"_L1);
    const auto name = event.constFind("method"_L1);
    lines.text(R"({"jsonrpc":"2.0","method":"notifications/message","params":{"data":{)");
    if (detail != event.constEnd()) {
        lines.text(R"("detail":)");
        lines.value(*detail);
    }
    if (name != event.constEnd()) {
        lines.text(detail != event.constEnd() ? R"(,"event":)" : R"("event":)");
        lines.value(*name);
    }
    lines.text(R"(},"level":"info","logger":"orrery"}})"
               "\n");
}

} // namespace

void PipeLines::take(qint64 *clientIdleMs)
{
    qsizetype taken = 0; // bytes
    const auto passOn = [&] {
        if (events.isTooLong())
            refusal = u"Orrery sent an event that makes a message of more than 512 MiB"_s;
        else
            writeMessage(events, clientIdleMs);
        events.clear();
    };
    while (refusal.isEmpty() && !events.isTooLong()
           && std::max(taken, events.bytes().size()) < Limits::EventBatchBytes) {
        const std::optional<QByteArrayView> line = input.takeLine();
        mayHaveMore = line.has_value();
        const qsizetype size = line.value_or(input.rest()).size();
        if (size > Limits::MaxPipeLineBytes)
            refusal = u"Orrery sent a line of more than 256 MiB"_s;
        if (!line || !refusal.isEmpty())
            break;
        // What stands ready does not wait for what is large.
        if (events.bytes().size() + size > Limits::EventBatchBytes)
            passOn();
        takeLine(*line);
        if (answer)
            break; // whose long string stands in the buffer
        if (events.hasLongString())
            passOn(); // while that stands there
        input.releaseTaken();
        messageHandled(size);
        taken += size + 1;
    }
    passOn();
}

void PipeLines::takeLine(QByteArrayView line)
{
    std::optional<Message> message = parseAroundLongString(line);
    if (!message || message->object.contains("error"_L1)) { // of which a text is made
        if (isTooCostly(line)) {
            refusal = u"Orrery sent a line that takes more than 1.25 GiB of memory to read"_s;
            return;
        }
        message = parseMessage(line).value_or(Message());
    }
    const QJsonObject &object = message->object;
    if (!object.contains("result"_L1) && !object.contains("error"_L1)) {
        events.keepKeys(message->hasPlainText);
        events.setLongString(message->longString);
        putEvent(events, object);
    } else if (object.value("id"_L1).toInteger(-1) == requestId) {
        answer = *std::move(message);
    }
}

Exchange::Exchange(QLocalSocket &pipe, const HostProcess::Handle &peer, LineBuffer &buffer,
                   const JsonWriter &request, int requestId)
    : socket(pipe),
      descriptor(static_cast<int>(pipe.socketDescriptor())),
      holder(peer),
      received(buffer),
      lines(buffer, requestId),
      unsent(request.pieces())
{
}

bool Exchange::run(int limitMs, Message *answer, QString *error)
{
    answerMs = std::max(limitMs, 0); // a negative time would be without end
    writeLimit.setRemainingTime(Limits::WriteMs);
    takeReadAhead();
    send();
    while (!isOver(error))
        wait();
    if (!lines.answer)
        return false;
    *answer = *std::move(lines.answer);
    return true;
}

// Looks at everything that can end an exchange, in the order that counts. The reason is for an end
// without the answer.
bool Exchange::isOver(QString *reason)
{
    const bool isOut = isRequestOut();
    const auto end = [reason](const QString &text) {
        *reason = text;
        return true;
    };
    if (isOut && answerLimit.hasExpired()) // also where the answer came, but was not taken in time
        return end(u"Orrery did not answer in time"_s);
    qint64 clientIdleMs = 0; // the application may not read before its events have been taken
    lines.take(isOut ? nullptr : &clientIdleMs);
    writeLimit += clientIdleMs;
    if (lines.answer)
        return true;
    if (!lines.refusal.isEmpty())
        return end(lines.refusal);
    if (isClosed && !lines.mayHaveMore)
        return end(isOut ? u"Orrery closed the connection"_s : u"write to Orrery failed"_s);
    if (isCancelled())
        return end(u"cancelled by the client"_s);
    if (!isOut && writeLimit.hasExpired())
        return end(u"write to Orrery failed"_s);
    return false;
}

// Waits until something can be written or read, or for Limits::WaitSliceMs, and does so. Lines that
// are there are worked through before more is read.
void Exchange::wait()
{
    const bool reads = !lines.mayHaveMore;
    const bool writes = !isRequestOut() && !isUnwritable;
    pollfd peers[] {
        { descriptor, static_cast<short>((reads ? POLLIN : 0) | (writes ? POLLOUT : 0)), 0 },
        { holder.descriptor(), POLLIN, 0 },
    };
    if (reads) {
        const qint64 left = (isRequestOut() ? answerLimit : writeLimit).remainingTime();
        poll(peers, std::size(peers),
             static_cast<int>(std::min<qint64>(left, Limits::WaitSliceMs)));
    } else if (writes) {
        poll(peers, std::size(peers), 0);
    }
    if ((peers[0].revents & POLLOUT) != 0)
        send();
    // Of a holder that has ended, nothing more comes than what is there, though another process may
    // have inherited its end of the connection.
    const bool hasEnded = isUnwritable || peers[1].revents != 0;
    if (reads && ((peers[0].revents & ~POLLOUT) != 0 || hasEnded))
        receive(hasEnded);
}

// Writes what the socket takes now. To the socket itself: through QLocalSocket's buffer, a request
// would be copied, and cost three more system calls.
void Exchange::send()
{
    QByteArrayView &piece = *std::find_if_not(unsent.begin(), unsent.end(), isEmpty);
    const ssize_t count = ::send(descriptor, piece.data(), static_cast<size_t>(piece.size()),
                                 MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count < 0) {
        isUnwritable = errno != EAGAIN && errno != EINTR;
        return;
    }
    piece = piece.sliced(count);
    writeLimit.setRemainingTime(Limits::WriteMs);
    answerLimit.setRemainingTime(answerMs);
}

// Takes in what QLocalSocket has read by itself, when events were processed since the last
// exchange.
void Exchange::takeReadAhead()
{
    const qint64 available = socket.bytesAvailable();
    if (available == 0)
        return;
    const std::span<char> space = received.space(available);
    received.added(std::max<qint64>(socket.read(space.data(), available), 0));
}

// Takes in what is there, from the socket itself as well. isLast: nothing can come after it.
void Exchange::receive(bool isLast)
{
    const std::span<char> space = received.space(Limits::ChunkBytes);
    const ssize_t count = recv(descriptor, space.data(), space.size(), MSG_DONTWAIT);
    if (count > 0)
        received.added(count);
    else if (count == 0 || (errno != EAGAIN && errno != EINTR) || isLast)
        isClosed = true;
    lines.mayHaveMore = count > 0;
}
