#include "server_process.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QThread>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr int EndMs = 2'000;
constexpr int WaitSliceMs = 100;
constexpr unsigned long ClosedPauseMs = 10; // nothing waits for an output that was closed
constexpr qint64 MaxAnswerBytes = 16'777'216;
constexpr qsizetype QuotedBytes = 4'096;
constexpr qsizetype QuotedLines = 10;

} // namespace

ServerProcess::ServerProcess(const QString &program)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(u"ORRERY_MCP_DEBUG"_s, u"1"_s);
    process.setProcessEnvironment(environment);
    process.start(program, {});
}

ServerProcess::~ServerProcess() { stop(); }

void ServerProcess::stop()
{
    process.closeWriteChannel();
    if (process.state() == QProcess::NotRunning || process.waitForFinished(EndMs))
        return;
    process.kill();
    (void)process.waitForFinished(EndMs);
}

ServerProcess::Answer ServerProcess::ask(const QString &method, const QJsonObject &params,
                                         int limitMs, const std::function<bool()> &giveUp)
{
    const int id = ++lastId;
    const QJsonObject request { { u"jsonrpc"_s, u"2.0"_s },
                                { u"id"_s, id },
                                { u"method"_s, method },
                                { u"params"_s, params } };
    process.write(QJsonDocument(request).toJson(QJsonDocument::Compact).append('\n'));
    QElapsedTimer timer;
    timer.start();
    QJsonObject message;
    Answer answer;
    while (answer.error.isEmpty() && !takeAnswer(id, &message)) {
        if (process.state() == QProcess::NotRunning)
            answer.error = endText();
        else if (timer.hasExpired(limitMs))
            answer.error = u"no answer within %1 s"_s.arg(limitMs / 1'000);
        else if (giveUp && giveUp())
            answer.error = u"given up"_s;
        else if (process.bytesAvailable() > MaxAnswerBytes)
            answer.error = u"its answer does not end"_s;
        else if (!process.waitForReadyRead(WaitSliceMs))
            QThread::msleep(ClosedPauseMs);
    }
    answer.tookMs = timer.elapsed();
    answer.result = message["result"_L1].toObject();
    if (answer.error.isEmpty() && !message.contains("result"_L1))
        answer.error = u"the answer is an error: "_s + message["error"_L1]["message"_L1].toString();
    return answer;
}

ServerProcess::Answer ServerProcess::call(const QString &tool, int limitMs,
                                          const std::function<bool()> &giveUp)
{
    const QJsonObject params { { u"name"_s, tool }, { u"arguments"_s, QJsonObject() } };
    Answer answer = ask(u"tools/call"_s, params, limitMs, giveUp);
    const QString text = answer.result["content"_L1][0]["text"_L1].toString();
    if (answer.result["isError"_L1].toBool())
        answer.error = text.isEmpty() ? u"an error without a text"_s : text;
    answer.result = QJsonDocument::fromJson(text.toUtf8()).object();
    return answer;
}

// Takes lines up to the answer; what else comes is events.
bool ServerProcess::takeAnswer(int id, QJsonObject *answer)
{
    while (process.canReadLine()) {
        *answer = QJsonDocument::fromJson(process.readLine()).object();
        if ((*answer)["id"_L1].toInt() == id)
            return true;
    }
    return false;
}

QString ServerProcess::endText()
{
    if (process.error() == QProcess::FailedToStart)
        return process.errorString();
    const QString status = process.exitStatus() == QProcess::NormalExit
                                   ? u"it ended with exit status %1"_s.arg(process.exitCode())
                                   : u"it was ended by signal %1"_s.arg(process.exitCode());
    const QStringList words = takeLastWords();
    return words.isEmpty() ? status : status + u": "_s + words.last();
}

QStringList ServerProcess::takeLastWords() { return lastLines(process.readAllStandardError()); }

QStringList lastLines(const QByteArray &output)
{
    const QString text = QString::fromLocal8Bit(output.right(QuotedBytes));
    const QStringList lines = text.split(u'\n', Qt::SkipEmptyParts);
    return lines.mid(std::max<qsizetype>(0, lines.size() - QuotedLines));
}
