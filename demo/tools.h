// The tools of the catalogue: a table for each subject, and the call of one.

#pragma once

#include "world.h"

#include <vector>

// What must hold of the machine, or of the arguments, before a tool touches a machine.
enum class Needs {
    Running,
    Stopped,
    NotSuspended,
    NotStopped,
    Installed, // a system on its disk
    Booted, // of a running machine: the guest's tools have spoken
    GuestTools,
    Ssh, // provisioned
    Linux,
    Confirm, // confirm:true among the arguments
};

// One call of a tool. It stays until the answer is there, so a tool may keep the reference.
struct Call
{
    World &world;
    QJsonObject arguments; // checked
    std::function<bool()> wanted; // whether somebody still waits for the answer
    MachinePtr machine; // of tools for machines: what "id" names
    JobPtr job; // of tools for jobs: what "jobId" names
};

struct Tool
{
    enum class Subject { Host, Machine, Job };

    QLatin1StringView name;
    Subject subject;
    std::vector<Needs> needs; // in the order in which they are checked
    Later<Answer> (*run)(const Call &call);
};

// How often, in milliseconds, a tool looks whether what it waits for has come.
constexpr int LookMs = 50;

std::vector<Tool> hostTools();
std::vector<Tool> machineTools();
std::vector<Tool> jobTools();
std::vector<Tool> hardwareTools();
std::vector<Tool> screenTools();
std::vector<Tool> inputTools();
std::vector<Tool> guestTools();

// The settings of a machine that tools tell.
QJsonObject told(const Machine &machine);

// Carries out one tool; its arguments and what it needs are checked here.
Later<Answer> carryOut(QString tool, Call &call);
