// AddTask: gives a task its slot, its lock, its node in the map and its worker.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>
#include <string>

#include "TaskMan/section/ownsection.h"
#include "TaskMan/section/taskid.h"
#include "TaskMan/task/admission.h"
#include "TaskMan/task/counts.h"
#include "TaskMan/task/delivery.h"
#include "TaskMan/task/extended.h"
#include "TaskMan/task/idleworkers.h"
#include "TaskMan/task/scanner.h"
#include "TaskMan/task/start.h"
#include "TaskMan/task/supervisor.h"
#include "TaskMan/task/throttle.h"
#include "TaskMan/taskman.h"
#include "common/AutoLock.h"
#include "common/fieldtext.h"
#include "common/sysutility.h"

namespace {

// Why a task is refused, and whether it may be added again; kNone when it is not refused.
struct Refused {
    std::string reason;
    TaskRefusal kind = TaskRefusal::kNone;
};

Refused Never(std::string reason) {
    return {std::move(reason), TaskRefusal::kNever};
}

Refused Later(std::string reason) {
    return {std::move(reason), TaskRefusal::kLater};
}

bool PassesByItself(int error) {
    static constexpr int kShortages[] = {EAGAIN, ENOMEM, ENOSPC, EDQUOT,
                                         EMFILE, ENFILE, EINTR,  ENOBUFS};
    return std::find(std::begin(kShortages), std::end(kShortages), error) != std::end(kShortages);
}

// Whether workers can find the section. Other errors than ENOENT say nothing about the name.
bool SectionHasName() {
    const int descriptor = shm_open(SectionName(g_mainpid).c_str(), O_RDONLY, 0);
    if (descriptor == -1) return errno != ENOENT;
    close(descriptor);
    return true;
}

Refused NoSection() {
    return Never("the section has lost its name (RemoveIPC=?)");
}

// What an extended task has beyond others. A worker that may stay is told so by its request.
void ExtendWatch(Watch& watch, tagTaskRequest request) TS_REQUIRES(g_watch_mutex) {
    watch.bExtended = true;
    watch.answerLimit = AnswerLimit(request);
    watch.nRate = request.nRate;
    ++watch.nTasks;
    request.nStaySeconds = 0;
    if (IsDownloadCommand(watch.nCmd) && watch.nTasks < g_limits.nTasksPerWorker) {
        request.nStaySeconds = std::clamp(g_limits.nIdleSeconds, 0, 3600);
    }
    watch.stay = std::chrono::seconds(request.nStaySeconds);
    watch.request = EncodeRequest(request);
}

// A slot that is free, or why there is none.
Refused FindSlot(const std::string& id, const std::string& path, const Traits* traits,
                 Watch*& found) TS_REQUIRES(g_watch_mutex) {
    Fit best = Fit::kUnable;
    found = nullptr;
    for (int i = 0; i < TASK_SLOT_COUNT; ++i) {
        Watch& watch = g_Watches[i];
        if (watch.stage.state == Stage::kFree) {
            const Fit fit = FitOf(i, traits);
            if (found != nullptr && fit >= best) continue;
            found = &watch;
            best = fit;
            watch.nTaskIndex = i;
        } else if (IdsCollide(watch.id, id)) {
            return Later("the task id is in use");
        } else if (!path.empty() && watch.path == path) {
            return Later("another task writes this file");
        }
    }
    if (found == nullptr) return Later("all slots are taken");
    if (best <= Fit::kAble) {
        TakeIdleWorker(*found);
        return {};
    }
    // Whoever may get a worker that waits asks for this only when there is none.
    if (traits != nullptr && !SectionHasName()) return NoSection();
    DropIdleWorker(found->nTaskIndex);
    return {};
}

// Takes a free slot for the task, unless something is in its way.
Refused TakeSlot(const tagTaskInfo& taskinfo, const tagTaskRequest* request, Watch*& taken) {
    const std::string path = OutputPath(taskinfo);
    std::optional<Traits> traits;
    if (request != nullptr && IsDownloadCommand(taskinfo.nCmd)) {
        traits = TraitsOf(taskinfo, *request, path);
    }
    Threading::AutoLock hold(&g_watch_mutex);
    if (g_phase != ManagerPhase::kRunning) return Never("the task manager is not running");
    if (Clock::now() < g_refuse_until) return Later(REFUSED_FOR_NOW);
    if (!traits && !SectionHasName()) return NoSection();
    const std::string id = FieldText(taskinfo.szTaskID);
    Refused refused = FindSlot(id, path, traits ? &*traits : nullptr, taken);
    if (taken == nullptr || refused.kind != TaskRefusal::kNone) return refused;
    g_TaskFileSize[taken->nTaskIndex] = 0.0;
    g_TaskEndTaken[taken->nTaskIndex] = false;
    taken->stage.Advance(Stage::kEntered, Clock::now());
    taken->id = id;
    taken->path = path;
    taken->nCmd = taskinfo.nCmd;
    taken->nTaskKind = taskinfo.nTaskKind;
    taken->pCallbackParam = taskinfo.pCallbackParam;
    taken->pfnResultCallback = taskinfo.pfnResultCallback;
    taken->pfnStateCallback = taskinfo.pfnStateCallback;
    if (request != nullptr) {
        if (traits) taken->traits = std::move(*traits);
        ExtendWatch(*taken, *request);
    }
    return {};
}

// Makes the task's lock, which is taken then. Returns 0 or an error number.
int MakeLock(Watch& watch) {
    // The list of open semaphores that the system keeps has a lock that race detectors do not see.
    Threading::AutoLock hold(&g_watch_mutex);
    return watch.lock.Make(watch.id, watch.stay.count() > 0);
}

// Writes the request into the slot and enters the task into the map, all under the map lock: a
// scanner that finds the map empty clears all slots, and a counter must be raised before the
// scanner can lower it. `rate` goes into nReserved3. The semaphore is created under that lock, too,
// immediately before the slot shows its name: in between a sweep could take it for a dead
// manager's, or miss it after a crash. Returns 0; or an error number when the semaphore cannot be
// created, and the task is not entered then.
int EnterTask(Watch& watch, const tagTaskInfo& taskinfo, std::int32_t rate) {
    auto node = std::make_unique<tagTaskNode>(watch.id.c_str());
    static_cast<tagTaskInfo&>(*node) = taskinfo;
    node->nTaskIndex = watch.nTaskIndex;
    node->pCallbackParam = &watch;
    node->pfnResultCallback = DeliverResult;
    node->pfnStateCallback = DeliverState;
    tagTaskContext request = SlotOf(taskinfo);
    request.nReserved3 = rate;

    Threading::AutoLock tally(&g_tally_mutex);
    Threading::AutoLock map(&g_access_taskmap_mutex);
    if (const int error = MakeLock(watch); error != 0) return error;
    node->mutexLock =
        new Threading::Mutex(Threading::Mutex::Lent{watch.lock.Semaphore(), watch.id});
    CopySlot(SlotAt(g_VideoInfoSection, watch.nTaskIndex), &request);
    watch.lock.Release();
    g_TaskInfo_map.emplace(watch.id, node.release());
    Threading::AutoLock count(&g_access_taskcount_mutex);
    ++(IsParseJob(taskinfo.nCmd, taskinfo.nTaskKind) ? g_ParseCount : g_DownloadCount);
    ++g_TaskCount;
    return 0;
}

// Enters the task and gives it to a worker. An extended task has a request; that of a worker which
// is to be started is in its channel before anybody sees the task.
Refused Admit(const tagTaskInfo& taskinfo, const tagTaskRequest* request) {
    Watch* watch = nullptr;
    Refused refused = TakeSlot(taskinfo, request, watch);
    if (refused.kind != TaskRefusal::kNone || watch == nullptr) return refused;
    Descriptor channel;
    const char* failed = "cannot open the task's channel";
    int error = OpenChannel(*watch, channel);
    if (error == 0 && !StartScanner()) {
        // One that starts and finds no task ends; that it can be started is known then.
        failed = "cannot start the scanner thread";
        error = EAGAIN;
    }
    if (error == 0) {
        failed = "cannot create the task's lock";
        error = EnterTask(*watch, taskinfo, request == nullptr ? -1 : request->nRate);
    }
    if (error != 0) {
        Threading::AutoLock hold(&g_watch_mutex);
        if (watch->bHandedOver) DropWorker(*watch);
        FreeWatch(*watch);
        WakeSupervisor();
        refused = Later(sysutility::SystemFault(failed, error));
        if (!PassesByItself(error)) refused.kind = TaskRefusal::kNever;
        return refused;
    }
    StartScanner();
    GiveToWorker(*watch, channel);
    return {};
}

// Hands the outcome to the caller of AddTask.
int Outcome(Refused refused, std::string& strReason, TaskRefusal* refusal) {
    strReason = std::move(refused.reason);
    if (refusal != nullptr) *refusal = refused.kind;
    return refused.kind == TaskRefusal::kNone ? 0 : -1;
}

}  // namespace

int AddTask(const tagTaskInfo& taskinfo, std::string& strReason, TaskRefusal* refusal) {
    tagTaskInfo plain = taskinfo;
    // Its worker would wait for a request.
    if (plain.nReserved1 == TASK_EXTENDED) plain.nReserved1 = -1;
    std::string reason = RefusalOf(plain);
    Refused refused = reason.empty() ? Admit(plain, nullptr) : Never(std::move(reason));
    return Outcome(std::move(refused), strReason, refusal);
}

int AddTask(const tagTaskInfo& taskinfo, const tagTaskRequest& request, std::string& strReason,
            TaskRefusal* refusal) {
    tagTaskInfo extended = taskinfo;
    tagTaskRequest completed = request;
    std::string reason = RefusalOfExtended(extended, completed);
    Refused refused = reason.empty() ? Admit(extended, &completed) : Never(std::move(reason));
    return Outcome(std::move(refused), strReason, refusal);
}
