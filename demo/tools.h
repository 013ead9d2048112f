// The tools of the catalogue, and calls of them.

#pragma once

#include "world.h"

#include <QImage>

using Reply = Later<Answer>;

// One call of a tool. It lives until the answer is there, so a tool may keep a reference to it.
struct Call
{
    QString text(QLatin1StringView name) const { return arguments[name].toString(); }
    bool flag(QLatin1StringView name) const { return arguments[name].toBool(); }
    int number(QLatin1StringView name, int other) const { return arguments[name].toInt(other); }

    World &world;
    QJsonObject arguments; // checked
    std::function<bool()> wanted; // whether somebody still waits for the answer
    MachinePtr machine; // which "id" names, for tools that work on a machine
    JobPtr job; // which "jobId" names, for tools that work on a job
};

// A tool of the catalogue; its constructor registers it.
class Tool
{
public:
    using Run = Reply (*)(const Call &call);

    // Its name, and words for what must be true of the machine and the arguments; "alone" keeps
    // other calls away from the machine meanwhile.
    Tool(const char *name, const char *needs, Run run)
    {
        all[QString::fromLatin1(name)] = { QString::fromLatin1(needs), run };
    }

    // Carries out a call, after checking its arguments and what the tool needs.
    static Later<Answer> carryOut(QString name, Call &call);

private:
    static inline QHash<QString, std::pair<QString, Run>> all; // by their names
};

// The screen as it is now, null where there is none; keeps the size in its settings.
Later<QImage> takePicture(MachinePtr machine);

// The answer of capture_screen for its arguments region, scale, format and output: a PNG or JPEG as
// "imageBase64", or the path of a file with it.
Answer captured(const Machine &machine, const QImage &screen, const QJsonObject &arguments);
