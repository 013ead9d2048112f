// orrery-mcp: lets an AI client operate the Orrery application over the Model Context Protocol.
//
// The client writes JSON-RPC messages to standard input, a line each, and reads answers from
// standard output. This file follows a message: read by the stdin reader thread, queued, taken by
// the main thread, dispatched, and, if it is a tool call, relayed to the application over its
// control pipe and turned into a tool result.
//
// Two threads: the stdin reader, so that pings and cancellations are served while a call blocks,
// and the main thread, which does everything else. They share the request queue, standard output
// (g_out), the cancellation pair (g_inFlight, g_cancelled; g_call) and what concerns freed memory
// (g_freedMemory, PromptRelease), and nothing else.

#include "freed_memory.h"
#include "host_process.h"
#include "json_input.h"
#include "json_text.h"
#include "line_buffer.h"
#include "orrery_control.h"
#include "plain_string.h"
#include "server_limits.h"

#include <QCborMap>
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalSocket>
#include <QProcess>
#include <QSet>
#include <QThread>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr qsizetype EnvelopeBytes = 256; // what stands around a result, but for the id
constexpr qsizetype AnswerBytes = 1 << 20; // that an answer has at least, beside the longest id

constexpr qint64 NoCall = -1;
constexpr int ParseError = -32700;
constexpr int InvalidRequest = -32600;
constexpr int MethodNotFound = -32601;
constexpr auto FallbackProtocolVersion = "2024-11-05"_L1;
constexpr auto ImageKey = "imageBase64"_L1;
constexpr auto BundleId = "app.orrery.Orrery"_L1;

std::mutex g_out; // standard output, for one message
std::atomic<qint64> g_inFlight = NoCall; // id of the relayed call; written by the main thread
std::atomic<bool> g_cancelled = false; // that call was; set by the reader, cleared by main
std::mutex g_call; // held to change the two, which belong together
FreedMemory g_freedMemory;
qsizetype g_messageBytes = 0; // of what is being handled, a request or its answer; main thread
QJsonObject g_contract; // the catalogue; written before the reader starts, then never
QString g_clientInfoName; // main thread

// Lines and bytes

// Waits until the descriptor is ready. Only a descriptor in non-blocking mode comes here.
void waitReady(int descriptor, short events)
{
    pollfd waited { descriptor, events, 0 };
    poll(&waited, 1, -1);
}

// Reads what is there, at most size bytes, and waits for the first. 0 at the end of input, -1 after
// an error.
qint64 readInput(char *data, qsizetype size)
{
    for (;;) {
        const ssize_t count = read(STDIN_FILENO, data, static_cast<size_t>(size));
        if (count >= 0)
            return count;
        if (errno == EAGAIN)
            waitReady(STDIN_FILENO, POLLIN);
        else if (errno != EINTR)
            return -1;
    }
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

// Writes all pieces, also to a slow reader or in non-blocking mode. What cannot be written at all
// is dropped: the client is gone, and what it asked for is still carried out.
void writeOutput(std::array<QByteArrayView, 3> pieces)
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
            waitReady(STDOUT_FILENO, POLLOUT);
        } else if (errno != EINTR) {
            return;
        }
    }
}

// Writing and replies

// The only way to standard output: a whole message, or several, each a line with its line feed. Any
// thread.
void writeMessage(const JsonText &lines)
{
    if (lines.bytes().isEmpty())
        return;
    const std::lock_guard lock(g_out);
    writeOutput(lines.pieces());
}

// The "id" member of a response, which an undefined id leaves out.
void putId(JsonText &line, const QJsonValue &id)
{
    if (id.isUndefined())
        return;
    line.key("id"_L1);
    line.value(id);
}

// A success response around the result that putResult writes. False, with nothing written, when the
// message would be too long.
template <typename PutResult>
bool replyWith(const QJsonValue &id, qsizetype expectedBytes, PutResult putResult)
{
    JsonText line(expectedBytes + EnvelopeBytes);
    line.beginObject();
    putId(line, id);
    line.key("jsonrpc"_L1);
    line.string("2.0"_L1);
    line.key("result"_L1);
    putResult(line);
    line.endObject();
    line.endLine();
    if (line.isTooLong())
        return false;
    writeMessage(line);
    return true;
}

void reply(const QJsonValue &id, const QJsonObject &result)
{
    replyWith(id, 0, [&](JsonText &line) { line.value(result); });
}

