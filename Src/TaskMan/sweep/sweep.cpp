#include "TaskMan/sweep/sweep.h"

#include <fcntl.h>
#include <semaphore.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <memory>
#include <set>
#include <thread>
#include <utility>

#include "TaskMan/othermanagers.h"
#include "TaskMan/section/othersection.h"
#include "TaskMan/sweep/leftlist.h"
#include "TaskMan/sweep/leftpart.h"
#include "TaskMan/task/request.h"
#include "TaskMan/taskcontext.h"
#include "common/AutoLock.h"
#include "common/platform.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kSecondSweep = 3s;   // after the first
constexpr auto kKillPatience = 1s;  // for orphans that were killed
constexpr auto kLockPatience = 2s;  // for a task's lock, held for the copy of one slot
constexpr auto kPoll = 10ms;

// All sections of this user, by whether their managers live; and the lists of open parts whose
// processes do not.
struct Census {
    Census();

    // Whether no manager of that process id can be alive.
    bool IsDead(int nManagerPid) const;

    std::set<int> living{};
    std::vector<OtherTask> livingTasks{};
    std::vector<std::unique_ptr<OtherSection>> dead{};
    std::vector<OtherTask> deadTasks{};
    std::vector<std::unique_ptr<LeftList>> lists{};
};

Census::Census() {
    for (const int number : SectionNumbers()) {
        auto section = std::make_unique<OtherSection>(number, O_RDWR);
        if (!section->IsOpen()) continue;
        const bool lives = section->Lives();
        for (OtherTask& task : section->Tasks()) {
            (lives ? livingTasks : deadTasks).push_back(std::move(task));
        }
        if (lives) {
            living.insert(number);
        } else {
            dead.push_back(std::move(section));
        }
    }
    for (const std::string& name : platform::SharedMemoryNames()) {
        auto list = std::make_unique<LeftList>(name);
        if (list->IsLeft()) lists.push_back(std::move(list));
    }
}

bool Census::IsDead(int nManagerPid) const {
    if (living.count(nManagerPid) > 0) return false;
    const auto isIts = [&](const auto& section) { return section->ManagerPid() == nManagerPid; };
    return std::any_of(dead.begin(), dead.end(), isIts) ||
           platform::ProcessWatch(nManagerPid).Gone();
}

// What the tasks of living managers use.
struct InUse {
    explicit InUse(const std::vector<OtherTask>& tasks) {
        for (const OtherTask& task : tasks) {
            ids.insert(task.id);
            paths.insert(task.path);
        }
    }

    std::set<std::string> ids{};
    std::set<std::string> paths{};
};

std::vector<std::string> DeadLocks(const Census& census) {
    const InUse inUse(census.livingTasks);
    std::set<std::string> deadIds;
    for (const OtherTask& task : census.deadTasks) deadIds.insert(task.id);
    std::vector<std::string> locks;
    for (const std::string& name : platform::OwnSemaphoreNames()) {
        if (inUse.ids.count(name) > 0) continue;
        // A manager that died before it filled the slot has made the lock already.
        const int maker = ProcessOfTaskID(name);
        if (deadIds.count(name) > 0 || (maker > 0 && census.IsDead(maker))) locks.push_back(name);
    }
    return locks;
}

// A worker whose manager is dead.
struct Orphan {
    WorkerProcess worker;
    platform::ProcessWatch process;
};

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

// Kills the orphans and waits until they are gone.
void Kill(const std::vector<Orphan>& orphans) {
    for (const Orphan& orphan : orphans) orphan.process.Signal(SIGKILL);
    const auto gone = [](const Orphan& orphan) { return orphan.process.Gone(); };
    const Clock::time_point deadline = Clock::now() + kKillPatience;
    while (!std::all_of(orphans.begin(), orphans.end(), gone) && Clock::now() < deadline) {
        std::this_thread::sleep_for(kPoll);
    }
}

// Removes the names of locks, and of sections that late workers have made anew.
void RemoveNames(const InUse& inUse, Remains& remains) {
    std::erase_if(remains.locks,
                  [&](const std::string& lock) { return inUse.ids.count(lock) > 0; });
    for (const std::string& lock : remains.locks) sem_unlink(lock.c_str());
    for (const WorkerProcess& worker : remains.workers) {
        if (inUse.ids.count(worker.id) == 0) sem_unlink(worker.id.c_str());
        const OtherSection section(worker.nManagerPid, O_RDONLY);
        if (section.IsOpen() && !section.Lives()) section.Remove();
    }
}

// Removes the parts and then the lists of them, or only looks.
void RemoveParts(const Census& census, const InUse& inUse, bool bLookOnly, Remains& remains) {
    std::set<std::string> paths;
    for (const OtherTask& task : census.deadTasks) {
        if (IsDownloadCommand(task.nCmd)) paths.insert(task.path);
    }
    for (const auto& list : census.lists) paths.merge(list->Parts());
    for (const std::string& path : paths) {
        if (inUse.paths.count(path) > 0) continue;
        const LeftPart part(path);
        if (!part.IsLeft()) continue;
        (bLookOnly || part.Remove() ? remains.parts : remains.stuck).push_back(path);
    }
    for (const auto& list : census.lists) {
        if (bLookOnly || list->Remove()) remains.lists.push_back(list->Name());
    }
}

// When the second sweep is to come.
Threading::Mutex g_sweep_mutex;
Clock::time_point g_next_sweep TS_GUARDED_BY(g_sweep_mutex) = Clock::time_point::max();

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
    if (!section.IsOpen()) return false;
    sem_t* lock = sem_open(task.id.c_str(), 0);
    if (lock == SEM_FAILED) return false;
    // Without the lock the word may be lost to a worker that takes its task just now, or meet the
    // next task of the slot. Who keeps it for so long stands still and does neither.
    const Clock::time_point deadline = Clock::now() + kLockPatience;
    bool locked = false;
    while (!(locked = sem_trywait(lock) == 0) && Clock::now() < deadline) {
        std::this_thread::sleep_for(kPoll);
    }
    const bool stored = section.StoreStop(task.nTaskIndex, task.id);
    if (locked) sem_post(lock);
    sem_close(lock);
    return stored;
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
    for (const auto& section : census.dead) {
        remains.sections.push_back(section->Name());
        if (bLookOnly) continue;
        for (const OtherTask& task : section->Tasks()) {
            section->StoreStop(task.nTaskIndex, task.id);
        }
    }
    remains.locks = DeadLocks(census);
    const std::vector<Orphan> orphans = FindOrphans(census);
    for (const Orphan& orphan : orphans) remains.workers.push_back(orphan.worker);
    if (bLookOnly) {
        RemoveParts(census, InUse(census.livingTasks), true, remains);
        return remains;
    }
    // Names after the end of the workers, which may have made them anew.
    Kill(orphans);
    for (const auto& section : census.dead) section->Remove();
    // Looked at afresh: ids and paths of the dead may have come into use meanwhile.
    const InUse inUse(ListTasks());
    RemoveNames(inUse, remains);
    RemoveParts(census, inUse, false, remains);
    return remains;
}

void BeginSweep(Clock::time_point now) {
    SweepDeadManagers(false);
    Threading::AutoLock hold(&g_sweep_mutex);
    g_next_sweep = now + kSecondSweep;
}

void EndOrphans(Clock::time_point now) {
    {
        Threading::AutoLock hold(&g_sweep_mutex);
        if (now < g_next_sweep) return;
        g_next_sweep = Clock::time_point::max();
    }
    SweepDeadManagers(false);
}
