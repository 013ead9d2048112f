// The server as a child process, and the requests that a client sends it.

#pragma once

#include <QJsonObject>
#include <QProcess>

#include <functional>

class ServerProcess
{
public:
    // What came of a request: a result, or why there is none.
    struct Answer
    {
        QJsonObject result;
        QString error;
        qint64 tookMs = 0;
    };

    // Starts the file, so that it says on standard error what it meets. Whether that went well is
    // for the first request to tell.
    explicit ServerProcess(const QString &program);
    ~ServerProcess();
    ServerProcess(const ServerProcess &) = delete;
    ServerProcess &operator=(const ServerProcess &) = delete;

    // Sends a request and waits limitMs for its result. There is none when no answer or an error
    // came, the server ended, or giveUp, asked now and then, returned true.
    [[nodiscard]] Answer ask(const QString &method, const QJsonObject &params, int limitMs,
                             const std::function<bool()> &giveUp = {});

    // The same for a tool without arguments. The result is the object in the tool's own, whose
    // error text is a reason too.
    [[nodiscard]] Answer call(const QString &tool, int limitMs,
                              const std::function<bool()> &giveUp = {});

    // Ends the server, by force if it is in a call. What it launched stays.
    void stop();

    // The last lines of its standard error that were not taken yet.
    [[nodiscard]] QStringList takeLastWords();

    [[nodiscard]] qint64 processId() const { return process.processId(); }

private:
    [[nodiscard]] bool takeAnswer(int id, QJsonObject *answer);
    [[nodiscard]] QString endText();

    QProcess process;
    int lastId = 0;
};

// The last lines of another program's standard error, few and short enough for a report.
[[nodiscard]] QStringList lastLines(const QByteArray &output);
