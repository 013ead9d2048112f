// orrery-mcp: lets an AI client operate the Orrery application over the Model Context Protocol.
//
// The client writes JSON-RPC messages to standard input, a line each, and reads answers from
// standard output. This file follows a message: read by the stdin reader thread, queued, taken by
// the main thread, dispatched, and, if it is a tool call, relayed to the application over its
// control pipe and turned into a tool result.
//
// Two threads: the stdin reader, so that pings and cancellations are served while a call blocks,
// and the main thread, which does everything else. They share the request queue, standard output
// (g_out) and two atomics (g_inFlight, g_cancelled), and nothing else.

#include "host_process.h"
#include "limits.h"
#include "orrery_control.h"

#include <QCborMap>
#include <QCborValue>
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
#include <malloc.h>
#include <poll.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype EnvelopeBytes = 64; // what stands around a result, but for the id

constexpr qint64 NoCall = -1;
constexpr int ParseError = -32700;
constexpr int MethodNotFound = -32601;
constexpr auto FallbackProtocolVersion = "2024-11-05"_L1;
constexpr auto BundleId = "app.orrery.Orrery"_L1;

std::mutex g_out; // standard output, for one message
std::atomic<qint64> g_inFlight = NoCall; // id of the relayed call; written by the main thread
std::atomic<bool> g_cancelled = false; // that call was; set by the reader, cleared by main
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

// Writes all of it, also to a slow reader or in non-blocking mode. What cannot be written at all is
// dropped: the client is gone, and what it asked for is still carried out.
void writeOutput(QByteArrayView bytes)
{
    while (!bytes.isEmpty()) {
        const ssize_t count = write(STDOUT_FILENO, bytes.data(), static_cast<size_t>(bytes.size()));
        if (count >= 0)
            bytes = bytes.sliced(count);
        else if (errno == EAGAIN)
            waitReady(STDOUT_FILENO, POLLOUT);
        else if (errno != EINTR)
            return;
    }
}

// Takes the first line off the buffer, without its line feed; nothing while there is no whole line.
// searched says how many bytes hold no line feed, so that a long line is not searched anew at each
// read; it starts at 0.
std::optional<QByteArray> takeLine(QByteArray &buffer, qsizetype &searched)
{
    const qsizetype end = buffer.indexOf('\n', searched);
    if (end < 0) {
        searched = buffer.size();
        return {};
    }
    searched = 0;
    QByteArray line;
    if (end + 1 == buffer.size()) {
        // The usual case: a large line is not copied, and the buffer gives its memory back.
        line = std::exchange(buffer, {});
        line.truncate(end);
    } else {
        line = buffer.first(end);
        buffer.remove(0, end + 1);
    }
    return line;
}

// Writing and replies

// The only way to standard output: a whole line with its line feed. Any thread.
void writeLine(const QByteArray &line)
{
    const std::lock_guard lock(g_out);
    writeOutput(line);
}

void writeMessage(const QJsonObject &message)
{
    writeLine(QJsonDocument(message).toJson(QJsonDocument::Compact).append('\n'));
}

// The JSON text of any value, which QJsonDocument gives of objects and arrays only.
QByteArray compactJson(const QJsonValue &value)
{
    QByteArray text = QJsonDocument(QJsonArray { value }).toJson(QJsonDocument::Compact);
    text.chop(1);
    return text.remove(0, 1);
}

// A success response around a result that is JSON text already, in parts: the bytes that
// writeMessage() makes of the same object, without taking the result apart again. An undefined id
// leaves the member out.
void replyText(const QJsonValue &id, std::initializer_list<QByteArrayView> result)
{
    QByteArray line = id.isUndefined() ? "{" : "{\"id\":" + compactJson(id) + ',';
    qsizetype size = line.size() + EnvelopeBytes;
    for (const QByteArrayView part : result)
        size += part.size();
    line.reserve(size);
    line.append(R"("jsonrpc":"2.0","result":)");
    for (const QByteArrayView part : result)
        line.append(part);
    writeLine(line.append("}\n"));
}

void reply(const QJsonValue &id, const QJsonObject &result)
{
    replyText(id, { QJsonDocument(result).toJson(QJsonDocument::Compact) });
}