void replyError(const QJsonValue &id, int code, const QString &message)
{
    JsonText line;
    line.beginObject();
    line.key("error"_L1);
    line.beginObject();
    line.key("code"_L1);
    line.integer(code);
    line.key("message"_L1);
    line.string(message);
    line.endObject();
    putId(line, id);
    line.key("jsonrpc"_L1);
    line.string("2.0"_L1);
    line.endObject();
    line.endLine();
    constexpr qsizetype Excerpt = 64; // of a method's name, which may be as long as a line
    if (!line.isTooLong())
        writeMessage(line);
    else if (message.size() > Excerpt)
        replyError(id, code, message.first(Excerpt));
}

// A JSON value as a string for a reader: objects and arrays indented, a string as itself, null as
// nothing. Without the member of an object that is called except.
void jsonText(JsonText &line, const QJsonValue &value, QLatin1StringView except = {})
{
    if (value.isObject() || value.isArray())
        line.readerText(value, except);
    else
        line.string(value.toVariant().toString());
}

// The stdin reader thread and its queue

// A request and how many bytes it came in.
struct Request
{
    QJsonObject message;
    qsizetype size;
};

// What the reader hands to the main thread, in order. Lives in main(), outlives the reader.
class RequestQueue
{
public:
    void append(Request request)
    {
        {
            const std::lock_guard lock(mutex);
            bytes += request.size;
            requests.push_back(std::move(request));
            wasLong = wasLong || requests.size() >= Limits::LongQueue;
        }
        // Outside of the lock: whoever wakes takes it first.
        changed.notify_one();
    }

    void endInput()
    {
        {
            const std::lock_guard lock(mutex);
            inputEnded = true;
        }
        changed.notify_one();
    }

    // Lets take() look after freed memory.
    void wake()
    {
        {
            const std::lock_guard lock(mutex); // not between a look and the wait
        }
        changed.notify_one();
    }

    // Waits for the next request; nothing once input has ended and every request was taken. When
    // none comes for a while, freed memory goes back to the system; at once after a long queue,
    // whose memory nothing else would use.
    std::optional<Request> take()
    {
        std::unique_lock lock(mutex);
        const auto ready = [this] { return inputEnded || !requests.empty(); };
        while (!changed.wait_for(lock, wasLong ? 0ms : Limits::Quiet, ready)) {
            wasLong = false;
            lock.unlock();
            g_freedMemory.giveBack();
            lock.lock();
            changed.wait(lock, [&] { return g_freedMemory.isKept() || ready(); });
        }
        if (requests.empty())
            return {};
        g_freedMemory.used(bytes); // many small requests are as much as a large one
        Request request = std::move(requests.front());
        requests.pop_front();
        bytes -= request.size;
        return request;
    }

private:
    std::mutex mutex; // guards what follows
    std::condition_variable changed;
    std::deque<Request> requests;
    qsizetype bytes = 0; // that the requests came in
    bool inputEnded = false;
    bool wasLong = false; // since take() last gave memory back
};

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

// Whether an answer to a message that came in so many bytes has room for its id, which comes back.
bool isAnswerable(const QJsonObject &message, qsizetype lineBytes)
{
    constexpr qsizetype Longest = Limits::MaxMessageBytes - AnswerBytes;
    constexpr qsizetype MostForAByte = 6; // a control character becomes \u0001
    if (lineBytes <= Longest / MostForAByte)
        return true;
    JsonText text;
    text.value(message.value("id"_L1));
    return !text.isTooLong() && text.bytes().size() <= Longest;
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
    const PromptRelease prompt(size >= Limits::LargeBytes);
    receiveLine(line, queue);
    input.releaseTaken();
    if (size >= Limits::LargeBytes) {
        g_freedMemory.used(size);
        queue.wake();
    }
}

// The whole lines of what has been read.
void receiveLines(LineBuffer &input, RequestQueue &queue)
{
    while (const std::optional<QByteArrayView> line = input.takeLine())
        receiveAndRelease(*line, input, queue);
}

// The stdin reader thread: runs until standard input ends.
void readStdin(RequestQueue &queue)
{
    LineBuffer input;
    for (;;) {
        const qint64 count
                = readInput(input.space(Limits::InputChunkBytes), Limits::InputChunkBytes);
        if (count <= 0)
            break;
        input.added(count);
        receiveLines(input, queue);
    }
    // A last line may lack its line feed.
    receiveAndRelease(input.rest(), input, queue);
    queue.endInput();
}

// On the way of a tool call: each is defined in a section of its own below.
void toolsCall(const QJsonValue &id, const QJsonObject &params);
bool launchApp(QString *error);
QString applicationErrorText(const QJsonValue &error);
void replyToolText(const QJsonValue &id, const QString &text, bool isError);
void replyToolJSON(const QJsonValue &id, const QJsonValue &value, bool isError);
void appStatus(const QJsonValue &id);
void launchAppTool(const QJsonValue &id);
void quitApp(const QJsonValue &id, const QJsonObject &arguments);

