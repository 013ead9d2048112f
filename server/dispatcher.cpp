#include "dispatcher.h"

#include "catalogue.h"
#include "pipe.h"
#include "replies.h"
#include "tools.h"

#include <QStringList>

using namespace Qt::StringLiterals;

namespace {

constexpr auto FallbackProtocolVersion = "2024-11-05"_L1;

void initialize(const QJsonValue &id, const QJsonObject &params)
{
    static const QStringList supported { u"2024-11-05"_s, u"2025-03-26"_s, u"2025-06-18"_s };
    const QString requested = params["protocolVersion"_L1].toString();
    g_clientInfoName = params["clientInfo"_L1].toObject()["name"_L1].toString();

    const QString fallback
            = g_contract.value("protocolVersion"_L1).toString(FallbackProtocolVersion);
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

// The result of tools/list, made once: the catalogue never changes.
const JsonWriter &toolList()
{
    static const JsonWriter list = [] {
        JsonWriter text;
        text.beginObject();
        if (g_contract.contains("tools"_L1)) {
            text.key("tools"_L1);
            text.value(g_contract.value("tools"_L1));
        }
        text.endObject();
        return text;
    }();
    return list;
}

void listTools(const QJsonValue &id) { replyWithJson(id, toolList().bytes()); }

} // namespace

void handle(const QJsonObject &request)
{
    // A message without an id is a notification: nobody could learn what became of it, so nothing
    // is carried out and nothing is answered.
    const auto idMember = request.constFind("id"_L1);
    if (idMember == request.constEnd())
        return;
    const QJsonValue id = *idMember;
    const QString method = request["method"_L1].toString();
    const QJsonObject params = request["params"_L1].toObject();
    if (method == "initialize"_L1)
        initialize(id, params);
    else if (method == "tools/list"_L1)
        listTools(id);
    else if (method == "tools/call"_L1)
        toolsCall(id, params);
    else
        replyError(id, MethodNotFound, u"Method not found: "_s + method);
}
