#include "arguments.h"

#include "host.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>

#include <map>

using namespace Qt::StringLiterals;

namespace {

struct Range
{
    double min;
    double max;
};

const std::map<QString, Range> ranges {
    { u"cpu"_s, { 1, static_cast<double>(hostProcessors()) } },
    { u"ramGB"_s, { 1, static_cast<double>(hostMemoryGB()) } },
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

// A job may be waited for as long as a creation may take.
constexpr Range JobWaitSeconds { 1, 1800 };

const std::map<QString, QJsonObject> &schemas()
{
    static const std::map<QString, QJsonObject> byTool = [] {
        std::map<QString, QJsonObject> all;
        QFile file(u":/demo/contract.json"_s);
        if (file.open(QIODevice::ReadOnly)) {
            const QJsonArray tools = QJsonDocument::fromJson(file.readAll())["tools"_L1].toArray();
            for (const QJsonValue &tool : tools)
                all[tool["name"_L1].toString()] = tool["inputSchema"_L1].toObject();
        }
        return all;
    }();
    return byTool;
}

// Finds what is wrong with the arguments of one call; an empty text is nothing.
struct Check
{
    QString tool;

    QString ofRange(const QString &name, double value) const
    {
        const auto found = ranges.find(name);
        if (found == ranges.end())
            return {};
        const bool jobWait = tool == "job_wait"_L1 && name == "timeoutSeconds"_L1;
        const auto &[min, max] = jobWait ? JobWaitSeconds : found->second;
        return value < min || value > max ? u"%1 must be %2 to %3"_s.arg(name).arg(min).arg(max)
                                          : QString();
    }

    QString ofValue(const QJsonObject &schema, const QString &name, const QJsonValue &value) const
    {
        const QString type = schema["type"_L1].toString();
        const bool fits = type == "string"_L1    ? value.isString()
                          : type == "boolean"_L1 ? value.isBool()
                          : type == "number"_L1  ? value.isDouble()
                          : type == "array"_L1   ? value.isArray()
                          : type == "object"_L1  ? value.isObject()
                                                 : value.toInteger(0) == value.toInteger(1);
        if (!fits)
            return u"%1 must be of type %2"_s.arg(name, type);
        const QJsonArray accepted = schema["enum"_L1].toArray();
        if (!accepted.isEmpty() && !accepted.contains(value))
            return u"%1 has no value %2"_s.arg(name, value.toString());
        if (const QString complaint = ofRange(name, value.toDouble()); !complaint.isEmpty())
            return complaint;
        const QJsonArray elements = value.toArray();
        for (const QJsonValue &element : elements) {
            const QString complaint
                    = ofValue(schema["items"_L1].toObject(), "an element of "_L1 + name, element);
            if (!complaint.isEmpty())
                return complaint;
        }
        return value.isObject() ? ofObject(schema, value.toObject()) : QString();
    }

    QString ofObject(const QJsonObject &schema, const QJsonObject &arguments) const
    {
        const QJsonArray required = schema["required"_L1].toArray();
        for (const QJsonValue &name : required) {
            if (!arguments.contains(name.toString()))
                return name.toString() + " is required"_L1;
        }
        const QJsonObject properties = schema["properties"_L1].toObject();
        for (auto it = arguments.begin(); it != arguments.end(); ++it) {
            if (!properties.contains(it.key()))
                return "there is no argument "_L1 + it.key();
            const QString complaint = ofValue(properties[it.key()].toObject(), it.key(), *it);
            if (!complaint.isEmpty())
                return complaint;
        }
        return {};
    }
};

} // namespace

std::optional<Answer> refuseArguments(const QString &tool, const QJsonObject &arguments)
{
    const auto schema = schemas().find(tool);
    if (schema == schemas().end())
        return fail(u"unknown_method"_s, "there is no method "_L1 + tool);
    const QString complaint = Check { tool }.ofObject(schema->second, arguments);
    if (!complaint.isEmpty())
        return wrong(complaint);
    for (const auto &pattern : { "pattern"_L1, "grep"_L1 }) {
        if (!QRegularExpression(arguments[pattern].toString()).isValid())
            return wrong(pattern + " is not a regular expression"_L1);
    }
    return {};
}