void replyError(const QJsonValue &id, int code, const QString &message)
{
    const QJsonObject error { { u"code"_s, code }, { u"message"_s, message } };
    writeMessage({ { u"jsonrpc"_s, u"2.0"_s }, { u"id"_s, id }, { u"error"_s, error } });
}

// A JSON value as text for a reader: objects and arrays indented, a string as itself, null as
// nothing.
QString jsonText(const QJsonValue &value)
{
    QJsonDocument document;
    if (value.isObject())
        document.setObject(value.toObject());
    else if (value.isArray())
        document.setArray(value.toArray());
    else
        return value.toVariant().toString();
    QString text = QString::fromUtf8(document.toJson(QJsonDocument::Indented));
    return std::move(text).trimmed();
}

// The stdin reader thread and its queue

// What the reader hands to the main thread, in order. Lives in main(), outlives the reader.
class RequestQueue
{
public:
    void append(QJsonObject request)
    {
        const std::lock_guard lock(mutex);
        requests.push_back(std::move(request));
        changed.notify_one();
    }

    void endInput()
    {
        const std::lock_guard lock(mutex);
        inputEnded = true;
        changed.notify_one();
    }

    // Waits for the next request; nothing once input has ended and every request was taken. When
    // none comes for a while, the memory that large messages took goes back to the system.
    std::optional<QJsonObject> take()
    {
        std::unique_lock lock(mutex);
        const auto ready = [this] { return inputEnded || !requests.empty(); };
        if (!changed.wait_for(lock, Limits::Quiet, ready)) {
            lock.unlock();
            malloc_trim(0);
            lock.lock();
            changed.wait(lock, ready);
        }
        if (requests.empty())
            return {};
        QJsonObject request = std::move(requests.front());
        requests.pop_front();
        return request;
    }

private:
    std::mutex mutex; // guards requests and inputEnded
    std::condition_variable changed;
    std::deque<QJsonObject> requests;
    bool inputEnded = false;
};

// Cancels the call in flight if that is the one named. True when it was.
bool cancelInFlight(const QJsonObject &notification)
{
    // A string id reads as -2; while no call is in flight there is nothing to cancel.
    const qint64 requestId = notification["params"_L1].toObject()["requestId"_L1].toInteger(-2);
    if (requestId == NoCall || requestId != g_inFlight)
        return false;
    g_cancelled.exchange(true);
    return true;
}

// One line of input: answers what must not wait behind a slow call, queues the rest.
void receiveLine(QByteArray line, RequestQueue &queue)
{
    if (line.endsWith('\r'))
        line.chop(1);
    if (line.isEmpty())
        return;
    const QJsonDocument document = QJsonDocument::fromJson(line);
    if (!document.isObject()) {
        replyError(QJsonValue::Null, ParseError, u"Parse error"_s);
        return;
    }
    QJsonObject message = document.object();
    const QString method = message.value("method"_L1).toString();
    const auto id = message.constFind("id"_L1);
    if (method == "ping"_L1 && id != message.constEnd()) {
        replyText(*id, { "{}" });
        return;
    }
    if (method == "notifications/cancelled"_L1 && cancelInFlight(message))
        return;
    queue.append(std::move(message));
}

// The whole lines of what has been read.
void receiveLines(QByteArray &buffer, qsizetype &searched, RequestQueue &queue)
{
    while (std::optional<QByteArray> line = takeLine(buffer, searched))
        receiveLine(*std::move(line), queue);
}

