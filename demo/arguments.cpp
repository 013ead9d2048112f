#include "arguments.h"

#include "host.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>

using namespace Qt::StringLiterals;

namespace {

using Range = std::pair<double, double>;

const QHash<QString, Range> &ranges()
{
    static const QHash<QString, Range> all {
        { u"cpu"_s, { 1, hostProcessors() } },
        { u"ramGB"_s, { 1, hostMemoryGB() } },
        { u"diskGB"_s, { 8, 2048 } },
        { u"newGB"_s, { 8, 2048 } },
        { u"width"_s, { 320, 7680 } },
        { u"height"_s, { 200, 4320 } },
        { u"scale"_s, { 0.1, 1 } },
        { u"imageScale"_s, { 0.1, 1 } },
        { u"dy"_s, { -100, 100 } },
        { u"delayMs"_s, { 0, 5000 } },
        { u"maxChars"_s, { 1, 100000 } },
        { u"captureDelayMs"_s, { 0, 10000 } },
        { u"sinceSeconds"_s, { 1, 1e9 } },
        { u"connectTimeoutSeconds"_s, { 1, 60 } },
        { u"timeoutSeconds"_s, { 1, 290 } },
        { u"commandTimeoutSeconds"_s, { 1, 280 } },
    };
    return all;
}

const QHash<QString, QJsonObject> &schemas()
{
    static const QHash<QString, QJsonObject> byTool = [] {
        QHash<QString, QJsonObject> all;
        QFile file(u":/demo/contract.json"_s);
        file.open(QIODevice::ReadOnly);
        const QJsonArray tools = QJsonDocument::fromJson(file.readAll())["tools"_L1].toArray();
        for (const QJsonValue &tool : tools)
            all[tool["name"_L1].toString()] = tool["inputSchema"_L1].toObject();
        return all;
    }();
    return byTool;
}

bool isOfType(const QJsonValue &value, const QString &type)
{
    return type == "string"_L1    ? value.isString()
           : type == "boolean"_L1 ? value.isBool()
           : type == "number"_L1  ? value.isDouble()
           : type == "array"_L1   ? value.isArray()
           : type == "object"_L1  ? value.isObject()
                                  : value.toInteger(0) == value.toInteger(1);
}

// What is wrong with a value, by its schema and its range; an empty text is nothing.
QString complaintOf(const QString &name, const QJsonValue &value, const QJsonValue &schema,
                    bool jobWait)
{
    if (!isOfType(value, schema["type"_L1].toString()))
        return u"%1 must be of type %2"_s.arg(name, schema["type"_L1].toString());
    const QJsonArray accepted = schema["enum"_L1].toArray();
    if (!accepted.isEmpty() && !accepted.contains(value))
        return u"%1 has no value %2"_s.arg(name, value.toString());
    const bool asJob = jobWait && name == "timeoutSeconds"_L1;
    const auto [min, max] = asJob ? Range { 1, 1800 } : ranges().value(name, { -1e9, 1e9 });
    if (value.isDouble() && (value.toDouble() < min || value.toDouble() > max))
        return u"%1 must be %2 to %3"_s.arg(name).arg(min).arg(max);
    QString complaint;
    const QJsonArray elements = value.toArray();
    for (auto it = elements.begin(); it != elements.end() && complaint.isEmpty(); ++it)
        complaint = complaintOf("an element of "_L1 + name, *it, schema["items"_L1], jobWait);
    const QJsonObject members = value.toObject();
    const QJsonArray required = schema["required"_L1].toArray();
    for (const QJsonValue &needed : required) {
        if (!members.contains(needed.toString()))
            complaint = needed.toString() + " is required"_L1;
    }
    for (auto it = members.begin(); it != members.end() && complaint.isEmpty(); ++it) {
        const QJsonValue known = schema["properties"_L1][it.key()];
        complaint = known.isUndefined() ? "there is no argument "_L1 + it.key()
                                        : complaintOf(it.key(), *it, known, jobWait);
    }
    return complaint;
}

} // namespace

std::optional<Answer> refuseArguments(const QString &tool, const QJsonObject &arguments)
{
    const auto schema = schemas().find(tool);
    if (schema == schemas().end())
        return fail(u"unknown_method"_s, "there is no method "_L1 + tool);
    const QString complaint = complaintOf(u"params"_s, arguments, *schema, tool == "job_wait"_L1);
    if (!complaint.isEmpty())
        return wrong(complaint);
    for (const auto &pattern : { "pattern"_L1, "grep"_L1 }) {
        if (!QRegularExpression(arguments[pattern].toString()).isValid())
            return wrong(pattern + " is not a regular expression"_L1);
    }
    return {};
}
