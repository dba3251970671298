#include "Tarnwick/nexttask.h"

#include <memory>
#include <utility>

#include "Tarnwick/channel.h"
#include "Tarnwick/jobstate.h"
#include "common/fieldtext.h"
#include "common/platform.h"

#ifdef TASKMAN_REPORTS
const std::size_t WORKER_MEMORY_MOST = 1024 * 1024 * 1024;  // sanitizers take most of it
#else
const std::size_t WORKER_MEMORY_MOST = 8 * 1024 * 1024;
#endif

namespace {

// Writes the defaults where the record is: an assigned one would be filled, copied and wiped.
void Clear(tagTaskContext& slot) {
    std::construct_at(&slot);
}

// What the task has left in the process; its own memory it has freed itself.
void ForgetTask() {
    static_cast<tagTaskInfo&>(g_TaskInfo) = tagTaskInfo("");
    Clear(g_TaskConData);
    for (tagTaskContext& slot : g_TaskContext) {
        if (!FieldEmpty(slot.szTaskID)) Clear(slot);
    }
    g_HandedOver.clear();
    g_CurTaskContext_prt = nullptr;
    g_Exit = false;
}

}  // namespace

bool NextTask() {
    const std::chrono::seconds stay(std::exchange(g_StaySeconds, 0));
    if (stay.count() == 0) return false;
    ForgetTask();
    if (platform::PrivateMemory() > WORKER_MEMORY_MOST) return false;
    g_TaskID = AwaitTask(stay, g_HandedOver, g_RequestText, [] {
        if (g_Pool != nullptr) g_Pool->EndAll();
    });
    return !g_TaskID.empty();
}
