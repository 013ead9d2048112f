// One simulated machine: its settings and state, its log, and what its screen shows.

#pragma once

#include <QElapsedTimer>
#include <QJsonObject>
#include <QSize>
#include <QStringList>

struct Machine
{
    // A stopped machine of create_vm's arguments, with a name, an image and, where the network is
    // a bridge, a bridgeInterface among them.
    static Machine created(const QJsonObject &arguments);

    QString text(QLatin1StringView key) const { return settings[key].toString(); }
    bool is(QLatin1StringView state) const { return text(QLatin1StringView("state")) == state; }
    QSize display() const; // in pixels
    QStringList screenLines() const; // what the console shows now
    bool hasBooted() const; // since the last start

    // What a tool gives of the machine: the settings of these names.
    QJsonObject pick(std::initializer_list<QLatin1StringView> keys) const;

    void setState(QLatin1StringView state);
    void note(const QString &line);

    QJsonObject settings; // as get_vm returns them
    QStringList log; // lines with their time in front
    QElapsedTimer started; // since the last start, while running
    QString typed; // what send_input left on the screen
};
