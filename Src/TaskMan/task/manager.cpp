// The manager: owns the section, adds tasks, stops them, and ends in order.
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "TaskMan/section/ownsection.h"
#include "TaskMan/sweep/sweep.h"
#include "TaskMan/task/watch.h"
#include "TaskMan/taskman.h"
#include "common/AutoLock.h"
#include "common/thread.h"

std::int32_t g_mainpid = -1;
std::string g_AppDataPath;

ManagerPhase g_phase = ManagerPhase::kIdle;
std::string g_worker_path;
tagTaskLimits g_limits;

namespace {

using namespace std::chrono_literals;

constexpr auto kTasksPatience = 12s;    // for all tasks to end, kills included
constexpr auto kScannerPatience = 3s;   // for a scanner without tasks to end by itself
constexpr auto kShutdownPatience = 5s;  // for one that was told to: four passes
constexpr auto kWorkerPatience = 2s;    // for killed workers to be gone
constexpr auto kExitPatience = 30s;     // for an end that another thread is at: all of the above
constexpr auto kPoll = 20ms;

pthread_t g_supervisor{};

// The process that has started the manager: a child that is forked later has its memory, too.
std::atomic<pid_t> g_owner{-1};

// Polls until `condition` holds or `patience` has passed; returns whether it holds.
template <class Condition>
bool WaitFor(Clock::duration patience, Condition condition) {
    const Clock::time_point deadline = Clock::now() + patience;
    while (!condition()) {
        if (Clock::now() >= deadline) return false;
        std::this_thread::sleep_for(kPoll);
    }
    return true;
}

bool NoTaskLeft() {
    // Delivered tasks are out of the map. Its lock is not taken: who has it may wait for a task's.
    // A task may be delivered before its AddTask has returned, which uses the watch to its end.
    Threading::AutoLock hold(&g_watch_mutex);
    return std::all_of(std::begin(g_Watches), std::end(g_Watches), [](const Watch& watch) {
        return !watch.bUsed || (watch.bDelivered && watch.bStarted);
    });
}

// Waits for the scanner's end; whether it has ended.
bool ScannerEnded(std::chrono::milliseconds patience) {
    const Clock::time_point deadline = Clock::now() + patience;
    pthread_mutex_lock(&g_ScanThradIsExit_Lock);
    while (!g_ScanThradIsExit && Clock::now() < deadline) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        platform::WaitCondition(&g_ScanThradIsExit_Cond, &g_ScanThradIsExit_Lock,
                                static_cast<int>(std::max<std::int64_t>(left, 1)));
    }
    const bool ended = g_ScanThradIsExit;
    pthread_mutex_unlock(&g_ScanThradIsExit_Lock);
    return ended;
}

// Ends the scanner, by itself or because it is told to, and the supervisor, which would start one
// anew. Whether the scanner has ended.
bool EndThreads() {
    ScannerEnded(kScannerPatience);
    g_Exit = true;
    g_supervisor_ends = true;
    pthread_join(g_supervisor, nullptr);
    EndDiskWatch();
    return ScannerEnded(kShutdownPatience);
}

// Kills the workers that are still there and waits until they are gone.
void EndWorkers() {
    KillWorkers();
    WaitFor(kWorkerPatience, [] {
        Threading::AutoLock hold(&g_watch_mutex);
        return std::all_of(std::begin(g_Watches), std::end(g_Watches),
                           [](const Watch& watch) { return !watch.bUsed || watch.process.Gone(); });
    });
}

std::vector<Watch*> UsedWatches() {
    Threading::AutoLock hold(&g_watch_mutex);
    std::vector<Watch*> used;
    for (Watch& watch : g_Watches) {
        if (watch.bUsed) used.push_back(&watch);
    }
    return used;
}

// Ends the tasks that did not end in time, and frees what all have left. No other thread of the
// manager runs any more.
void ForgetTasks() {
    for (Watch* watch : UsedWatches()) {
        if (!watch->bDelivered) DeliverLast(*watch);
    }
    {
        Threading::AutoLock hold(&g_access_taskmap_mutex);
        for (const auto& [id, node] : g_TaskInfo_map) delete node;
        g_TaskInfo_map.clear();
    }
    CheckAndCalcTaskCount();
    Threading::AutoLock hold(&g_watch_mutex);
    for (Watch& watch : g_Watches) {
        if (watch.bUsed) FreeWatch(watch);
    }
}

// Starts the disk watch and the supervisor, both or none. Returns an error number.
int StartThreads() {
    if (const int error = StartDiskWatch(); error != 0) return error;
    g_supervisor_ends = false;
    const int error = StartThread(&g_supervisor, RunSupervisor, nullptr, false);
    if (error != 0) EndDiskWatch();
    return error;
}

bool IsEnding() {
    Threading::AutoLock hold(&g_watch_mutex);
    return g_phase == ManagerPhase::kEnding;
}

// The threads of a manager that nobody ended must not run on while statics are destroyed, nor may
// the process leave while another thread is at the end.
void EndBeforeExit() {
    static const int registered = std::atexit([] {
        if (g_owner != getpid() || EndTaskManager() == 0) return;
        WaitFor(kExitPatience, [] { return !IsEnding(); });
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
        strReason = SystemReason("cannot start the supervisor", error);
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
    if (watch == nullptr || watch->bDelivered) return -1;
    AskToStop(*watch);
    return 0;
}

void SetTaskLimits(const tagTaskLimits& limits) {
    Threading::AutoLock hold(&g_watch_mutex);
    g_limits = limits;
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
    return static_cast<int>(std::count_if(std::begin(g_Watches), std::end(g_Watches),
                                          [](const Watch& watch) { return !watch.bUsed; }));
}

void KillWorkers() {
    Threading::AutoLock hold(&g_watch_mutex);
    for (const Watch& watch : g_Watches) {
        if (watch.bUsed) watch.process.Signal(SIGKILL);
    }
}

int EndTaskManager() {
    {
        Threading::AutoLock hold(&g_watch_mutex);
        if (g_phase != ManagerPhase::kRunning) return -1;
        g_phase = ManagerPhase::kEnding;
        for (Watch& watch : g_Watches) {
            if (watch.bUsed && !watch.bDelivered) AskToStop(watch);
        }
    }
    WaitFor(kTasksPatience, NoTaskLeft);
    const bool scannerEnded = EndThreads();
    EndWorkers();
    if (!scannerEnded) {
        // It is stuck in a callback and still uses its nodes and the section, which stay. With
        // g_Exit it ends once the callback returns.
        for (const Watch* watch : UsedWatches()) sem_unlink(watch->id.c_str());
        RemoveSectionName();
    } else {
        ForgetTasks();
        RemoveSection();
        g_Exit = false;
        g_mainpid = -1;
    }
    Threading::AutoLock hold(&g_watch_mutex);
    g_phase = scannerEnded ? ManagerPhase::kIdle : ManagerPhase::kStuck;
    return scannerEnded ? 0 : -1;
}
