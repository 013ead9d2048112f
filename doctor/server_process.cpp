#include "server_process.h"

#include <QDeadlineTimer>
#include <QJsonDocument>
#include <QThread>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr int StartMs = 5'000;
constexpr int EndMs = 2'000;
constexpr int WaitSliceMs = 100;
constexpr unsigned long ClosedPauseMs = 10; // nothing waits for an output that was closed
constexpr qint64 MaxAnswerBytes = 16'777'216;
constexpr qsizetype QuotedBytes = 4'096;
constexpr qsizetype QuotedLines = 10;

} // namespace

ServerProcess::ServerProcess() = default;

ServerProcess::~ServerProcess() { stop(); }

void ServerProcess::stop()
{
    process.closeWriteChannel();
    if (process.state() == QProcess::NotRunning || process.waitForFinished(EndMs))
        return;
    process.kill();
    (void)process.waitForFinished(EndMs);
}

bool ServerProcess::start(const QString &program, QString *error)
{
    process.start(program, {});
    if (process.waitForStarted(StartMs))
        return true;
    *error = process.errorString();
    return false;
}

bool ServerProcess::ask(const QString &method, const QJsonObject &params, int limitMs,
                        QJsonObject *result, QString *error, const std::function<bool()> &giveUp)
{
    const int id = ++lastId;
    const QJsonObject request { { u"jsonrpc"_s, u"2.0"_s },
                                { u"id"_s, id },
                                { u"method"_s, method },
                                { u"params"_s, params } };
    process.write(QJsonDocument(request).toJson(QJsonDocument::Compact).append('\n'));
    const QDeadlineTimer deadline(limitMs);
    QJsonObject answer;
    while (!takeAnswer(id, &answer)) {
        if (process.state() == QProcess::NotRunning)
            *error = endText();
        else if (deadline.hasExpired())
            *error = u"no answer within %1 s"_s.arg(limitMs / 1'000);
        else if (giveUp && giveUp())
            *error = u"given up"_s;
        else if (process.bytesAvailable() > MaxAnswerBytes)
            *error = u"its answer does not end"_s;
        else {
            if (!process.waitForReadyRead(WaitSliceMs))
                QThread::msleep(ClosedPauseMs);
            continue;
        }
        return false;
    }
    *result = answer["result"_L1].toObject();
    if (answer.contains("result"_L1))
        return true;
    *error = u"the answer is an error: "_s + answer["error"_L1]["message"_L1].toString();
    return false;
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
    const QString status = process.exitStatus() == QProcess::NormalExit
                                   ? u"it ended with exit status %1"_s.arg(process.exitCode())
                                   : u"it was ended by signal %1"_s.arg(process.exitCode());
    const QStringList words = lastLines(process.readAllStandardError());
    return words.isEmpty() ? status : status + u": "_s + words.last();
}

QStringList lastLines(const QByteArray &output)
{
    const QString text = QString::fromLocal8Bit(output.right(QuotedBytes));
    const QStringList lines = text.split(u'\n', Qt::SkipEmptyParts);
    return lines.mid(std::max<qsizetype>(0, lines.size() - QuotedLines));
}
