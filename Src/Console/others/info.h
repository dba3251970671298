// `taskman info`.
#pragma once

#include <string>

#include "Console/base/proxy.h"
#include "Console/page/videopage.h"
#include "TaskMan/tasktext.h"

// What the command line says.
struct InfoOptions {
    std::string address{};  // of the page
    bool json = false;      // for programs
    bool url = false;       // only the address of the chosen format
    std::string worker{};
    ProxyRules proxy{};
    tagTaskRequest request{};  // what all requests carry
    FormatWish format{};
};

// Resolves the page that the options name, writes what they ask for to standard output, and returns
// the exit status. After SIGINT, SIGTERM or SIGHUP it does not return: the task is stopped, then
// the process ends by that signal.
int RunInfo(InfoOptions options);

// ---- What it writes. `taken` is the chosen format of the page; null: none.

// For people: lines of at most 80 columns.
std::string PageTable(const VideoPage& page, const VideoFormat* taken);

// For programs: one JSON object on a line, in ASCII. `insecure`: no certificate was checked.
std::string PageJson(const VideoPage& page, const VideoFormat* taken, bool insecure = false);
