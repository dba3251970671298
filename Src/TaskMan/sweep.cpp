#include <fcntl.h>
#include <semaphore.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <memory>
#include <set>
#include <thread>
#include <utility>

#include "TaskMan/orphans.h"
#include "TaskMan/othermanagers.h"
#include "TaskMan/othersection.h"
#include "TaskMan/request.h"
#include "TaskMan/taskcontext.h"
#include "common/AutoLock.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kStopPatience = 3s;  // for orphans that were asked to stop
constexpr auto kKillPatience = 1s;  // for orphans that were killed
constexpr auto kPoll = 10ms;

// All sections of this user, by whether their managers live.
struct Census {
    Census();

    // Whether no manager of that process id can be alive.
    bool IsDead(int nManagerPid) const;

    std::set<int> living{};
    std::set<std::string> livingIds{};  // of the tasks of living managers
    std::vector<std::unique_ptr<OtherSection>> dead{};
    std::vector<OtherTask> deadTasks{};
};

Census::Census() {
    for (const int number : SectionNumbers()) {
        auto section = std::make_unique<OtherSection>(number, O_RDWR);
        if (!section->IsOpen()) continue;
        const bool lives = section->Lives();
        for (OtherTask& task : section->Tasks()) {
            if (lives) {
                livingIds.insert(task.id);
            } else {
                deadTasks.push_back(std::move(task));
            }
        }
        if (lives) {
            living.insert(number);
        } else {
            dead.push_back(std::move(section));
        }
    }
}

bool Census::IsDead(int nManagerPid) const {
    if (living.count(nManagerPid) > 0) return false;
    const auto isIts = [&](const auto& section) { return section->ManagerPid() == nManagerPid; };
    return std::any_of(dead.begin(), dead.end(), isIts) ||
           platform::ProcessWatch(nManagerPid).Gone();
}

std::vector<std::string> DeadLocks(const Census& census) {
    std::set<std::string> deadIds;
    for (const OtherTask& task : census.deadTasks) deadIds.insert(task.id);
    std::vector<std::string> locks;
    for (const std::string& name : platform::OwnSemaphoreNames()) {
        if (census.livingIds.count(name) > 0) continue;
        // A manager that died before it filled the slot has made the lock already.
        const int maker = ProcessOfTaskID(name);
        if (deadIds.count(name) > 0 || (maker > 0 && census.IsDead(maker))) locks.push_back(name);
    }
    return locks;
}

// Whether the process was started for a task of a dead manager: one that its section still shows,
// or one whose id names the manager.
bool IsOrphan(const WorkerProcess& worker, const Census& census) {
    if (std::any_of(census.deadTasks.begin(), census.deadTasks.end(),
                    [&](const OtherTask& task) { return Serves(worker, task); })) {
        return true;
    }
    return ProcessOfTaskID(worker.id) == worker.nManagerPid && census.IsDead(worker.nManagerPid);
}

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

std::vector<Orphan> FindOrphans(const Census& census) {
    std::vector<Orphan> orphans;
    for (WorkerProcess& worker : ListWorkers()) {
        if (!IsOrphan(worker, census)) continue;
        platform::ProcessWatch process(worker.pid);
        // The id may have been another process's when the watch began.
        const WorkerProcess now = AsWorker({worker.pid, platform::ProcessArguments(worker.pid)});
        if (now.id != worker.id || now.nManagerPid != worker.nManagerPid) continue;
        orphans.push_back({std::move(worker), std::move(process)});
    }
    return orphans;
}

// An orphan that came late has made the lock of its task again, or the section.
void RemoveNamesOf(const std::vector<Orphan>& orphans) {
    SweepDeadManagers(false);
    const Census census;
    for (const Orphan& orphan : orphans) {
        if (census.livingIds.count(orphan.worker.id) == 0) sem_unlink(orphan.worker.id.c_str());
    }
}