// The stdin reader thread: runs until standard input ends.
void readStdin(RequestQueue &queue)
{
    QByteArray buffer;
    qsizetype searched = 0;
    for (;;) {
        const qsizetype size = buffer.size();
        buffer.resize(size + Limits::InputChunkBytes);
        const qint64 count = readInput(buffer.data() + size, Limits::InputChunkBytes);
        buffer.truncate(size + std::max<qint64>(count, 0));
        if (count <= 0)
            break;
        receiveLines(buffer, searched, queue);
    }
    // A last line may lack its line feed.
    receiveLine(std::move(buffer), queue);
    queue.endInput();
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

// Connects the socket to the control pipe, whoever holds it. A local connect succeeds or fails at
// once; only a listener with a full backlog leaves it connecting. waitForConnected() would poll
// that one without a pause, so it is tried again until limitMs have passed.
bool reachPipe(QLocalSocket &socket, int limitMs)
{
    const QDeadlineTimer deadline(limitMs);
    for (;;) {
        socket.connectToServer(OrreryControl::pipeName(), QIODevice::ReadWrite);
        if (socket.state() == QLocalSocket::ConnectedState)
            return true;
        const bool backlogFull = socket.state() == QLocalSocket::ConnectingState;
        socket.abort();
        if (!backlogFull || deadline.hasExpired())
            return false;
        QThread::msleep(Limits::BacklogPauseMs);
    }
}

// Whether something listens on the control pipe, for reports only. Says nothing and trusts nobody.
bool pipeReachable()
{
    QLocalSocket probe;
    const bool reached = reachPipe(probe, Limits::ProbeMs);
    probe.abort();
    return reached;
}

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

private:
    bool send(const QByteArray &line);
    void takeInput();
    bool checkHolder();
    bool greet(int helloTimeoutMs);

    QLocalSocket sock;
    QByteArray readBuffer; // received and not yet taken as lines
    int nextId = 0; // id of the last request; never starts again, not even on a new connection
    bool foreignHolder = false; // the last connect() met a holder that is not our application
    QString helloError; // the application's refusal of the last hello
};

Pipe g_pipe;

bool Pipe::isConnected()
{
    if (sock.state() != QLocalSocket::ConnectedState)
        return false;
    // No event is asked for but the end, which counts even while unread bytes are waiting.
    pollfd peer { static_cast<int>(sock.socketDescriptor()), POLLRDHUP, 0 };
    if (poll(&peer, 1, 0) > 0)
        sock.abort();
    return sock.state() == QLocalSocket::ConnectedState;
}

bool Pipe::connect(int waitMs, int helloTimeoutMs)
{
    if (isConnected())
        return true;
    sock.abort();
    readBuffer.clear();
    helloError.clear();
    foreignHolder = false;

    QElapsedTimer timer;
    timer.start();
    for (;;) {
        if (timer.elapsed() >= waitMs)
            return false;
        if (reachPipe(sock, Limits::ConnectAttemptMs))
            break;
        QThread::msleep(Limits::ConnectPauseMs);
    }
    if (checkHolder() && greet(helloTimeoutMs))
        return true;
    sock.abort();
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
        helloError = applicationErrorText(response["error"_L1]);
    return helloError.isEmpty();
}

bool Pipe::send(const QByteArray &line)
{
    // In pieces, because the socket copies what it cannot write at once.
    const QDeadlineTimer deadline(Limits::WriteMs);
    for (qsizetype sent = 0; sent < line.size(); sent += Limits::PipeChunkBytes) {
        const qsizetype size = std::min(Limits::PipeChunkBytes, line.size() - sent);
        if (sock.write(line.constData() + sent, size) != size)
            return false;
        // waitForBytesWritten() is content with the first part of a piece.
        while (sock.bytesToWrite() > 0) {
            if (deadline.hasExpired()
                || !sock.waitForBytesWritten(static_cast<int>(deadline.remainingTime())))
                return false;
        }
    }
    return true;
}

// Moves what the socket has read into readBuffer. Bytes may have come in during any wait, also one
// for writing, and waitForReadyRead() does not count those.
void Pipe::takeInput()
{
    const qint64 available = sock.bytesAvailable();
    if (available <= 0)
        return;
    const qsizetype size = readBuffer.size();
    readBuffer.resize(size + available);
    const qint64 count = sock.read(readBuffer.data() + size, available);
    readBuffer.truncate(size + std::max<qint64>(count, 0));
}

// Passes an application's event on to the client. Members that the event lacks stay out.
void relayEvent(const QJsonObject &event)
{
    const QJsonObject data { { u"event"_s, event["method"_L1] },
                             { u"detail"_s, event["params"_L1] } };
    writeLine(R"({"jsonrpc":"2.0","method":"notifications/message","params":{"data":)"
              + QJsonDocument(data).toJson(QJsonDocument::Compact)
              + R"(,"level":"info","logger":"orrery"}})"
                "\n");
}

