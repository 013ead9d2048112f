// The tools of the catalogue: a table for each subject, and the call of one.

#pragma once

#include "world.h"

#include <vector>

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

struct Tool
{
    QString names; // one or more
    QString needs; // words for what must hold of machine and arguments
    Later<Answer> (*run)(const Call &call) = nullptr;
    QString whyNot; // the tool's answer where nothing runs
};

// How often, in milliseconds, a tool looks whether what it waits for has come.
constexpr int LookMs = 50;

std::vector<Tool> machineTools(); // and the host's
std::vector<Tool> jobTools();
std::vector<Tool> screenTools();
std::vector<Tool> inputTools();
std::vector<Tool> guestTools();

// The settings of a machine that tools tell.
QJsonObject told(const Machine &machine);

// Carries out one tool; its arguments and what it needs are checked here.
Later<Answer> carryOut(QString tool, Call &call);
