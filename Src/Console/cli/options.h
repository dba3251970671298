// The command line.
#pragma once

#include <optional>

#include "Console/get/get.h"
#include "Console/others/clean.h"
#include "Console/others/info.h"
#include "Console/others/stop.h"
#include "Console/others/top.h"

enum class Verb { kGet, kInfo, kTop, kStop, kClean };

struct Command {
    Verb verb = Verb::kGet;
    GetOptions get{};
    InfoOptions info{};
    TopOptions top{};
    StopOptions stop{};
    CleanOptions clean{};
};

// Reads the arguments of the program into `command`. Returns nothing when the verb is to be run;
// else the exit status: help has been written to standard output, or a fault to standard error.
std::optional<int> ParseCommandLine(int argc, const char* const* argv, Command& command);
