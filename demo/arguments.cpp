// The arguments of a call, checked against the catalogue.

#include "host.h"
#include "tools.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>

namespace {

// What the catalogue's prose says of the numbers: a name, the least and the most.
QHash<QString, std::pair<double, double>> rangesOf(const QString &tool)
{
    const QString prose = u"cpu 1 %1 ramGB 1 %2 diskGB 8 2048 newGB 8 2048 width 320 7680 "
                          "height 200 4320 scale 0.1 1 imageScale 0.1 1 dy -100 100 delayMs 0 5000 "
                          "captureDelayMs 0 10000 maxChars 1 100000 sinceSeconds 1 1e9 "
                          "connectTimeoutSeconds 1 60 commandTimeoutSeconds 1 280 "
                          "timeoutSeconds 1 %3"_s;
    const int longest = tool == "job_wait"_L1 ? 1800 : 290;
    const QStringList words
            = prose.arg(hostProcessors()).arg(hostMemoryGB()).arg(longest).split(u' ');
    QHash<QString, std::pair<double, double>> all;
    for (qsizetype n = 0; n < words.size(); n += 3)
        all[words[n]] = { words[n + 1].toDouble(), words[n + 2].toDouble() };
    return all;
}

QJsonValue schemaOf(const QString &tool)
{
    static const QJsonDocument catalogue
            = QJsonDocument::fromJson(contents(u":/demo/contract.json"_s));
    const QJsonArray tools = catalogue["tools"_L1].toArray();
    for (const QJsonValue &one : tools) {
        if (one["name"_L1] == tool)
            return one["inputSchema"_L1];
    }
    return QJsonValue::Undefined;
}

bool isOfType(const QJsonValue &value, const QString &type)
{
    static const QStringList names = u"null boolean number string array object"_s.split(u' ');
    const bool whole = value.toInteger(0) == value.toInteger(1);
    return type == names.value(value.type()) || (type == "integer"_L1 && whole);
}

// What is wrong with a value, by its schema and its range; an empty text is nothing.
QString complaintOf(const QString &tool, const QString &name, const QJsonValue &value,
                    const QJsonValue &schema)
{
    if (!isOfType(value, schema["type"_L1].toString()))
        return u"%1 must be of type %2"_s.arg(name, schema["type"_L1].toString());
    const QJsonArray accepted = schema["enum"_L1].toArray();
    if (!accepted.isEmpty() && !accepted.contains(value))
        return u"%1 has no value %2"_s.arg(name, value.toString());
    const auto [min, max] = rangesOf(tool).value(name, { -1e9, 1e9 });
    if (value.isDouble() && (value.toDouble() < min || value.toDouble() > max))
        return u"%1 must be %2 to %3"_s.arg(name).arg(min).arg(max);
    QString complaint;
    const QJsonArray elements = value.toArray();
    for (auto it = elements.begin(); it != elements.end() && complaint.isEmpty(); ++it)
        complaint = complaintOf(tool, "an element of "_L1 + name, *it, schema["items"_L1]);
    const QJsonObject members = value.toObject();
    const QJsonArray required = schema["required"_L1].toArray();
    for (const QJsonValue &needed : required) {
        if (!members.contains(needed.toString()))
            complaint = needed.toString() + " is required"_L1;
    }
    for (auto it = members.begin(); it != members.end() && complaint.isEmpty(); ++it) {
        const QJsonValue known = schema["properties"_L1][it.key()];
        complaint = known.isUndefined() ? "there is no argument "_L1 + it.key()
                                        : complaintOf(tool, it.key(), *it, known);
    }
    return complaint;
}

} // namespace

std::optional<Answer> refuseArguments(const QString &tool, const QJsonObject &arguments)
{
    const QJsonValue schema = schemaOf(tool);
    if (schema.isUndefined())
        return fail(u"unknown_method"_s, "there is no method "_L1 + tool);
    const QString complaint = complaintOf(tool, u"params"_s, arguments, schema);
    if (!complaint.isEmpty())
        return wrong(complaint);
    for (const auto &pattern : { "pattern"_L1, "grep"_L1 }) {
        if (!QRegularExpression(arguments[pattern].toString()).isValid())
            return wrong(pattern + " is not a regular expression"_L1);
    }
    return {};
}
