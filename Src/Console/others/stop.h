// `taskman stop`: asks tasks of other processes to stop.
#pragma once

#include <string>
#include <vector>

struct StopOptions {
    std::vector<std::string> ids{};  // of tasks, or unique beginnings of them
    bool all = false;                // every task of this user; `ids` is empty then
};

// Returns the exit status: EXIT_STATUS_FAILED when a task that was named is not there.
int RunStop(const StopOptions& options);