// The dispatcher

void initialize(const QJsonValue &id, const QJsonObject &params)
{
    static const QStringList supported { u"2024-11-05"_s, u"2025-03-26"_s, u"2025-06-18"_s };
    const QString requested = params["protocolVersion"_L1].toString();
    g_clientInfoName = params["clientInfo"_L1].toObject()["name"_L1].toString();

    const QString fallback
            = g_contract.value("protocolVersion"_L1).toString(FallbackProtocolVersion);
    QJsonObject result {
        { u"protocolVersion"_s, supported.contains(requested) ? requested : fallback },
        { u"capabilities"_s,
          QJsonObject { { u"tools"_s, QJsonObject() }, { u"logging"_s, QJsonObject() } } },
    };
    if (g_contract.contains("serverInfo"_L1))
        result.insert("serverInfo"_L1, g_contract.value("serverInfo"_L1));
    if (const QJsonValue instructions = g_contract.value("instructions"_L1);
        instructions.isString())
        result.insert("instructions"_L1, instructions);
    reply(id, result);
}

// The result of tools/list, made once: the catalogue never changes.
const JsonText &toolList()
{
    static const JsonText list = [] {
        JsonText text;
        text.beginObject();
        if (g_contract.contains("tools"_L1)) {
            text.key("tools"_L1);
            text.value(g_contract.value("tools"_L1));
        }
        text.endObject();
        return text;
    }();
    return list;
}

void listTools(const QJsonValue &id)
{
    const QByteArrayView list = toolList().bytes();
    replyWith(id, list.size(), [&](JsonText &line) { line.json(list); });
}

void handle(const QJsonObject &request)
{
    // A message without an id is a notification: nobody could learn what became of it, so nothing
    // is carried out and nothing is answered.
    const auto idMember = request.constFind("id"_L1);
    if (idMember == request.constEnd())
        return;
    const QJsonValue id = *idMember;
    const QString method = request["method"_L1].toString();
    const QJsonObject params = request["params"_L1].toObject();
    if (method == "initialize"_L1)
        initialize(id, params);
    else if (method == "tools/list"_L1)
        listTools(id);
    else if (method == "tools/call"_L1)
        toolsCall(id, params);
    else
        replyError(id, MethodNotFound, u"Method not found: "_s + method);
}

// The tool router

// The one connection to the application: made on demand, kept until a failure drops it. Main thread
// only.
class Pipe
{
public:
    Pipe() { sock.setReadBufferSize(Limits::PipeChunkBytes); }

    // Whether the connection stands. Notices an end that came since it was last used, without
    // reading: what the application sent is still there for the next call.
    bool isConnected();

    // Reaches the pipe within waitMs, makes sure that its holder is this installation's application
    // and greets it, which may take helloTimeoutMs. On false, foreignHolder and helloError tell
    // why.
    bool connect(int waitMs, int helloTimeoutMs);

    // Sends one request and waits timeoutMs for its response, passing events on to the client
    // meanwhile. On false, *error says why and the connection is down. An error response is a
    // response.
    bool call(const QString &method, const QJsonObject &params, QJsonObject *response,
              QString *error, int timeoutMs);

    // The outcome of the last connect().
    const QString &lastHelloError() const { return helloError; }
    bool lastHolderWasForeign() const { return foreignHolder; }

    // Ends the connection, and with it what is left of an exchange on it.
    void drop();

private:
    bool takeInput(QString *error);
    bool waitToSend(QDeadlineTimer *deadline, QString *error);
    bool send(QByteArrayView request, QString *error);
    bool sendRequest(const QString &method, const QJsonObject &params, QString *error);
    bool waitForAnswer(QString *error);
    bool checkHolder();
    bool greet(int helloTimeoutMs);

    QLocalSocket sock;
    LineBuffer readBuffer; // received and not yet taken as lines
    int nextId = 0; // id of the last request; never starts again, not even on a new connection
    bool foreignHolder = false; // the last connect() met a holder that is not our application
    QString helloError; // the application's refusal of the last hello
    std::optional<HostProcess::Handle> holder; // whom checkHolder() found in order
    QDeadlineTimer limit; // of the exchange under way
    std::optional<QJsonObject> answer; // in it, once it came
};

Pipe g_pipe;

bool isCatalogued(const QString &tool)
{
    static const QSet<QString> names = [] {
        QSet<QString> all;
        const QJsonArray tools = g_contract.value("tools"_L1).toArray();
        for (const QJsonValue &entry : tools)
            all.insert(entry["name"_L1].toString());
        return all;
    }();
    return names.contains(tool);
}

