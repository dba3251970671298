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

// A task, and what the system says about its worker.
struct TaskRow {
    OtherTask task{};
    pid_t worker = -1;            // process id of the worker while it lives; else -1
    std::optional<double> age{};  // of the worker, seconds
};

// What all managers do at one moment.
struct TopView {
    std::size_t managers = 0;
    std::vector<TaskRow> rows{};
    std::vector<TaskRow> idle{};  // workers that wait for a task: theirs is empty but for the slot
};

// Of one manager, or with 0 of all; nothing when that one does not live.
std::optional<TopView> ReadTop(int manager);

// The state of the task in a word, as docs/json.md lists them.
const char* StateName(const OtherTask& task);

// A line with the titles of the columns and one for each task and idle worker, without line ends,
// printable. For a screen of `columns` columns some columns are left out, ids are cut to where they
// differ, and names to what fits; 0: everything is shown. A screen too narrow for the columns that
// always stay gets wider lines.
std::vector<std::string> TopTable(const TopView& view, int columns);

// A line with an object for the whole, and one for each task and idle worker.
std::string TopJson(const TopView& view);
