// The server as a child process, and the requests that a client sends it.

#pragma once

#include <QJsonObject>
#include <QProcess>

#include <functional>

class ServerProcess
{
public:
    ServerProcess();
    ~ServerProcess();
    ServerProcess(const ServerProcess &) = delete;
    ServerProcess &operator=(const ServerProcess &) = delete;

    // Starts the file. On false, *error says why.
    [[nodiscard]] bool start(const QString &program, QString *error);

    // Sends a request and waits limitMs for its result. On false, *error says why: no answer, an
    // error answer, the server's end, or that giveUp, asked now and then, returned true.
    [[nodiscard]] bool ask(const QString &method, const QJsonObject &params, int limitMs,
                           QJsonObject *result, QString *error,
                           const std::function<bool()> &giveUp = {});

    // Ends the server, by force if it is in a call. What it launched stays.
    void stop();

    [[nodiscard]] qint64 processId() const { return process.processId(); }

private:
    [[nodiscard]] bool takeAnswer(int id, QJsonObject *answer);
    [[nodiscard]] QString endText();

    QProcess process;
    int lastId = 0;
};

// The last lines of another program's standard error, few and short enough for a report.
[[nodiscard]] QStringList lastLines(const QByteArray &output);
