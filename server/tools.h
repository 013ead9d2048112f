// Tool calls: starting (also from an AppImage) and quitting the application, its status, and the
// relay of all other tools, each with its time limit. Main thread.

#pragma once

#include "json_input.h"

#include <QJsonValue>

// Carries out one tools/call and writes its one response, with this id. longString is that of the
// params, see Message.
void toolsCall(const QJsonValue &id, const QJsonObject &params, QByteArrayView longString);

// An application's answer to a relayed tool as the response to the client.
void replyAnswer(const QJsonValue &id, const Message &answer);
