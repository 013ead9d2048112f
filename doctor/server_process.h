// The server as a child process, and requests as a client sends them.

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

    // Starts the file with its diagnostics on. The first request tells whether that worked.
    explicit ServerProcess(const QString &program);
    ~ServerProcess();
    ServerProcess(const ServerProcess &) = delete;
    ServerProcess &operator=(const ServerProcess &) = delete;

    // Sends a request and waits limitMs milliseconds for its result. There is none if no answer or
    // an error came, if the server ended, or if giveUp, asked now and then, returned true.
    [[nodiscard]] Answer ask(const QString &method, const QJsonObject &params, int limitMs,
                             const std::function<bool()> &giveUp = {});

    // The same for a tool, called without arguments. The result is the object that the tool result
    // holds as text; the text of a failed one is the error.
    [[nodiscard]] Answer call(const QString &tool, int limitMs,
                              const std::function<bool()> &giveUp = {});

    // Ends the server, by force if it is in a call. What it launched stays.
    void stop();

    // The last lines of its standard error that nobody has taken yet.
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
