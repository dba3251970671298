#include "TaskMan/task/watch.h"

#include <algorithm>

#include "TaskMan/taskman.h"

Threading::Mutex g_watch_mutex;
Watch g_Watches[TASK_SLOT_COUNT];
ManagerPhase g_phase = ManagerPhase::kIdle;
std::string g_worker_path;
tagTaskLimits g_limits;
ManagerEvent g_end_event;
bool g_slot_freed = false;

Watch* FindWatch(const std::string& id) {
    for (Watch& watch : g_Watches) {
        if (watch.stage.state != Stage::kFree && watch.id == id) return &watch;
    }
    return nullptr;
}

int UsedWatchCount() {
    return static_cast<int>(
        std::count_if(std::begin(g_Watches), std::end(g_Watches),
                      [](const Watch& watch) { return watch.stage.state != Stage::kFree; }));
}

void RemoveLock(Watch& watch) {
    if (!watch.lock.IsOpen()) return;
    watch.lock.Close();
    // The scanner's lock has removed the name; a worker that came late has made it again.
    sem_unlink(watch.id.c_str());
}

void FreeWatch(Watch& watch) {
    RemoveLock(watch);
    g_WorkerPid[watch.nTaskIndex] = 0;
    watch = Watch{};
    g_slot_freed = true;
    g_end_event.Set();
}