bool AllGone(const std::vector<Orphan>& orphans) {
    return std::all_of(orphans.begin(), orphans.end(),
                       [](const Orphan& orphan) { return orphan.process.Gone(); });
}

void Kill(const std::vector<Orphan>& orphans) {
    for (const Orphan& orphan : orphans) orphan.process.Signal(SIGKILL);
}

// The orphans that the manager of this process follows.
Threading::Mutex g_orphan_mutex;
std::vector<Orphan> g_orphans TS_GUARDED_BY(g_orphan_mutex);
Clock::time_point g_swept_at TS_GUARDED_BY(g_orphan_mutex);
bool g_second_sweep TS_GUARDED_BY(g_orphan_mutex) = false;  // is still to come

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
    for (const int number : SectionNumbers()) {
        const OtherSection section(number, O_RDONLY);
        if (!section.IsOpen() || !section.Lives()) continue;
        for (OtherTask& task : section.Tasks()) all.push_back(std::move(task));
    }
    return all;
}

bool StopOtherTask(const OtherTask& task) {
    const OtherSection section(task.nManagerPid, O_RDWR);
    return section.IsOpen() && section.StoreStop(task.nTaskIndex, task.id);
}

std::vector<WorkerProcess> ListWorkers() {
    std::vector<WorkerProcess> workers;
    for (const platform::Process& process : platform::OwnProcesses()) {
        WorkerProcess worker = AsWorker(process);
        if (worker.pid != -1) workers.push_back(std::move(worker));
    }
    return workers;
}

bool Serves(const WorkerProcess& worker, const OtherTask& task) {
    return worker.nManagerPid == task.nManagerPid && worker.nTaskIndex == task.nTaskIndex &&
           worker.id == task.id;
}

Remains SweepDeadManagers(bool bLookOnly) {
    const Census census;
    Remains remains;
    std::set<std::string> paths;
    for (const OtherTask& task : census.deadTasks) {
        if (IsDownloadCommand(task.nCmd) && !task.path.empty()) paths.insert(task.path);
    }
    remains.paths.assign(paths.begin(), paths.end());
    for (const auto& section : census.dead) {
        remains.sections.push_back(section->Name());
        if (bLookOnly) continue;
        for (const OtherTask& task : section->Tasks()) {
            section->StoreStop(task.nTaskIndex, task.id);
        }
    }
    remains.locks = DeadLocks(census);
    remains.orphans = FindOrphans(census);
    if (bLookOnly) return remains;
    for (const std::string& lock : remains.locks) sem_unlink(lock.c_str());
    for (const auto& section : census.dead) section->Remove();
    return remains;
}

void KillOrphans(const std::vector<Orphan>& orphans) {
    if (orphans.empty()) return;
    Kill(orphans);
    const Clock::time_point deadline = Clock::now() + kKillPatience;
    while (!AllGone(orphans) && Clock::now() < deadline) std::this_thread::sleep_for(kPoll);
    RemoveNamesOf(orphans);
}

void BeginSweep(Clock::time_point now) {
    Remains remains = SweepDeadManagers(false);
    Threading::AutoLock hold(&g_orphan_mutex);
    g_orphans = std::move(remains.orphans);
    g_swept_at = now;
    g_second_sweep = true;
}

void EndOrphans(Clock::time_point now) {
    Threading::AutoLock hold(&g_orphan_mutex);
    if (now - g_swept_at >= kStopPatience) {
        if (g_second_sweep) {
            g_second_sweep = false;
            for (Orphan& orphan : SweepDeadManagers(false).orphans) {
                g_orphans.push_back(std::move(orphan));
            }
        }
        Kill(g_orphans);
    }
    if (g_orphans.empty() || !AllGone(g_orphans)) return;
    RemoveNamesOf(g_orphans);
    g_orphans.clear();
}

void EndOrphansNow() {
    std::vector<Orphan> orphans;
    {
        Threading::AutoLock hold(&g_orphan_mutex);
        orphans = std::exchange(g_orphans, {});
    }
    KillOrphans(orphans);
}