int callLimitMs(const QString &tool)
{
    return tool == "create_vm"_L1 || tool == "job_wait"_L1 ? Limits::LongCallMs : Limits::CallMs;
}

// The application's answer to a tool as the answer to the client.
void replyResponse(const QJsonValue &id, const QJsonObject &response)
{
    if (response.contains("error"_L1))
        replyToolText(id, applicationErrorText(response.value("error"_L1)), true);
    else
        replyToolJSON(id, response.value("result"_L1), false);
}

// Registers a call as the one that can be cancelled, or that there is none. Either way nothing is
// cancelled yet: under the lock, a cancellation that the reader is recording comes before both
// stores, and is cleared, or after both, and finds another id.
void setInFlight(qint64 id)
{
    const std::lock_guard lock(g_call);
    g_inFlight.exchange(id);
    g_cancelled.exchange(false);
}

// Relays a tool to the application and answers the client with the outcome.
void relayTool(const QJsonValue &id, const QString &tool, const QJsonObject &arguments)
{
    QString error;
    const qsizetype requestBytes = g_messageBytes;
    if (!g_pipe.isConnected() && !launchApp(&error)) {
        const bool refused = error.startsWith("Orrery error ["_L1);
        replyToolText(id, refused ? error : u"Orrery call failed: "_s + error, true);
        return;
    }

    g_messageBytes = requestBytes; // and no longer those of the greeting
    setInFlight(id.toInteger(NoCall));
    QJsonObject response;
    const bool answered = g_pipe.call(tool, arguments, &response, &error, callLimitMs(tool));
    setInFlight(NoCall);

    if (answered)
        replyResponse(id, response);
    else
        replyToolText(id, u"Orrery call failed: "_s + error, true);
}

void toolsCall(const QJsonValue &id, const QJsonObject &params)
{
    const QString tool = params["name"_L1].toString();
    const QJsonObject arguments = params["arguments"_L1].toObject();
    if (!isCatalogued(tool))
        replyToolText(id, u"unknown tool: "_s + tool, true);
    else if (tool == "app_status"_L1)
        appStatus(id);
    else if (tool == "launch_app"_L1)
        launchAppTool(id);
    else if (tool == "quit_app"_L1)
        quitApp(id, arguments);
    else
        relayTool(id, tool, arguments);
}

// The control pipe

bool debugging() { return qEnvironmentVariableIsSet("ORRERY_MCP_DEBUG"); }

// "Orrery error [code]: message" of an application's error answer. Members of another type than
// string read as empty.
QString applicationErrorText(const QJsonValue &error)
{
    return u"Orrery error [%1]: %2"_s.arg(error["code"_L1].toString(),
                                          error["message"_L1].toString());
}

// How this client introduces itself.
QString clientName()
{
    for (const char *variable : { "ORRERY_MCP_CLIENT", "MCP_CLIENT_NAME" }) {
        if (qEnvironmentVariableIsSet(variable))
            return qEnvironmentVariable(variable);
    }
    return g_clientInfoName.isEmpty() ? u"MCP client"_s : g_clientInfoName;
}

// Whether something listens on the control pipe, for reports only. Says nothing and trusts nobody.
bool pipeReachable()
{
    QLocalSocket probe;
    const bool reached = OrreryControl::reachPipe(probe, Limits::ProbeMs);
    probe.abort();
    return reached;
}

void Pipe::drop()
{
    sock.abort();
    readBuffer.clear();
}

bool Pipe::isConnected()
{
    if (sock.state() != QLocalSocket::ConnectedState)
        return false;
    // No event is asked for but the end, which counts even while unread bytes are waiting. That of
    // the holder counts as well: another process may have inherited its end of the connection.
    pollfd peers[] { { static_cast<int>(sock.socketDescriptor()), POLLRDHUP, 0 },
                     { holder ? holder->descriptor() : -1, POLLIN, 0 } };
    if (poll(peers, std::size(peers), 0) > 0)
        drop();
    return sock.state() == QLocalSocket::ConnectedState;
}

bool Pipe::connect(int waitMs, int helloTimeoutMs)
{
    if (isConnected())
        return true;
    drop();
    helloError.clear();
    foreignHolder = false;

    QElapsedTimer timer;
    timer.start();
    for (;;) {
        if (timer.elapsed() >= waitMs)
            return false;
        if (OrreryControl::reachPipe(sock, Limits::ConnectAttemptMs))
            break;
        QThread::msleep(Limits::ConnectPauseMs);
    }
    if (checkHolder() && greet(helloTimeoutMs))
        return true;
    drop();
    return false;
}