// Works through the lines that came from the application: passes events on and drops answers to
// others, until there is no whole line left or the response to this request was taken. False when a
// line is too long.
bool takeResponse(QByteArray &buffer, qsizetype &searched, int requestId,
                  std::optional<QJsonObject> *response)
{
    while (const std::optional<QByteArray> line = takeLine(buffer, searched)) {
        if (line->size() > Limits::MaxPipeLineBytes)
            return false;
        const QJsonObject message = QJsonDocument::fromJson(*line).object();
        if (!message.contains("result"_L1) && !message.contains("error"_L1)) {
            relayEvent(message);
        } else if (message["id"_L1].toInteger(-1) == requestId) {
            *response = message;
            return true;
        }
    }
    return buffer.size() <= Limits::MaxPipeLineBytes;
}

bool Pipe::call(const QString &method, const QJsonObject &params, QJsonObject *response,
                QString *error, int timeoutMs)
{
    const auto drop = [&](const QString &reason) {
        sock.abort();
        readBuffer.clear(); // not only with the next connection: it may hold 256 MiB
        *error = reason;
        return false;
    };

    nextId = nextId == INT_MAX ? 1 : nextId + 1;
    const QJsonObject request { { u"id"_s, nextId },
                                { u"method"_s, method },
                                { u"params"_s, params } };
    if (!send(QJsonDocument(request).toJson(QJsonDocument::Compact).append('\n')))
        return drop(u"write to Orrery failed"_s);

    QElapsedTimer timer;
    timer.start();
    qsizetype searched = 0;
    std::optional<QJsonObject> taken;
    for (;;) {
        if (timer.elapsed() >= timeoutMs)
            return drop(u"Orrery did not answer in time"_s);

        // Before the connection is looked at: a last answer may come together with its end.
        takeInput();
        if (!takeResponse(readBuffer, searched, nextId, &taken))
            return drop(u"Orrery sent a line of more than 256 MiB"_s);
        if (taken) {
            *response = *std::move(taken);
            return true;
        }

        if (sock.state() != QLocalSocket::ConnectedState) {
            *error = u"Orrery closed the connection"_s;
            return false;
        }
        if (g_cancelled)
            return drop(u"cancelled by the client"_s);
        sock.waitForReadyRead(Limits::WaitSliceMs);
    }
}

// Launching the application

QString appExe() { return OrreryControl::siblingPath(OrreryControl::exeName(u"orrery"_s)); }

