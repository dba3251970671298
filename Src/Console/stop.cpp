#include "Console/stop.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "Console/display.h"
#include "Console/outcome.h"
#include "Console/text.h"
#include "TaskMan/othermanagers.h"
#include "TaskMan/taskcontext.h"

namespace {

// A worker that takes its task reads its slot and writes all of it back, within far less.
constexpr std::chrono::milliseconds kClaimTime{100};

std::vector<OtherTask> WithId(const std::vector<OtherTask>& tasks, const std::string& id) {
    const auto take = [&tasks](auto matches) {
        std::vector<OtherTask> taken;
        std::copy_if(tasks.begin(), tasks.end(), std::back_inserter(taken), matches);
        return taken;
    };
    std::vector<OtherTask> exact = take([&id](const OtherTask& task) { return task.id == id; });
    if (!exact.empty()) return exact;
    return take([&id](const OtherTask& task) { return task.id.starts_with(id); });
}

// The tasks that the options name; what is wrong with a name is added to `faults`, a line each.
std::vector<OtherTask> Named(const StopOptions& options, std::string& faults) {
    const std::vector<OtherTask> tasks = ListTasks();
    if (options.all) return tasks;
    std::vector<OtherTask> named;
    for (const std::string& id : options.ids) {
        const std::vector<OtherTask> found = WithId(tasks, id);
        if (found.size() == 1) {
            named.push_back(found.front());
        } else {
            faults += "taskman: " +
                      (found.empty() ? "no task " + text::Printable(id)
                                     : text::Count(found.size(), "task") + " begin with " +
                                           text::Printable(id)) +
                      "\n";
        }
    }
    return named;
}

bool IsSame(const OtherTask& one, const OtherTask& other) {
    return one.nManagerPid == other.nManagerPid && one.nTaskIndex == other.nTaskIndex &&
           one.id == other.id;
}

// A worker that took its task at that very moment has written the old word over the new one.
void AskAgain(const std::vector<OtherTask>& asked) {
    if (asked.empty()) return;
    std::this_thread::sleep_for(kClaimTime);
    for (const OtherTask& task : ListTasks()) {
        if (task.nControl != TASK_CONTROL_STOP &&
            std::any_of(asked.begin(), asked.end(),
                        [&task](const OtherTask& other) { return IsSame(task, other); })) {
            StopOtherTask(task);
        }
    }
}

}  // namespace

int RunStop(const StopOptions& options) {
    std::string faults;
    std::string told;
    std::vector<OtherTask> asked;
    for (const OtherTask& task : Named(options, faults)) {
        if (StopOtherTask(task)) {
            told += "asked to stop " + task.id + "\n";
            asked.push_back(task);
        } else if (!options.all) {
            faults += "taskman: no task " + task.id + "\n";
        }
    }
    AskAgain(asked);
    if (told.empty() && faults.empty()) told = "no task runs\n";
    const bool written = WriteAll(STDOUT_FILENO, told) && WriteAll(STDERR_FILENO, faults);
    return faults.empty() && written ? EXIT_STATUS_FINISHED : EXIT_STATUS_FAILED;
}
