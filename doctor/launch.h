// Has the server launch the application, and finds out what became of it.

#pragma once

#include <QJsonObject>
#include <QString>

#include <functional>

class Report;
class ServerProcess;

// The object in a tool's result, or why there is none: a tool's own error text is a reason too.
struct ToolAnswer
{
    QJsonObject object;
    QString error;
};

// Calls a tool without arguments; limitMs and giveUp as in ServerProcess::ask().
[[nodiscard]] ToolAnswer callTool(ServerProcess &server, const QString &tool, int limitMs,
                                  const std::function<bool()> &giveUp = {});

// Makes this process the parent of what the server starts and leaves on its own
// (PR_SET_CHILD_SUBREAPER, prctl(2)), so that an application that dies leaves its exit status here.
// To be called first.
void adoptOrphans();

// Does nothing when the report has a fault already.
void checkLaunch(Report &report, ServerProcess &server);