// Whether the pipe is held by this installation's application. Nothing is sent before that is sure:
// any user may create a socket of this name in a shared temporary directory.
bool Pipe::checkHolder()
{
    const unsigned long pid = OrreryControl::peerServerPid(sock);
    if (debugging()) {
        const QByteArray image = OrreryControl::processImagePath(pid).toLocal8Bit();
        std::fprintf(stderr, "orrery-mcp: pipe server pid=%lu image='%s'\n", pid,
                     image.constData());
    }
    // The handle comes first, so that it means the process that is looked at.
    holder.emplace(pid);
    foreignHolder = pid == 0
                    || !OrreryControl::isSiblingProcess(pid, OrreryControl::exeName(u"orrery"_s));
    return !foreignHolder;
}

bool Pipe::greet(int helloTimeoutMs)
{
    const QJsonObject introduction {
        { u"protocolVersion"_s, 1 },
        { u"clientPath"_s, QCoreApplication::applicationFilePath() },
        { u"clientName"_s, clientName() },
        { u"pid"_s, QCoreApplication::applicationPid() },
    };
    QJsonObject response;
    QString error;
    if (!call(u"hello"_s, introduction, &response, &error, helloTimeoutMs)) {
        if (debugging())
            std::fprintf(stderr, "orrery-mcp: hello failed: %s\n", error.toLocal8Bit().constData());
        return false;
    }
    if (response.contains("error"_L1))
        helloError = applicationErrorText(response.value("error"_L1));
    return helloError.isEmpty();
}

// Passes an application's event on to the client. Members that the event lacks stay out.
void putEvent(JsonText &lines, const QJsonObject &event)
{
    lines.beginObject();
    lines.key("jsonrpc"_L1);
    lines.string("2.0"_L1);
    lines.key("method"_L1);
    lines.string("notifications/message"_L1);
    lines.key("params"_L1);
    lines.beginObject();
    lines.key("data"_L1);
    lines.beginObject();
    if (const auto params = event.constFind("params"_L1); params != event.constEnd()) {
        lines.key("detail"_L1);
        lines.value(*params);
    }
    if (const auto method = event.constFind("method"_L1); method != event.constEnd()) {
        lines.key("event"_L1);
        lines.value(*method);
    }
    lines.endObject();
    lines.key("level"_L1);
    lines.string("info"_L1);
    lines.key("logger"_L1);
    lines.string("orrery"_L1);
    lines.endObject();
    lines.endObject();
    lines.endLine();
}

// Works through the lines that came from the application: passes events on, all in one write, and
// drops answers to others, until there is no whole line left or the response to this request was
// taken. False, and why, when a line is refused.
bool takeResponse(LineBuffer &input, int requestId, std::optional<QJsonObject> *response,
                  QString *error)
{
    JsonText events(std::min(input.rest().size(), Limits::EventBatchBytes));
    const auto flush = [&events] {
        writeMessage(events);
        events.clear();
    };
    const auto refuse = [&](const QString &reason) {
        *error = reason;
        return false;
    };
    while (!*response) {
        const std::optional<QByteArrayView> line = input.takeLine();
        if (!line)
            break;
        // Also before any line that is refused: each of those is longer than a batch.
        if (events.bytes().size() + line->size() > Limits::EventBatchBytes)
            flush();
        if (line->size() > Limits::MaxPipeLineBytes)
            return refuse(u"Orrery sent a line of more than 256 MiB"_s);
        if (isTooCostly(*line))
            return refuse(u"Orrery sent a line that takes more than 1.25 GiB of memory to read"_s);
        g_messageBytes = line->size();
        const QJsonObject message = parseObject(*line).value_or(QJsonObject());
        input.releaseTaken();
        if (!message.contains("result"_L1) && !message.contains("error"_L1)) {
            putEvent(events, message);
            if (events.isTooLong())
                return refuse(u"Orrery sent an event that makes a message of more than 512 MiB"_s);
        } else if (message.value("id"_L1).toInteger(-1) == requestId) {
            *response = message;
        }
    }
    flush();
    if (!*response && input.rest().size() > Limits::MaxPipeLineBytes)
        return refuse(u"Orrery sent a line of more than 256 MiB"_s);
    return true;
}

// Takes in what the socket has read, and works through it. Bytes may also have come in while events
// were processed between two calls, and waitForReadyRead() does not count those.
bool Pipe::takeInput(QString *error)
{
    if (const qint64 available = sock.bytesAvailable(); available > 0) {
        const qint64 count = sock.read(readBuffer.space(available), available);
        readBuffer.added(std::max<qint64>(count, 0));
        g_freedMemory.used(readBuffer.rest().size());
    }
    return takeResponse(readBuffer, nextId, &answer, error);
}

