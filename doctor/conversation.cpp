#include "checks.h"
#include "report.h"
#include "server_process.h"

#include <QFileInfo>
#include <QJsonArray>

using namespace Qt::StringLiterals;

namespace {

constexpr int AnswerMs = 10'000;

const QString damaged = u"Install the server again, and its Qt libraries."_s;

bool initialize(Report &report, ServerProcess &server)
{
    const QJsonObject client { { u"name"_s, u"orrery-mcp-doctor"_s }, { u"version"_s, u"1"_s } };
    const QJsonObject params { { u"protocolVersion"_s, u"2025-06-18"_s },
                               { u"capabilities"_s, QJsonObject() },
                               { u"clientInfo"_s, client } };
    const ServerProcess::Answer answer = server.ask(u"initialize"_s, params, AnswerMs);
    const QString broken = u"The server does not work: %1."_s.arg(answer.error);
    report.judge(u"initialize"_s,
                 { { answer.error.isEmpty(), Outcome::Ok,
                     u"The server answers within %1 ms, with protocol %2."_s.arg(
                             QString::number(answer.tookMs),
                             answer.result["protocolVersion"_L1].toString()) },
                   { answer.error.contains("rights of another user"_L1), Outcome::Fault, broken,
                     u"Its file is setuid: chmod u-s %1."_s.arg(serverPath()) },
                   { true, Outcome::Fault, broken, damaged } });
    return answer.error.isEmpty();
}

bool listTools(Report &report, ServerProcess &server)
{
    const ServerProcess::Answer answer = server.ask(u"tools/list"_s, {}, AnswerMs);
    const qsizetype count = answer.result["tools"_L1].toArray().size();
    report.judge(u"tools"_s,
                 { { !answer.error.isEmpty(), Outcome::Fault,
                     u"The server does not list its tools: %1."_s.arg(answer.error), damaged },
                   { count == 0, Outcome::Fault, u"The server has no tools."_s, damaged },
                   { true, Outcome::Ok,
                     u"%1 tools, listed in %2 ms."_s.arg(QString::number(count),
                                                         QString::number(answer.tookMs)) } });
    return answer.error.isEmpty();
}

bool askStatus(Report &report, ServerProcess &server)
{
    const ServerProcess::Answer status = server.call(u"app_status"_s, AnswerMs);
    const QString took = u" (app_status, %1 ms)"_s.arg(status.tookMs);
    report.judge(
            u"status"_s,
            { { !status.error.isEmpty(), Outcome::Fault,
                u"The server does not tell the status: %1."_s.arg(status.error), damaged },
              { !status.result["running"_L1].toBool(), Outcome::Ok,
                u"The server, too, sees no Orrery%1."_s.arg(took) },
              { status.result["socketReachable"_L1].toBool(), Outcome::Ok,
                u"The server sees Orrery and somebody on the socket%1."_s.arg(took) },
              { true, Outcome::Fault,
                u"The server sees Orrery and cannot reach its socket%1: each call would fail after "
                "half a minute."_s.arg(took),
                u"The lines above say why; if none does, Orrery hangs: end it and start it "
                "again."_s } });
    return status.error.isEmpty();
}

} // namespace

void checkConversation(Report &report, bool launch)
{
    const QFileInfo file(serverPath());
    if (!file.isFile() || !file.isExecutable())
        return; // reported by checkInstallation()
    ServerProcess server(serverPath());
    if (initialize(report, server) && listTools(report, server) && askStatus(report, server)
        && launch)
        checkLaunch(report, server);
}
