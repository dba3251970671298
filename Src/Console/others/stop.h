// `taskman stop`: tasks of other processes are asked to stop.
#pragma once

#include <string>
#include <vector>

struct StopOptions {
    std::vector<std::string> ids{};  // of tasks, or beginnings of ids that no other task has
    bool all = false;                // every task of this user; no ids then
};

// Returns the exit status: EXIT_STATUS_FAILED when a task that was named is not there.
int RunStop(const StopOptions& options);
