// The command lines of the verbs that look after managers.
#pragma once

#include "Console/clean.h"
#include "Console/stop.h"
#include "Console/top.h"

namespace CLI {
class App;
}

// Each adds its verb; what is given for it goes to `options`, which outlives the parsing.
CLI::App* AddTop(CLI::App& app, TopOptions& options);
CLI::App* AddStop(CLI::App& app, StopOptions& options);
CLI::App* AddClean(CLI::App& app, CleanOptions& options);
