// The catalogue of tools, contract.json, as it is compiled into the program.

#pragma once

#include <QJsonObject>
#include <QString>

// Empty until loadCatalogue(), which comes before there is a second thread; then never changed.
extern QJsonObject g_contract;

// False when the program has none. One that is no object reads as empty.
[[nodiscard]] bool loadCatalogue();

// Whether a tool is in it, by its exact name.
[[nodiscard]] bool isCatalogued(const QString &tool);
