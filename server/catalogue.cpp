#include "catalogue.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSet>

using namespace Qt::StringLiterals;

QJsonObject g_contract;

bool loadCatalogue()
{
    QFile contract(u":/mcp/contract.json"_s);
    if (!contract.open(QIODevice::ReadOnly))
        return false;
    g_contract = QJsonDocument::fromJson(contract.readAll()).object();
    return true;
}

bool isCatalogued(const QString &tool)
{
    static const QSet<QString> names = [] {
        QSet<QString> all;
        const QJsonArray tools = g_contract.value("tools"_L1).toArray();
        for (const QJsonValue &entry : tools)
            all.insert(entry["name"_L1].toString());
        return all;
    }();
    return names.contains(tool);
}
