// The start and the end of the manager, and what an application asks of it in between.
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

#include "TaskMan/section/ownsection.h"
#include "TaskMan/sweep/sweep.h"
#include "TaskMan/task/delivery.h"
#include "TaskMan/task/diskwatch.h"
#include "TaskMan/task/idleworkers.h"
#include "TaskMan/task/managerevent.h"
#include "TaskMan/task/scanner.h"
#include "TaskMan/task/supervisor.h"
#include "TaskMan/task/throttle.h"
#include "TaskMan/taskman.h"
#include "TaskMan/timing.h"
#include "common/AutoLock.h"
#include "common/sysutility.h"

std::int32_t g_mainpid = -1;
std::string g_AppDataPath;

namespace {

// The process that has started the manager. A child that it forks has this memory, too, but must
// not end its manager.
std::atomic<pid_t> g_owner{-1};

// Set when EndTaskManager is done, for an exit() that waits for it on another thread.
ManagerEvent g_ending_over_event;

bool EveryWatch(bool (*condition)(const Watch& watch)) {
    Threading::AutoLock hold(&g_watch_mutex);
    return std::all_of(std::begin(g_Watches), std::end(g_Watches), condition);
}

// Looks at the watches, not at the map: the holder of the map lock may be waiting for a task's
// lock. A task can be delivered while AddTask still works on its watch: it counts until that is
// done.
bool NoTaskLeft() {
    return EveryWatch([](const Watch& watch) {
        return watch.stage.state == Stage::kFree || (watch.stage.state == Stage::kDelivered &&
                                                     watch.worker.state != Worker::kNotStarted);
    });
}

bool IsQuiet() {
    if (ScannerRuns()) return false;
    Threading::AutoLock hold(&g_watch_mutex);
    return UsedWatchCount() == 0 && NoIdleWorkers();
}

// Ends the threads. The supervisor is the first: it would start the scanner anew. Returns whether
// the scanner has ended.
bool EndThreads() {
    g_Exit = true;
    EndSupervisor();
    EndDiskWatch();
    return g_end_event.WaitUntil(Clock::now() + timing::kScannerEnd, [] { return !ScannerRuns(); });
}

std::vector<Watch*> UsedWatches() {
    Threading::AutoLock hold(&g_watch_mutex);
    std::vector<Watch*> used;
    for (Watch& watch : g_Watches) {
        if (watch.stage.state != Stage::kFree) used.push_back(&watch);
    }
    return used;
}

// Kills and reaps the workers that are still there. The supervisor has ended: nobody else changes
// the watches.
void EndWorkers() {
    KillWorkers();
    for (Watch* watch : UsedWatches()) {
        Threading::AutoLock hold(&g_watch_mutex);
        // A file system keeps its worker, one that waited, from the task.
        if (watch->worker.state == Worker::kNotStarted) DropWorker(*watch);
    }
    const platform::Waker nobody;
    const Clock::time_point deadline = Clock::now() + timing::kWorkersEnd;
    for (;;) {
        std::vector<platform::ProcessWatch> left;
        for (const Watch* watch : UsedWatches()) {
            if (!watch->process.Gone()) left.push_back(watch->process);
            watch->process.Reap();
        }
        {
            Threading::AutoLock hold(&g_watch_mutex);
            std::vector<int> channels;
            SuperviseIdleWorkers(Clock::now(), {}, left, channels);
        }
        const auto wait = std::chrono::ceil<timing::Milliseconds>(deadline - Clock::now());
        if (left.empty() || wait.count() <= 0) return;
        platform::WaitForEnd(left, nobody, static_cast<int>(wait.count()));
    }
}

// Delivers a final code for each task that did not end in time, and frees all nodes and watches. No
// other thread of the manager runs any more.
void ForgetTasks() {
    for (Watch* watch : UsedWatches()) {
        if (watch->stage.state != Stage::kDelivered) DeliverLast(*watch);
    }
    {
        Threading::AutoLock hold(&g_access_taskmap_mutex);
        for (const auto& [id, node] : g_TaskInfo_map) delete node;
        g_TaskInfo_map.clear();
    }
    CheckAndCalcTaskCount();
    Threading::AutoLock hold(&g_watch_mutex);
    for (Watch& watch : g_Watches) {
        if (watch.stage.state == Stage::kFree) continue;
        if (watch.worker.state == Worker::kNotStarted) {
            watch.bGivenUp = true;
            RemoveLock(watch);
        } else {
            FreeWatch(watch);
        }
    }
}

// Starts the disk watch and the supervisor, both or none. Returns an error number.
int StartThreads() {
    if (const int error = StartDiskWatch(); error != 0) return error;
    const int error = StartSupervisor();
    if (error != 0) EndDiskWatch();
    return error;
}

bool IsEnding() {
    Threading::AutoLock hold(&g_watch_mutex);
    return g_phase == ManagerPhase::kEnding;
}

// On exit() without EndTaskManager, ends the manager before static objects are destroyed; when
// another thread is ending it, waits for that.
void EndBeforeExit() {
    static const int registered = std::atexit([] {
        if (g_owner != getpid() || EndTaskManager() == 0) return;
        g_ending_over_event.WaitUntil(Clock::now() + timing::kExitOfProcess,
                                      [] { return !IsEnding(); });
    });
    static_cast<void>(registered);
}

}  // namespace

