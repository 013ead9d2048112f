// Has the server launch the application, and finds out what became of it.

#pragma once

#include <QJsonObject>
#include <QString>

class Report;
class ServerProcess;

// The object in a tool's result, or why there is none.
struct ToolAnswer
{
    QJsonObject object;
    QString error;
};

[[nodiscard]] ToolAnswer callTool(ServerProcess &server, const QString &tool, int limitMs,
                                  const std::function<bool()> &giveUp = {});

// Makes this process the parent of what the server starts and leaves on its own
// (PR_SET_CHILD_SUBREAPER, prctl(2)), so that an application that dies leaves its exit status here.
// To be called first.
void adoptOrphans();

void checkLaunch(Report &report, ServerProcess &server);
