// Tool calls: the router, the tools that manage the application's process, and the relay of all
// others. Main thread.

#pragma once

#include <QJsonObject>
#include <QJsonValue>

struct Answer;

// Carries out one tools/call and writes its one response, whose id is id.
void toolsCall(const QJsonValue &id, const QJsonObject &params);

// An application's answer to a relayed tool as the response to the client.
void replyAnswer(const QJsonValue &id, const Answer &answer);