// Waits until more can be written, and takes in what the application says meanwhile, because it may
// not read before it has said it. False, and why, at the deadline, at the end of the exchange, or
// when a line is refused.
bool Pipe::waitToSend(QDeadlineTimer *deadline, QString *error)
{
    if (g_cancelled || limit.hasExpired()) {
        *error = g_cancelled ? u"cancelled by the client"_s : u"Orrery did not answer in time"_s;
        return false;
    }
    pollfd peer { static_cast<int>(sock.socketDescriptor()), POLLIN | POLLOUT, 0 };
    const qint64 slice = std::min<qint64>(deadline->remainingTime(), Limits::WaitSliceMs);
    poll(&peer, 1, static_cast<int>(slice));
    if ((peer.revents & POLLIN) != 0)
        sock.waitForReadyRead(0);
    const qint64 left = deadline->remainingTime();
    if (!takeInput(error)) // also what came with the last answer
        return false;
    deadline->setRemainingTime(left); // the client may have been slow to take events
    return !deadline->hasExpired();
}

// Writes to the socket itself: through QLocalSocket's buffer, a request would be copied, and cost
// three more system calls. Fails when nothing can be written for Limits::WriteMs.
bool Pipe::send(QByteArrayView request, QString *error)
{
    *error = u"write to Orrery failed"_s;
    QDeadlineTimer deadline(Limits::WriteMs);
    while (!request.isEmpty()) {
        const ssize_t sent
                = ::send(static_cast<int>(sock.socketDescriptor()), request.data(),
                         static_cast<size_t>(request.size()), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent > 0) {
            request = request.sliced(sent);
            deadline.setRemainingTime(Limits::WriteMs);
        } else if (errno == EAGAIN) {
            if (!waitToSend(&deadline, error))
                break;
        } else if (errno != EINTR) {
            break;
        }
    }
    if (request.isEmpty())
        return true;
    // It may have hung up after it had said something.
    QString ignored;
    const QDeadlineTimer lastWords(Limits::WaitSliceMs);
    while (!answer && !lastWords.hasExpired() && sock.waitForReadyRead(0) && takeInput(&ignored)) {
    }
    return false;
}

bool Pipe::sendRequest(const QString &method, const QJsonObject &params, QString *error)
{
    JsonText request(g_messageBytes);
    request.beginObject();
    request.key("id"_L1);
    request.integer(nextId);
    request.key("method"_L1);
    request.string(method);
    request.key("params"_L1);
    request.value(params);
    request.endObject();
    request.endLine();
    g_freedMemory.used(request.bytes().size());
    if (request.isTooLong()) {
        *error = u"the request is longer than 512 MiB"_s;
        return false;
    }
    return send(request.bytes(), error);
}

// Until the response has come. False, and why, when it does not.
bool Pipe::waitForAnswer(QString *error)
{
    for (;;) {
        if (limit.hasExpired()) {
            *error = u"Orrery did not answer in time"_s;
            return false;
        }
        // Before the connection is looked at: a last answer may come together with its end.
        if (!takeInput(error))
            return false;
        if (answer)
            return true;
        if (sock.state() != QLocalSocket::ConnectedState) {
            *error = u"Orrery closed the connection"_s;
            return false;
        }
        if (g_cancelled) {
            *error = u"cancelled by the client"_s;
            return false;
        }
        const bool quiet = !sock.waitForReadyRead(Limits::WaitSliceMs);
        g_freedMemory.giveBackIfDue();
        // Another process may have inherited the holder's end of the connection.
        if (quiet && holder->waitExit(0) && !sock.waitForReadyRead(0))
            sock.abort();
    }
}

bool Pipe::call(const QString &method, const QJsonObject &params, QJsonObject *response,
                QString *error, int timeoutMs)
{
    nextId = nextId == INT_MAX ? 1 : nextId + 1;
    limit.setRemainingTime(std::max(timeoutMs, 0)); // a negative time would be without end
    answer.reset();
    QString reason;
    const bool sent = sendRequest(method, params, &reason);
    // An application may answer before it has read everything, and then read no more.
    const bool answered = sent ? waitForAnswer(&reason) : answer.has_value();
    if (answered)
        *response = *std::exchange(answer, {});
    else
        *error = reason;
    // What is half written or may still come must not meet the next exchange.
    if (!sent || !answered)
        drop();
    return answered;
}

// Launching the application

// Starts the application on its own: nothing of it is tracked, and it outlives this program.
bool startApp()
{
    const QString appImage = OrreryControl::ownAppImage();
    QProcess app;
    app.setProgram(appImage.isEmpty() ? HostProcess::appExe() : appImage);
    app.setStandardInputFile(QProcess::nullDevice());
    app.setStandardOutputFile(QProcess::nullDevice());
    app.setStandardErrorFile(QProcess::nullDevice());
    return app.startDetached();
}

