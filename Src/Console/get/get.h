// `taskman get`.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Console/base/proxy.h"
#include "Console/get/standardoutput.h"
#include "Console/get/target.h"
#include "Console/page/pagetask.h"
#include "Console/page/videopage.h"
#include "Console/screen/display.h"
#include "TaskMan/tasktext.h"

// What the command line says.
struct GetOptions {
    std::vector<std::string> addresses{};
    std::string input{};      // list of more addresses; "-": standard input; empty: none
    std::string output{};     // name of the only file, or OUTPUT_NAME; empty: from the address
    std::string sha256{};     // digest of the only file; empty: unknown
    std::string directory{};  // where files go; empty: the working directory
    std::string failed{};     // list of what did not finish, to be written; empty: none
    int jobs = 4;             // files at once, 1 to 8
    Existing existing = Existing::kRefuse;
    bool serverName = false;    // files have the names that the servers give
    bool freshWorkers = false;  // a worker process for each file, also when there are several
    bool continues = true;  // go on with what an earlier run has left, and leave it to a later one
    std::int32_t connections = 1;  // most of one file, 1 to 10
    bool newer = false;  // replace only what has changed since it was stored; existing is kReplace
    bool remoteTime = false;      // files get the times that they have at their servers
    std::uint64_t limitRate = 0;  // bytes per second of all files together; 0: no limit
    std::int32_t perHost = 0;     // most files of one host at a time, 1 to 8; 0: any number
    Tries tries{};
    std::int32_t retryAfter = 120;  // longest pause in seconds that a server may ask for
    std::int32_t timeout = 30;      // seconds for a server to answer; 0: for ever
    std::string worker{};           // program of the workers; empty: the installed one
    ProxyRules proxy{};
    tagTaskRequest request{};  // what all requests carry: headers and the like
    FormatWish format{};       // when given, the addresses are those of pages
    bool resolveOnly = false;  // the addresses are those of pages, of which no file is downloaded
    DisplayOptions display{};

    bool ToOutput() const { return output == OUTPUT_NAME; }
};

// What every run with such requests tells.
constexpr const char* INSECURE_WARNING = "certificates of servers are not checked (--insecure)";

// Downloads what the options name and returns the exit status. After SIGINT, SIGTERM or SIGHUP it
// does not return: everything is stopped and tidied, then the process ends by that signal.
int RunGet(const GetOptions& options);
