#include "machine.h"

#include <QDateTime>
#include <QJsonArray>

#include <algorithm>

using namespace Qt::StringLiterals;

constexpr qint64 BootLineMs = 300;
constexpr qint64 BootLines = 4; // before the login

Machine Machine::created(const QJsonObject &arguments)
{
    const QString os = arguments["os"_L1].toString();
    const QString name = arguments["name"_L1].toString();
    const bool unattended = arguments["unattended"_L1].toBool();
    const bool installed = os == "macOS"_L1 || unattended;
    const QJsonValue driver = os == "linux"_L1
                                      ? arguments["linuxNetworkDriver"_L1].toString(u"builtin"_s)
                                      : QJsonValue();
    const bool bridged = arguments["network"_L1].toString() == "bridge"_L1;
    Machine machine;
    machine.settings = {
        { u"id"_s, "/home/demo/Orrery/%1.vm"_L1.arg(name) },
        { u"name"_s, name },
        { u"os"_s, os },
        { u"state"_s, u"stopped"_s },
        { u"cpu"_s, arguments["cpu"_L1] },
        { u"ramGB"_s, arguments["ramGB"_L1] },
        { u"diskGB"_s, arguments["diskGB"_L1] },
        { u"network"_s, arguments["network"_L1] },
        { u"bridgeInterface"_s, bridged ? arguments["bridgeInterface"_L1] : QJsonValue() },
        { u"nestedVirt"_s, arguments["nestedVirt"_L1].toBool() },
        { u"rosetta"_s, arguments["rosetta"_L1].toBool() },
        { u"linuxNetworkDriver"_s, driver },
        { u"installerMedia"_s, installed ? QJsonValue() : arguments["image"_L1] },
        { u"installed"_s, installed },
        { u"guestTools"_s, unattended ? u"1.0"_s : QJsonValue() },
        { u"attachLinuxGuestTools"_s, false },
        { u"sshProvisioned"_s, false },
        { u"display"_s, QJsonObject { { u"width"_s, 1024 }, { u"height"_s, 768 } } },
        { u"sharedFolders"_s, QJsonArray() },
    };
    machine.note(u"created"_s);
    return machine;
}

QSize Machine::display() const
{
    const QJsonObject size = settings["display"_L1].toObject();
    return { size["width"_L1].toInt(), size["height"_L1].toInt() };
}

QStringList Machine::screenLines() const
{
    QStringList lines { u"Orrery demonstration firmware"_s, "Booting "_L1 + text("os"_L1),
                        u"[  OK  ] Started simulated services"_s, u"[  OK  ] Reached target"_s,
                        text("name"_L1).toLower().replace(u' ', u'-') + " login: "_L1 + typed };
    const qint64 shown = started.isValid() ? 1 + started.elapsed() / BootLineMs : 0;
    lines = lines.first(std::min<qsizetype>(lines.size(), shown));
    return lines.join(u'\n').split(u'\n');
}

bool Machine::hasBooted() const
{
    return started.isValid() && started.hasExpired(BootLines * BootLineMs);
}

QJsonObject Machine::pick(std::initializer_list<QLatin1StringView> keys) const
{
    QJsonObject picked;
    for (const auto &key : keys)
        picked[key] = settings[key];
    return picked;
}

void Machine::setState(QLatin1StringView state)
{
    if (is("stopped"_L1))
        started.start(); // what is resumed goes on where it was
    settings["state"_L1] = state;
    if (state == "stopped"_L1)
        typed.clear();
    note("state is now "_L1 + state);
}

void Machine::note(const QString &line)
{
    log += QDateTime::currentDateTimeUtc().toString(Qt::ISODate) + u' ' + line;
}