// Connects and greets the application, and starts it first if it does not run. On false, *error
// says why.
bool launchApp(QString *error)
{
    if (HostProcess::findApp() != 0) {
        if (g_pipe.connect(Limits::RunningConnectMs, Limits::RunningHelloMs))
            return true;
        // Only a refusal of this very attempt counts; one of an earlier call is history.
        if (!g_pipe.lastHelloError().isEmpty()) {
            *error = g_pipe.lastHelloError();
            return false;
        }
    }
    if (HostProcess::findApp() == 0) {
        if (!startApp()) {
            *error = u"Couldn't start "_s + HostProcess::appExe();
            return false;
        }
    }
    if (g_pipe.connect(Limits::StartedConnectMs, Limits::StartedHelloMs))
        return true;
    if (!g_pipe.lastHelloError().isEmpty())
        *error = g_pipe.lastHelloError();
    else if (g_pipe.lastHolderWasForeign())
        *error = u"The Orrery control pipe is held by a process that isn't Orrery; "
                 "refusing to talk to it."_s;
    else
        *error = u"Orrery started but its control pipe did not come up within 30 s."_s;
    return false;
}

// Tool results

void putTextBlock(JsonText &line, const QJsonValue &value, QLatin1StringView except = {})
{
    line.beginObject();
    line.key("text"_L1);
    jsonText(line, value, except);
    line.key("type"_L1);
    line.string("text"_L1);
    line.endObject();
}

// A value as a tool result of one text block.
bool replyTextBlock(const QJsonValue &id, const QJsonValue &value, bool isError)
{
    return replyWith(id, g_messageBytes, [&](JsonText &line) {
        line.beginObject();
        line.key("content"_L1);
        line.beginArray();
        putTextBlock(line, value);
        line.endArray();
        line.key("isError"_L1);
        line.boolean(isError);
        line.endObject();
    });
}

constexpr auto TooLongText
        = "Orrery call failed: Orrery's answer makes a message of more than 512 MiB"_L1;

void replyToolText(const QJsonValue &id, const QString &text, bool isError)
{
    if (!replyTextBlock(id, text, isError))
        replyTextBlock(id, TooLongText, true);
}

// An object with a screenshot as an image block, whose data putData writes, before the rest as
// text.
template <typename PutData>
bool replyImageWith(const QJsonValue &id, const QJsonObject &object, qsizetype expectedBytes,
                    PutData putData)
{
    const bool isJpeg = object.value("format"_L1).toString() == "jpeg"_L1;
    return replyWith(id, expectedBytes, [&](JsonText &line) {
        line.beginObject();
        line.key("content"_L1);
        line.beginArray();
        line.beginObject();
        line.key("data"_L1);
        putData(line);
        line.key("mimeType"_L1);
        line.string(isJpeg ? "image/jpeg"_L1 : "image/png"_L1);
        line.key("type"_L1);
        line.string("image"_L1);
        line.endObject();
        putTextBlock(line, object, ImageKey);
        line.endArray();
        line.key("isError"_L1);
        line.boolean(false);
        line.endObject();
    });
}

// The same, with the picture from where it lies if it can stand in the message as it is. False,
// with nothing written, when the message would be too long.
bool replyImage(const QJsonValue &id, const QJsonObject &object, const QCborValue &image)
{
    bool written = false;
    const bool isBorrowed = visitBytes(image, [&](QByteArrayView data) {
        if (!isPlain(data))
            return false;
        written = replyImageWith(id, object, g_messageBytes - data.size(),
                                 [data](JsonText &line) { line.borrowedString(data); });
        return true;
    });
    if (isBorrowed)
        return written;
    return replyImageWith(id, object, g_messageBytes,
                          [&image](JsonText &line) { line.string(image.toString()); });
}

// A value as a tool result: a screenshot in it becomes an image block before the rest as text.
void replyToolJSON(const QJsonValue &id, const QJsonValue &value, bool isError)
{
    const QJsonObject object = value.toObject();
    const QCborValue image = QCborMap::fromJsonObject(object).value(ImageKey);
    const bool hasImage = image.isString() && image != QCborValue(QString());
    const bool written
            = hasImage ? replyImage(id, object, image) : replyTextBlock(id, value, isError);
    if (!written)
        replyToolText(id, TooLongText, true);
}

// The tools that manage the application's process

// An empty text as null.
QJsonValue textOrNull(const QString &text)
{
    return text.isEmpty() ? QJsonValue(QJsonValue::Null) : QJsonValue(text);
}

