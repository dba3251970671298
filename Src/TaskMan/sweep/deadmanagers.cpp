#include "TaskMan/deadmanagers.h"

#include <fcntl.h>
#include <semaphore.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <memory>
#include <set>
#include <utility>

#include "TaskMan/partrecord.h"
#include "TaskMan/section/othersection.h"
#include "TaskMan/section/taskid.h"
#include "TaskMan/taskcontext.h"
#include "common/file.h"
#include "common/platform.h"

namespace {

constexpr std::chrono::milliseconds kOrphanPatience{300};  // for orphans that end by themselves
constexpr std::chrono::seconds kKilledOrphanPatience{1};   // for orphans that were killed

// All sections of this user, by whether their managers live. The dead ones stay locked.
struct Census {
    Census();

    // Whether no manager of that process id can be alive.
    bool IsDead(int nManagerPid) const;

    std::set<int> living{};
    std::vector<OtherTask> livingTasks{};
    std::vector<std::unique_ptr<OtherSection>> dead{};
    std::vector<OtherTask> deadTasks{};
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

std::vector<Orphan> FindOrphans(const Census& census) {
    std::vector<Orphan> orphans;
    for (WorkerProcess& worker : ListWorkers()) {
        if (!IsOrphan(worker, census)) continue;
        platform::ProcessWatch process(worker.pid);
        // The pid may have been reused between the listing and the start of the watch.
        const WorkerProcess now = WorkerOf(worker.pid);
        if (now.id != worker.id || now.nManagerPid != worker.nManagerPid) continue;
        orphans.push_back({std::move(worker), std::move(process)});
    }
    return orphans;
}

std::vector<std::string> FindLocks(const Census& census, const InUse& inUse) {
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

// What is to be done.
struct Order {
    bool bLookOnly = false;
    bool bContinuable = false;  // remove what can be continued, too
};

// Removes the file and its record if it is a part that nobody has locked and that is not to be
// continued, or only looks, and adds it to the remains. `path` comes from a slot: nothing is a part
// but an absolute path with the ending of parts, to a regular file of this user, not through a
// link.
void RemoveStalePart(const std::string& path, const Order& order, Remains& remains) {
    if (!path.starts_with('/') || !path.ends_with(TASK_PART_ENDING)) return;
    const Descriptor part(open(path.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (fstat(part.Get(), &status) != 0 || !IsOwnRegular(status) || TryLock(part.Get()) != 0 ||
        !IsNamed(part.Get(), path)) {
        return;
    }
    if (!order.bContinuable &&
        ContinuablePercent(path, static_cast<std::uint64_t>(status.st_size)) >= 0) {
        remains.continuable.push_back(path);
        return;
    }
    const bool removed = order.bLookOnly || unlink(path.c_str()) == 0;
    (removed ? remains.parts : remains.stuck).push_back(path);
    if (removed && !order.bLookOnly) RemovePartRecord(path);
}

void RemoveParts(const Census& census, const InUse& inUse, const Order& order, Remains& remains) {
    std::set<std::string> paths;
    for (const OtherTask& task : census.deadTasks) {
        if (IsDownloadCommand(task.nCmd) && inUse.paths.count(task.path) == 0) {
            paths.insert(task.path);
        }
    }
    for (const std::string& path : paths) RemoveStalePart(path, order, remains);
}

// Kills the orphans and waits until they are gone. Those of extended tasks have a moment to note
// how far they have come.
void Kill(const std::vector<Orphan>& orphans) {
    const auto gone = [&] {
        return std::all_of(orphans.begin(), orphans.end(),
                           [](const Orphan& orphan) { return orphan.process.Gone(); });
    };
    if (PollUntil(kOrphanPatience, gone)) return;
    for (const Orphan& orphan : orphans) orphan.process.Signal(SIGKILL);
    PollUntil(kKilledOrphanPatience, gone);
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

// Everything that was found. It cannot change its meaning while this exists: the dead sections are
// locked, and the workers are watched.
struct Survey {
    Survey();

    const Census census{};
    const InUse inUse{census.livingTasks};
    const std::vector<Orphan> orphans = FindOrphans(census);
    Remains remains{};  // without the parts
};

Survey::Survey() {
    for (const auto& section : census.dead) remains.sections.push_back(section->Name());
    remains.locks = FindLocks(census, inUse);
    for (const Orphan& orphan : orphans) remains.workers.push_back(orphan.worker);
}

void Remove(Survey& survey, const Order& order) {
    const Census& census = survey.census;
    for (const auto& section : census.dead) {
        for (const OtherTask& task : section->Tasks()) {
            section->StoreStop(task.nTaskIndex, task.id);
        }
    }
    // Names after the end of the workers, which may have made them anew.
    Kill(survey.orphans);
    for (const auto& section : census.dead) section->Remove();
    // Ids and paths of the dead may have come into use meanwhile.
    const InUse inUse(ListTasks());
    RemoveNames(inUse, survey.remains);
    RemoveParts(census, inUse, order, survey.remains);
}

}  // namespace

Remains SweepDeadManagers(bool bLookOnly, bool bContinuable) {
    const Order order{bLookOnly, bContinuable};
    Survey survey;
    if (bLookOnly) {
        RemoveParts(survey.census, survey.inUse, order, survey.remains);
    } else {
        Remove(survey, order);
    }
    return std::move(survey.remains);
}
