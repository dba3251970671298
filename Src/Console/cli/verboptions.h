// The command lines of the verbs that look after managers.
#pragma once

#include <cstdint>
#include <string>

#include "Console/others/clean.h"
#include "Console/others/stop.h"
#include "Console/others/top.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

// Adds an option, or an argument, whose value is a number of the range: decimal digits only.
// `number` outlives the parsing.
CLI::Option* AddNumber(CLI::App& verb, const std::string& names, std::int32_t& number, int least,
                       int most, const std::string& what);

// Each adds its verb; what is given for it goes to `options`, which outlives the parsing.
CLI::App* AddTop(CLI::App& app, TopOptions& options);
CLI::App* AddStop(CLI::App& app, StopOptions& options);
CLI::App* AddClean(CLI::App& app, CleanOptions& options);
