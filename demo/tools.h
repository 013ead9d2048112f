// The tools of the catalogue, and the call of one.

#pragma once

#include "world.h"

#include <QImage>

using Reply = Later<Answer>;

// One call of a tool. It stays until the answer is there, so a tool may keep the reference.
struct Call
{
    QString text(QLatin1StringView name) const { return arguments[name].toString(); }
    bool flag(QLatin1StringView name) const { return arguments[name].toBool(); }
    int number(QLatin1StringView name, int other) const { return arguments[name].toInt(other); }

    World &world;
    QJsonObject arguments; // checked
    std::function<bool()> wanted; // whether somebody still waits for the answer
    MachinePtr machine; // of tools for machines: what "id" names
    JobPtr job; // of tools for jobs: what "jobId" names
};

// A tool of the catalogue, which makes itself known as it is made.
class Tool
{
public:
    using Run = Reply (*)(const Call &call);

    // Its name, and words for what must hold of machine and arguments.
    Tool(const char *name, const char *needs, Run run)
    {
        all()[QString::fromLatin1(name)] = { QString::fromLatin1(needs), run };
    }

    // Carries out one; its arguments and what it needs are checked here.
    static Later<Answer> carryOut(QString name, Call &call);

private:
    static QHash<QString, std::pair<QString, Run>> &all();
};

// How often, in milliseconds, a tool looks whether what it waits for has come.
constexpr int LookMs = 50;

// The answer to a call of no tool of the catalogue, or with arguments that its schemas and the
// ranges in its prose rule out. What one argument asks of another is checked by the tool.
std::optional<Answer> refuseArguments(const QString &tool, const QJsonObject &arguments);

// The settings of a machine that tools tell.
QJsonObject told(const Machine &machine);

// The screen as it is now, null where the machine has ended; keeps the size in its settings.
Later<QImage> takePicture(MachinePtr machine);

// The answer of capture_screen for its arguments region, scale, format and output: a PNG or JPEG as
// "imageBase64", or the path of a file with it.
Answer captured(const QImage &screen, const QJsonObject &arguments);
