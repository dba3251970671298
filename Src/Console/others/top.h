// `taskman top`: the tasks of all managers of this user.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "TaskMan/othermanagers.h"

struct TopOptions {
    int manager = 0;    // process id of the only one to be shown; 0: all
    bool once = false;  // one table, also on a terminal
    bool json = false;  // one table for programs
};

// Returns the exit status: EXIT_STATUS_FAILED when the manager that was named does not live.
int RunTop(const TopOptions& options);

// ---- What is shown, for tests too.

// A task with what the system tells of its worker.
struct TaskRow {
    OtherTask task{};
    pid_t worker = -1;            // process id of the worker while it lives; else -1
    std::optional<double> age{};  // of the worker, seconds
};

// One look at the managers; nothing when the one that was asked for does not live.
struct TopView {
    std::size_t managers = 0;
    std::vector<TaskRow> rows{};
};
std::optional<TopView> Look(int manager);

// What the task does, in a word.
const char* StateName(const OtherTask& task);

// A line with the names of the columns and one for each task, without line ends; everything in them
// is fit for a terminal. For a screen of so many columns, ids are cut to what tells them apart,
// names to what fits; with 0 all is shown.
std::vector<std::string> TopTable(const TopView& view, int columns);

// An object for the look and one for each task, a line each.
std::string TopJson(const TopView& view);
