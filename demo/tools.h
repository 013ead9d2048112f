// The tools of the catalogue on the simulated host: a table for each subject, and the call of one.

#pragma once

#include "world.h"

#include <variant>
#include <vector>

// What must hold of the machine, or of the arguments, before a tool touches a machine.
enum class Needs {
    Running,
    Stopped,
    NotSuspended,
    NotStopped,
    Installed, // a system on its disk
    Booted, // of a running machine: its login shows
    GuestTools,
    Ssh, // provisioned
    Linux,
    NotMacOS,
    Confirm, // confirm:true among the arguments
};

// What a tool works on decides how it is called: on the host, on the machine that "id" names, or on
// the job that "jobId" names. Its arguments are checked.
using OnHost = Answer (*)(World &, const QJsonObject &arguments);
using OnMachine = Answer (*)(World &, Machine &, const QJsonObject &arguments);
using OnJob = Answer (*)(World &, Job &, const QJsonObject &arguments);

struct Tool
{
    QLatin1StringView name;
    std::vector<Needs> needs; // in the order in which they are checked
    std::variant<OnHost, OnMachine, OnJob> run;
};

std::vector<Tool> hostTools();
std::vector<Tool> machineTools();
std::vector<Tool> hardwareTools();
std::vector<Tool> folderTools();
std::vector<Tool> screenTools();
std::vector<Tool> guestTools();

// Carries out one tool; its arguments and what it needs are checked here.
Answer call(World &world, const QString &tool, const QJsonObject &arguments);
