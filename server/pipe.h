// The control pipe: the one connection to the application.

#pragma once

#include "host_process.h"
#include "json_input.h"
#include "line_buffer.h"

#include <QJsonObject>
#include <QLocalSocket>
#include <QString>

#include <optional>

// The client's name from its last initialize; the application is told. Main thread.
extern QString g_clientInfoName;

// Made on demand, kept until a failure drops it. Main thread only.
class Pipe
{
public:
    Pipe();

    // Whether the connection stands. Notices an end that came since it was last used, without
    // reading: what the application sent is still there for the next call.
    bool isConnected();

    // Reaches the pipe within waitMs, makes sure that its holder is this installation's application
    // and greets it, which may take helloTimeoutMs. On false, lastHelloError() and
    // lastHolderWasForeign() tell why.
    bool connect(int waitMs, int helloTimeoutMs);

    // Sends one request and waits timeoutMs for its response, from when the request is written;
    // passes events on to the client meanwhile. longString is that of the params, see Message. An
    // error response is a response. On false, *error says why, and the connection is down unless
    // nothing of the request went out.
    bool call(const QString &method, const QJsonObject &params, QByteArrayView longString,
              Message *response, QString *error, int timeoutMs);

    // Gives the memory back that a large answer came in. Until then, and until the next call(), its
    // long string stands.
    void releaseAnswer();

    // The outcome of the last connect(): the application's refusal of the hello, and whether the
    // holder is not our application.
    const QString &lastHelloError() const { return helloError; }
    bool lastHolderWasForeign() const { return foreignHolder; }

private:
    bool checkHolder();
    bool greet(int helloTimeoutMs);
    void drop();

    QLocalSocket sock;
    LineBuffer readBuffer; // received and not yet taken as lines
    int nextId = 0; // id of the last request; never starts again, not even on a new connection
    bool foreignHolder = false;
    QString helloError;
    std::optional<HostProcess::Handle> holder; // whom checkHolder() approved
};

extern Pipe g_pipe;

// Whether something listens on the control pipe, for reports only. Says nothing and trusts nobody.
[[nodiscard]] bool pipeReachable();

// "Orrery error [code]: message" of an application's error answer. Members of another type than
// string read as empty.
[[nodiscard]] QString applicationErrorText(const QJsonValue &error);
