#include "pipe.h"

#include "exchange.h"
#include "json_writer.h"
#include "orrery_control.h"
#include "server_limits.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>

#include <climits>
#include <cstdio>

#include <poll.h>

using namespace Qt::StringLiterals;

QString g_clientInfoName;
Pipe g_pipe;

namespace {

bool debugging() { return qEnvironmentVariableIsSet("ORRERY_MCP_DEBUG"); }

// How this client introduces itself.
QString clientName()
{
    for (const char *variable : { "ORRERY_MCP_CLIENT", "MCP_CLIENT_NAME" }) {
        if (qEnvironmentVariableIsSet(variable))
            return qEnvironmentVariable(variable);
    }
    return g_clientInfoName.isEmpty() ? u"MCP client"_s : g_clientInfoName;
}

JsonWriter requestLine(int id, const QString &method, const QJsonObject &params,
                       QByteArrayView longString)
{
    JsonWriter line;
    line.setLongString(longString);
    line.text(R"({"id":)");
    line.integer(id);
    line.text(R"(,"method":)");
    line.string(method);
    line.text(R"(,"params":)");
    line.value(params);
    line.text("}\n");
    return line;
}

} // namespace

// QLocalSocket reads by itself while events are processed, and would without end.
Pipe::Pipe() { sock.setReadBufferSize(Limits::ChunkBytes); }

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
    foreignHolder = pid == 0 || !HostProcess::isApp(pid);
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
    Message response;
    QString error;
    if (!call(u"hello"_s, introduction, {}, &response, &error, helloTimeoutMs)) {
        if (debugging())
            std::fprintf(stderr, "orrery-mcp: hello failed: %s\n", error.toLocal8Bit().constData());
        return false;
    }
    if (response.object.contains("error"_L1))
        helloError = applicationErrorText(response.object.value("error"_L1));
    return helloError.isEmpty();
}

bool Pipe::call(const QString &method, const QJsonObject &params, QByteArrayView longString,
                Message *response, QString *error, int timeoutMs)
{
    nextId = nextId == INT_MAX ? 1 : nextId + 1;
    if (sock.state() != QLocalSocket::ConnectedState) {
        *error = u"write to Orrery failed"_s;
        return false;
    }
    const JsonWriter request = requestLine(nextId, method, params, longString);
    if (request.isTooLong()) {
        *error = u"the request is longer than 512 MiB"_s;
        return false;
    }
    releaseAnswer();
    Exchange exchange(sock, *holder, readBuffer, request, nextId);
    const bool isAnswered = exchange.run(timeoutMs, response, error);
    // What is half written or may still come must not meet the next exchange. The buffer stays
    // where the answer's long string may lie in it.
    if (!isAnswered)
        drop();
    else if (!exchange.isRequestOut())
        sock.abort();
    return isAnswered;
}

void Pipe::releaseAnswer() { readBuffer.releaseTaken(); }

void Pipe::drop()
{
    sock.abort();
    readBuffer = {};
}

bool pipeReachable()
{
    QLocalSocket probe;
    const bool isReached = OrreryControl::reachPipe(probe, Limits::ProbeMs);
    probe.abort();
    return isReached;
}

QString applicationErrorText(const QJsonValue &error)
{
    return u"Orrery error [%1]: %2"_s.arg(error["code"_L1].toString(),
                                          error["message"_L1].toString());
}
