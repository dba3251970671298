#include "TaskMan/othermanagers.h"

#include <fcntl.h>

#include <chrono>
#include <thread>
#include <utility>

#include "TaskMan/section/othersection.h"
#include "TaskMan/section/taskid.h"
#include "TaskMan/taskcontext.h"
#include "common/platform.h"

namespace {

// More than a worker's claim takes.
constexpr std::chrono::milliseconds kClaimTime{10};

// What the process was started as; its pid is -1 when that is no worker.
WorkerProcess AsWorker(const platform::Process& process) {
    const std::vector<std::string>& arguments = process.arguments;
    if (arguments.size() != 4 || !IsTaskID(arguments[1])) return {};
    const std::string& index = arguments[2];
    const std::string& manager = arguments[3];
    if (index.size() != 1 || index[0] < '0' || index[0] >= '0' + TASK_SLOT_COUNT) return {};
    if (manager.empty() || manager.size() > 9 || manager[0] == '0' ||
        manager.find_first_not_of("0123456789") != manager.npos) {
        return {};
    }
    return {process.pid, arguments[1], index[0] - '0', std::stoi(manager)};
}

}  // namespace

std::vector<int> ListManagers() {
    std::vector<int> living;
    for (const int number : SectionNumbers()) {
        const OtherSection section(number, O_RDONLY);
        if (section.IsOpen() && section.Lives()) living.push_back(number);
    }
    return living;
}

std::vector<OtherTask> ListTasks() {
    std::vector<OtherTask> all;
    for (const int number : ListManagers()) {
        const OtherSection section(number, O_RDONLY);
        if (!section.IsOpen()) continue;
        for (OtherTask& task : section.Tasks()) all.push_back(std::move(task));
    }
    return all;
}

bool StopOtherTask(const OtherTask& task) {
    const OtherSection section(task.nManagerPid, O_RDWR);
    if (!section.IsOpen() || !section.StoreStop(task.nTaskIndex, task.id)) return false;
    std::this_thread::sleep_for(kClaimTime);
    section.StoreStop(task.nTaskIndex, task.id);
    return true;
}

std::vector<WorkerProcess> ListWorkers() {
    std::vector<WorkerProcess> workers;
    for (const platform::Process& process : platform::OwnProcesses()) {
        WorkerProcess worker = AsWorker(process);
        if (worker.pid != -1) workers.push_back(std::move(worker));
    }
    return workers;
}

WorkerProcess WorkerOf(pid_t pid) {
    return AsWorker({pid, platform::ProcessArguments(pid)});
}

bool Serves(const WorkerProcess& worker, const OtherTask& task) {
    return worker.nManagerPid == task.nManagerPid && worker.nTaskIndex == task.nTaskIndex &&
           (worker.id == task.id || worker.pid == task.nPid);
}
