#include "Console/others/stop.h"

#include <algorithm>

#include "Console/base/outcome.h"
#include "Console/screen/display.h"
#include "Console/screen/text.h"
#include "TaskMan/othermanagers.h"

namespace {

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

// The tasks that the options name. Adds a fault line for each id that names none or several.
std::vector<OtherTask> Named(const StopOptions& options, std::string& faults) {
    const std::vector<OtherTask> tasks = ListTasks();
    if (options.all) return tasks;
    std::vector<OtherTask> named;
    for (const std::string& id : options.ids) {
        const std::vector<OtherTask> found = WithId(tasks, id);
        if (found.size() == 1) {
            named.push_back(found.front());
        } else {
            faults +=
                FaultLine(found.empty() ? "no task " + id
                                        : text::Count(found.size(), "task") + " begin with " + id);
        }
    }
    return named;
}

}  // namespace

int RunStop(const StopOptions& options) {
    std::string faults;
    std::string told;
    for (const OtherTask& task : Named(options, faults)) {
        if (StopOtherTask(task)) {
            told += "asked to stop " + task.id + "\n";
        } else if (!options.all) {
            faults += FaultLine("no task " + task.id);
        }
    }
    if (told.empty() && faults.empty()) told = "no task runs\n";
    const bool written = WriteResult(told, faults);
    return faults.empty() && written ? EXIT_STATUS_FINISHED : EXIT_STATUS_FAILED;
}
