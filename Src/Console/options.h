// The command line.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Console/display.h"
#include "Console/proxy.h"
#include "Console/videopage.h"

// `taskman get`
struct GetOptions {
    std::vector<std::string> addresses{};  // at least one
    std::string output{};                  // name of the file; empty: from the address
    std::string directory{};               // where files go; empty: the working directory
    int jobs = 4;                          // files at once, 1 to 8
    bool force = false;                    // existing files are replaced
    std::string worker{};                  // program of the workers; empty: looked for
    Proxy proxy{};
    FormatWish format{};  // when given, the addresses are those of pages
    DisplayOptions display{};
};

// `taskman info`
struct InfoOptions {
    std::string address{};  // of the page
    bool json = false;      // for programs
    bool url = false;       // only the address of the chosen format
    std::string worker{};
    Proxy proxy{};
    FormatWish format{};
};

enum class Verb { kGet, kInfo };

struct Command {
    Verb verb = Verb::kGet;
    GetOptions get{};
    InfoOptions info{};
};

// Reads the arguments of the program. When there is nothing to run, because help was asked for or
// the arguments are wrong, it has said so on standard output or standard error and returns the exit
// status.
std::optional<int> ParseCommandLine(int argc, const char* const* argv, Command& command);
