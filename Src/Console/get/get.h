// `taskman get`.
#pragma once

#include "Console/cli/options.h"

// Downloads what the options name and returns the exit status. After SIGINT, SIGTERM or SIGHUP it
// does not return: everything is stopped and tidied, then the process ends by that signal.
int RunGet(const GetOptions& options);
