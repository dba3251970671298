// The manager: owns the section, adds tasks, stops them, and ends in order.
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <ctime>
#include <string>
#include <thread>

#include "TaskMan/ownsection.h"
#include "TaskMan/taskman.h"
#include "TaskMan/watch.h"
#include "common/AutoLock.h"
#include "common/thread.h"

std::int32_t g_mainpid = -1;
std::string g_AppDataPath;

ManagerPhase g_phase = ManagerPhase::kIdle;
std::string g_worker_path;

namespace {

using namespace std::chrono_literals;

constexpr auto kTasksPatience = 12s;    // for all tasks to end, kills included
constexpr auto kScannerPatience = 3s;   // for a scanner without tasks to end by itself
constexpr auto kShutdownPatience = 5s;  // for one that was told to: four passes
constexpr auto kWorkerPatience = 2s;    // for killed workers to be gone
constexpr auto kPoll = 20ms;

pthread_t g_supervisor{};

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
    {
        Threading::AutoLock hold(&g_access_taskmap_mutex);
        if (!g_TaskInfo_map.empty()) return false;
    }
    Threading::AutoLock hold(&g_watch_mutex);
    return std::all_of(std::begin(g_Watches), std::end(g_Watches),
                       [](const Watch& watch) { return !watch.bUsed || watch.bDelivered; });
}

// Waits for the scanner's end; whether it has ended.
bool ScannerEnded(std::chrono::seconds patience) {
    timespec deadline{};
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += patience.count();
    pthread_mutex_lock(&g_ScanThradIsExit_Lock);
    int error = 0;
    while (!g_ScanThradIsExit && error == 0) {
        error = pthread_cond_timedwait(&g_ScanThradIsExit_Cond, &g_ScanThradIsExit_Lock, &deadline);
    }
    const bool ended = g_ScanThradIsExit;
    pthread_mutex_unlock(&g_ScanThradIsExit_Lock);
    return ended;
}

// Whether the scanner has ended, by itself or because it was told to.
bool EndScanner() {
    if (ScannerEnded(kScannerPatience)) return true;
    g_Exit = true;
    const bool ended = ScannerEnded(kShutdownPatience);
    g_Exit = false;
    return ended;
}

// Kills the workers that are still there and waits until they are gone.
void EndWorkers() {
    const auto allGone = [] {
        Threading::AutoLock hold(&g_watch_mutex);
        return std::all_of(std::begin(g_Watches), std::end(g_Watches), [](const Watch& watch) {
            if (!watch.bUsed || watch.process.Gone()) return true;
            watch.process.Signal(SIGKILL);
            return false;
        });
    };
    WaitFor(kWorkerPatience, allGone);
}

// Frees what tasks have left that did not end in time.
void ForgetTasks() {
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
        strReason = "the task manager is running already";
        return -1;
    }
    g_mainpid = getpid();
    g_AppDataPath = directory;
    if (OpenSection(directory, strReason) != 0) return -1;
    g_worker_path = program;
    g_supervisor_ends = false;
    if (const int error = StartThread(&g_supervisor, RunSupervisor, nullptr, false); error != 0) {
        strReason = SystemReason("cannot start the supervisor", error);
        RemoveSection();
        return -1;
    }
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
    return static_cast<int>(std::count_if(std::begin(g_Watches), std::end(g_Watches),
                                          [](const Watch& watch) { return !watch.bUsed; }));
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
    const bool scannerEnded = EndScanner();
    g_supervisor_ends = true;
    pthread_join(g_supervisor, nullptr);
    EndWorkers();
    // A scanner that is stuck in a callback still uses its nodes and the section: they stay.
    if (scannerEnded) {
        ForgetTasks();
        RemoveSection();
    } else {
        RemoveSectionName();
    }
    g_mainpid = -1;
    Threading::AutoLock hold(&g_watch_mutex);
    g_phase = ManagerPhase::kIdle;
    return 0;
}