// Starts the application on its own: nothing of it is tracked, and it outlives this program.
bool startApp()
{
    const QString appImage = OrreryControl::ownAppImage();
    QProcess app;
    app.setProgram(appImage.isEmpty() ? appExe() : appImage);
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
    if (HostProcess::findApp() == 0 && !startApp()) {
        *error = u"Couldn't start "_s + appExe();
        return false;
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

void replyToolText(const QJsonValue &id, const QString &text, bool isError)
{
    replyText(id, { R"({"content":[{"text":)", compactJson(text), R"(,"type":"text"}],"isError":)",
                    isError ? "true}" : "false}" });
}

// The JSON text of a string value. Where nothing needs escaping, as in a picture in base64, it is
// the string's CBOR form but for what stands around it; QJsonDocument would widen the string to
// UTF-16 and go through it by character.
QByteArray stringJson(const QCborValue &string)
{
    QByteArray text = string.toCbor();
    // RFC 8949, 3: the low five bits are the length, or say how many bytes behind them hold it.
    const int lengthBits = text.front() & 0x1f;
    const qsizetype header = 1 + (lengthBits < 24 ? 0 : 1 << (lengthBits - 24));
    // A '?' may stand for half a surrogate pair, which has no UTF-8 form; base64 has no '?'.
    unsigned char unsafe = 0;
    for (const unsigned char c : QByteArrayView(text).sliced(header)) // no way out: vectorised
        unsafe |= (c < 0x20) | (c >= 0x7f) | (c == '"') | (c == '\\') | (c == '?');
    if (unsafe)
        return compactJson(string.toString());
    text.remove(0, header - 1);
    text.front() = '"';
    return text.append('"');
}

// A value as a tool result: a screenshot in it becomes an image block before the rest as text.
void replyToolJSON(const QJsonValue &id, const QJsonValue &value, bool isError)
{
    const QJsonObject object = value.toObject();
    const QCborValue image = QCborMap::fromJsonObject(object).value("imageBase64"_L1);
    const QByteArray imageJson = image.isString() ? stringJson(image) : QByteArray();
    if (imageJson.size() <= 2) { // no string, or an empty one
        replyToolText(id, jsonText(value), isError);
        return;
    }
    const bool isJpeg = object["format"_L1].toString() == "jpeg"_L1;
    QJsonObject rest; // not a copy without the image, which would copy the image first
    for (auto member = object.begin(); member != object.end(); ++member) {
        if (member.key() != "imageBase64"_L1)
            rest.insert(member.key(), member.value());
    }
    replyText(id, { R"({"content":[{"data":)", imageJson, R"(,"mimeType":"image/)",
                    isJpeg ? "jpeg" : "png", R"(","type":"image"},{"text":)",
                    compactJson(jsonText(rest)), R"(,"type":"text"}],"isError":false})" });
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
        status["version"_L1] = textOrNull(HostProcess::exeVersion(appExe(), u"ProductVersion"_s));
        status["build"_L1] = textOrNull(HostProcess::exeVersion(appExe(), u"FileVersion"_s));
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

// The tool router

bool isCatalogued(const QString &tool)
{
    static const QSet<QString> names = [] {
        QSet<QString> all;
        const QJsonArray tools = g_contract["tools"_L1].toArray();
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
        replyToolText(id, applicationErrorText(response["error"_L1]), true);
    else
        replyToolJSON(id, response["result"_L1], false);
}

// Relays a tool to the application and answers the client with the outcome.
void relayTool(const QJsonValue &id, const QString &tool, const QJsonObject &arguments)
{
    QString error;
    if (!g_pipe.isConnected() && !launchApp(&error)) {
        const bool refused = error.startsWith("Orrery error ["_L1);
        replyToolText(id, refused ? error : u"Orrery call failed: "_s + error, true);
        return;
    }

    // In this order at both ends, so that a cancellation ends only the call that it names.
    g_inFlight.exchange(id.toInteger(NoCall));
    g_cancelled.exchange(false);
    QJsonObject response;
    const bool answered = g_pipe.call(tool, arguments, &response, &error, callLimitMs(tool));
    g_inFlight.exchange(NoCall);
    g_cancelled.exchange(false);

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

// The dispatcher

void initialize(const QJsonValue &id, const QJsonObject &params)
{
    static const QStringList supported { u"2024-11-05"_s, u"2025-03-26"_s, u"2025-06-18"_s };
    const QString requested = params["protocolVersion"_L1].toString();
    g_clientInfoName = params["clientInfo"_L1].toObject()["name"_L1].toString();

    const QString fallback = g_contract["protocolVersion"_L1].toString(FallbackProtocolVersion);
    QJsonObject result {
        { u"protocolVersion"_s, supported.contains(requested) ? requested : fallback },
        { u"serverInfo"_s, g_contract["serverInfo"_L1] },
        { u"capabilities"_s,
          QJsonObject { { u"tools"_s, QJsonObject() }, { u"logging"_s, QJsonObject() } } },
    };
    if (const QJsonValue instructions = g_contract["instructions"_L1]; instructions.isString())
        result["instructions"_L1] = instructions;
    reply(id, result);
}

// The result of tools/list, made once: the catalogue never changes.
const QByteArray &toolList()
{
    static const QByteArray list
            = QJsonDocument(QJsonObject { { u"tools"_s, g_contract["tools"_L1] } })
                      .toJson(QJsonDocument::Compact);
    return list;
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
        replyText(id, { toolList() });
    else if (method == "tools/call"_L1)
        toolsCall(id, params);
    else
        replyError(id, MethodNotFound, u"Method not found: "_s + method);
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

// Freed memory is kept while messages come, and given back when it is quiet; see RequestQueue.
// Otherwise malloc maps, zeroes and unmaps every large block anew, which is half of what a large
// message costs.
void keepFreedMemory()
{
    mallopt(M_MMAP_MAX, 0);
    mallopt(M_TRIM_THRESHOLD, INT_MAX);
    mallopt(M_ARENA_MAX, 1); // only the first arena can grow to any size
}

} // namespace

int main(int argc, char *argv[])
{
    if (!secureProcess())
        return 1;
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
    while (const std::optional<QJsonObject> request = queue.take()) {
        handle(*request);
        QCoreApplication::processEvents();
    }
    reader.join();
    return 0;
}
