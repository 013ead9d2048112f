#include "checks.h"
#include "launch.h"
#include "orrery_control.h"
#include "report.h"
#include "server_process.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>

using namespace Qt::StringLiterals;

namespace {

constexpr int AnswerMs = 10'000;

const QString damaged = u"Install the server again, and its Qt libraries."_s;

bool initialize(Report &report, ServerProcess &server, const QString &program)
{
    QElapsedTimer timer;
    timer.start();
    QString error;
    QJsonObject result;
    const QJsonObject client { { u"name"_s, u"orrery-mcp-doctor"_s }, { u"version"_s, u"1"_s } };
    const QJsonObject params { { u"protocolVersion"_s, u"2025-06-18"_s },
                               { u"capabilities"_s, QJsonObject() },
                               { u"clientInfo"_s, client } };
    if (!server.start(program, &error)
        || !server.ask(u"initialize"_s, params, AnswerMs, &result, &error)) {
        report.fault(u"initialize"_s, u"The server does not work: %1."_s.arg(error), damaged);
        return false;
    }
    report.ok(u"initialize"_s,
              u"The server answers %1 ms after its start, with protocol %2."_s.arg(
                      QString::number(timer.elapsed()), result["protocolVersion"_L1].toString()));
    return true;
}

bool listTools(Report &report, ServerProcess &server)
{
    QElapsedTimer timer;
    timer.start();
    QString error;
    QJsonObject result;
    if (!server.ask(u"tools/list"_s, {}, AnswerMs, &result, &error)) {
        report.fault(u"tools"_s, u"The server does not list its tools: %1."_s.arg(error), damaged);
        return false;
    }
    const qsizetype count = result["tools"_L1].toArray().size();
    if (count == 0)
        report.fault(u"tools"_s, u"The server has no tools."_s, damaged);
    else
        report.ok(u"tools"_s, u"%1 tools, listed in %2 ms."_s.arg(
                                      QString::number(count), QString::number(timer.elapsed())));
    return true;
}

bool askStatus(Report &report, ServerProcess &server)
{
    QElapsedTimer timer;
    timer.start();
    const ToolAnswer status = callTool(server, u"app_status"_s, AnswerMs);
    const QString took = u" (app_status, %1 ms)"_s.arg(timer.elapsed());
    const QString name = u"status"_s;
    if (!status.error.isEmpty())
        report.fault(name, u"The server does not tell the status: %1."_s.arg(status.error),
                     damaged);
    else if (!status.object["running"_L1].toBool())
        report.ok(name, u"The server, too, sees no Orrery%1."_s.arg(took));
    else if (status.object["socketReachable"_L1].toBool())
        report.ok(name, u"The server sees Orrery and somebody on the socket%1."_s.arg(took));
    else
        report.fault(name,
                     u"The server sees Orrery and cannot reach its socket%1: each call would fail "
                     "after half a minute."_s.arg(took),
                     u"The lines above say why; if none does, Orrery hangs: end it and start it "
                     "again."_s);
    return status.error.isEmpty();
}

} // namespace

void checkConversation(Report &report, bool launch)
{
    const QString program = OrreryControl::siblingPath(u"orrery-mcp"_s);
    const QFileInfo file(program);
    if (!file.isFile() || !file.isExecutable())
        return; // reported by checkInstallation()
    adoptOrphans();
    ServerProcess server;
    const bool works = initialize(report, server, program) && listTools(report, server)
                       && askStatus(report, server);
    if (works && launch)
        checkLaunch(report, server);
}
