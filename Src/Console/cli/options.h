// The command line.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Console/cli/proxy.h"
#include "Console/get/target.h"
#include "Console/others/clean.h"
#include "Console/others/stop.h"
#include "Console/others/top.h"
#include "Console/page/pagetask.h"
#include "Console/page/videopage.h"
#include "Console/screen/display.h"

// `taskman get`
struct GetOptions {
    std::vector<std::string> addresses{};
    std::string input{};      // list of more addresses; "-": standard input; empty: none
    std::string output{};     // name of the only file; empty: taken from the address
    std::string sha256{};     // digest of the only file; empty: unknown
    std::string directory{};  // where files go; empty: the working directory
    std::string failed{};     // list of what did not finish, to be written; empty: none
    int jobs = 4;             // files at once, 1 to 8
    Existing existing = Existing::kRefuse;
    bool continues = true;  // go on with what an earlier run has left, and leave it to a later one
    std::int32_t connections = 1;  // most of one file, 1 to 10
    Tries tries{};
    std::int32_t timeout = 30;  // seconds for a server to answer; 0: for ever
    std::string worker{};       // program of the workers; empty: the installed one
    ProxyRules proxy{};
    FormatWish format{};       // when given, the addresses are those of pages
    bool resolveOnly = false;  // the addresses are those of pages, of which no file is downloaded
    DisplayOptions display{};
};

// `taskman info`
struct InfoOptions {
    std::string address{};  // of the page
    bool json = false;      // for programs
    bool url = false;       // only the address of the chosen format
    std::string worker{};
    ProxyRules proxy{};
    FormatWish format{};
};

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