int StartTaskManager(const char* szWorkerPath, const char* szInfoDirectory,
                     std::string& strReason) {
    const std::string program = szWorkerPath;
    const std::string directory = szInfoDirectory;
    if (program.empty() || program.size() >= sizeof(tagStartParam::szProgramPath)) {
        strReason = "the worker's path is empty or longer than 1023 bytes";
        return -1;
    }
    if (directory.size() >= TASK_COMMDATA_SIZE) {
        strReason = "the directory of the info files is longer than 1024 bytes";
        return -1;
    }
    Threading::AutoLock hold(&g_watch_mutex);
    if (g_phase != ManagerPhase::kIdle) {
        strReason = g_phase == ManagerPhase::kStuck
                        ? "an earlier task manager waits for a callback that does not return"
                        : "the task manager is running already";
        return -1;
    }
    BeginSweep(Clock::now());
    g_mainpid = getpid();
    g_AppDataPath = directory;
    if (OpenSection(directory, strReason) != 0) {
        g_mainpid = -1;
        return -1;
    }
    g_worker_path = program;
    if (const int error = StartThreads(); error != 0) {
        strReason = sysutility::SystemFault("cannot start the threads of the task manager", error);
        RemoveSection();
        g_mainpid = -1;
        return -1;
    }
    ForgetFailedStarts();
    g_Exit = false;
    g_owner = getpid();
    EndBeforeExit();
    g_phase = ManagerPhase::kRunning;
    return 0;
}

int StopTask(const char* szTaskID) {
    Threading::AutoLock hold(&g_watch_mutex);
    Watch* watch = FindWatch(szTaskID);
    if (watch == nullptr || watch->stage.state == Stage::kDelivered) return -1;
    AskToStop(*watch);
    return 0;
}

void SetTaskLimits(const tagTaskLimits& limits) {
    Threading::AutoLock hold(&g_watch_mutex);
    g_limits = limits;
    WakeSupervisor();
}

std::string TaskRemark(const char* szTaskID) {
    Threading::AutoLock hold(&g_watch_mutex);
    const Watch* watch = FindWatch(szTaskID);
    return watch == nullptr ? std::string() : watch->remark;
}

double TaskFileSize(const char* szTaskID) {
    Threading::AutoLock hold(&g_watch_mutex);
    const Watch* watch = FindWatch(szTaskID);
    return watch == nullptr ? 0.0 : g_TaskFileSize[watch->nTaskIndex].load();
}

int FreeSlotCount() {
    Threading::AutoLock hold(&g_watch_mutex);
    if (g_phase != ManagerPhase::kRunning || Clock::now() < g_refuse_until) return 0;
    return TASK_SLOT_COUNT - UsedWatchCount();
}

void KillWorkers() {
    Threading::AutoLock hold(&g_watch_mutex);
    for (Watch& watch : g_Watches) {
        // The process may end before their tasks do.
        watch.lock.Unkeep();
        const Worker state = watch.worker.state;
        if (state == Worker::kNotStarted) continue;
        // Nor does another process get the task of one that has not claimed it.
        watch.bHandedOver = false;
        if (state != Worker::kGone) watch.process.Signal(SIGKILL);
    }
    DropIdleWorkers();
    WakeSupervisor();
}

int EndTaskManager() {
    {
        Threading::AutoLock hold(&g_watch_mutex);
        if (g_phase != ManagerPhase::kRunning) return -1;
        g_phase = ManagerPhase::kEnding;
        for (Watch& watch : g_Watches) {
            if (watch.stage.state != Stage::kFree) AskToStop(watch);
        }
        DropIdleWorkers();
        WakeSupervisor();
    }
    g_end_event.WaitUntil(Clock::now() + timing::kTasksEnd, NoTaskLeft);
    // With no task left the scanner ends by itself, and workers exit after their final code.
    EndScannerPause();
    g_end_event.WaitUntil(Clock::now() + timing::kQuietEnd, IsQuiet);
    const bool scannerEnded = EndThreads();
    EndWorkers();
    if (!scannerEnded) {
        // The scanner is stuck in a callback and still uses its nodes and the section: both stay.
        // g_Exit stays set, so that it ends when the callback returns.
        for (const Watch* watch : UsedWatches()) sem_unlink(watch->id.c_str());
        RemoveSectionName();
    } else {
        ForgetTasks();
        RemoveSection();
        g_Exit = false;
        g_mainpid = -1;
    }
    {
        Threading::AutoLock hold(&g_watch_mutex);
        g_phase = scannerEnded ? ManagerPhase::kIdle : ManagerPhase::kStuck;
    }
    g_ending_over_event.Set();
    return scannerEnded ? 0 : -1;
}
