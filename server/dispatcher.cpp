#include "dispatcher.h"

#include "catalogue.h"
#include "pipe.h"
#include "replies.h"
#include "tools.h"

#include <QStringList>

using namespace Qt::StringLiterals;

namespace {

void initialize(const QJsonValue &id, const QJsonObject &params)
{
    static const QStringList supported { u"2024-11-05"_s, u"2025-03-26"_s, u"2025-06-18"_s };
    const QString requested = params["protocolVersion"_L1].toString();
    g_clientInfoName = params["clientInfo"_L1].toObject()["name"_L1].toString();

    const QString fallback = g_contract.value("protocolVersion"_L1).toString(u"2024-11-05"_s);
    QJsonObject result {
        { u"protocolVersion"_s, supported.contains(requested) ? requested : fallback },
        { u"capabilities"_s,
          QJsonObject { { u"tools"_s, QJsonObject() }, { u"logging"_s, QJsonObject() } } },
    };
    if (g_contract.contains("serverInfo"_L1))
        result.insert("serverInfo"_L1, g_contract.value("serverInfo"_L1));
    if (const QJsonValue instructions = g_contract.value("instructions"_L1);
        instructions.isString())
        result.insert("instructions"_L1, instructions);
    reply(id, result);
}

// The text of it is made once: the catalogue never changes.
void listTools(const QJsonValue &id)
{
    static const JsonWriter list = [] {
        JsonWriter text;
        text.text("{");
        if (g_contract.contains("tools"_L1)) {
            text.text(R"("tools":)");
            text.value(g_contract.value("tools"_L1));
        }
        text.text("}");
        return text;
    }();
    replyWithJson(id, list.bytes());
}

} // namespace

void handle(const Request &request)
{
    // A message without an id is a notification: nobody could learn what became of it, so nothing
    // is carried out and nothing is answered.
    if (request.id.isUndefined())
        return;
    if (request.method == "initialize"_L1)
        initialize(request.id, request.params);
    else if (request.method == "tools/list"_L1)
        listTools(request.id);
    else if (request.method == "tools/call"_L1)
        toolsCall(request.id, request.params, request.longString);
    else
        replyError(request.id, MethodNotFound, u"Method not found: "_s + request.method);
}