void appStatus(const QJsonValue &id)
{
    const unsigned long pid = HostProcess::findApp();
    const bool running = pid != 0;
    QJsonObject status {
        { u"running"_s, running },        { u"pid"_s, QJsonValue::Null },
        { u"socketReachable"_s, false },  { u"version"_s, QJsonValue::Null },
        { u"build"_s, QJsonValue::Null }, { u"bundleId"_s, BundleId },
    };
    if (running) {
        status["pid"_L1] = static_cast<qint64>(pid);
        status["socketReachable"_L1] = pipeReachable();
        status["version"_L1]
                = textOrNull(HostProcess::exeVersion(HostProcess::appExe(), u"ProductVersion"_s));
        status["build"_L1]
                = textOrNull(HostProcess::exeVersion(HostProcess::appExe(), u"FileVersion"_s));
    }
    replyToolJSON(id, status, false);
}

void launchAppTool(const QJsonValue &id)
{
    if (HostProcess::findApp() != 0) {
        replyToolJSON(id,
                      QJsonObject { { u"launched"_s, false },
                                    { u"alreadyRunning"_s, true },
                                    { u"running"_s, true },
                                    { u"socketReady"_s, pipeReachable() },
                                    { u"reason"_s, u"already running"_s } },
                      false);
        return;
    }
    QString error;
    const bool ready = launchApp(&error);
    if (!ready && HostProcess::findApp() == 0) {
        replyToolText(id, error, true);
        return;
    }
    replyToolJSON(id,
                  QJsonObject { { u"launched"_s, true },
                                { u"alreadyRunning"_s, false },
                                { u"running"_s, true },
                                { u"socketReady"_s, ready } },
                  false);
}

void quitApp(const QJsonValue &id, const QJsonObject &arguments)
{
    const unsigned long pid = HostProcess::findApp();
    if (pid == 0) {
        replyToolJSON(id,
                      QJsonObject { { u"quit"_s, false },
                                    { u"wasRunning"_s, false },
                                    { u"running"_s, false },
                                    { u"reason"_s, u"not running"_s } },
                      false);
        return;
    }
    // The handle comes first: from here on the id cannot come to mean another process, and what is
    // checked is what is ended.
    HostProcess::Handle app(pid);
    const QString appName = OrreryControl::exeName(u"orrery"_s);
    if (!app.isValid() || !OrreryControl::isSiblingProcess(pid, appName)) {
        replyToolText(
                id,
                "Orrery call failed: the running %1 isn't this install's app (or isn't yours)."_L1
                        .arg(appName),
                true);
        return;
    }

    const bool force = arguments["mode"_L1].toString() == "force"_L1;
    bool exited = false;
    if (force) {
        app.terminate();
        exited = app.waitExit(Limits::KillExitMs);
    } else {
        if (g_pipe.connect(Limits::QuitConnectMs, Limits::RunningHelloMs)) {
            QJsonObject ignoredResponse;
            QString ignoredError;
            g_pipe.call(u"quit"_s, {}, &ignoredResponse, &ignoredError, Limits::QuitRequestMs);
        }
        // Whatever became of the request, what counts is whether the process ends.
        exited = app.waitExit(Limits::QuitExitMs);
    }
    QJsonObject outcome { { u"quit"_s, exited },
                          { u"wasRunning"_s, true },
                          { u"running"_s, !exited },
                          { u"mode"_s, force ? u"force"_s : u"graceful"_s } };
    if (!exited)
        outcome["reason"_L1] = u"quit requested but app still running (try mode:force)"_s;
    replyToolJSON(id, outcome, !exited);
}

// Start-up

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
    keepFreedMemory();
    // Standard error is for this program's own diagnostics.
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    QCoreApplication app(argc, argv);
    // Asked for now, because Qt keeps the first answer, and there is none once the file is
    // replaced.
    (void)QCoreApplication::applicationFilePath();

    HostProcess::binaryStdout();
    QFile contract(u":/mcp/contract.json"_s);
    if (!contract.open(QIODevice::ReadOnly)) {
        std::fputs("orrery-mcp: missing contract\n", stderr);
        return 1;
    }
    g_contract = QJsonDocument::fromJson(contract.readAll()).object();
    HostProcess::binaryStdin();

    RequestQueue queue;
    std::thread reader(readStdin, std::ref(queue));
    while (std::optional<Request> request = queue.take()) {
        g_messageBytes = request->size;
        handle(request->message);
        {
            const PromptRelease prompt(request->size >= Limits::LargeBytes);
            request.reset();
        }
        QCoreApplication::processEvents();
        g_freedMemory.giveBackIfDue();
    }
    reader.join();
    return 0;
}
