#include "TaskMan/task/scanner.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <thread>

#include "TaskMan/task/counts.h"
#include "TaskMan/task/extended.h"
#include "TaskMan/task/supervisor.h"
#include "TaskMan/taskman.h"
#include "TaskMan/timing.h"
#include "common/AutoLock.h"
#include "common/assertion.h"
#include "common/fieldtext.h"
#include "common/stringutility.h"
#include "common/thread.h"

pthread_mutex_t g_ScanThradIsExit_Lock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_ScanThradIsExit_Cond = PTHREAD_COND_INITIALIZER;
bool g_ScanThradIsExit = true;
Threading::Mutex g_ScanThradIsExit_Mutex;
pthread_t g_ScanDataPid{};
std::atomic<double> g_TaskFileSize[TASK_SLOT_COUNT];
std::atomic<bool> g_TaskEndTaken[TASK_SLOT_COUNT];

namespace {

// Ends the pause early. One that is set during a pass ends the pause after that pass: what the pass
// has missed is seen by the next.
ManagerEvent g_pause_event;

// The pause between two passes. Without a supervisor nothing can end it early; and with g_Exit set
// the passes that remain are the time that workers have to end, so each pause is a full second.
void Pause() {
    if (!g_supervisor_runs || g_Exit) {
        sleep(1);
        return;
    }
    const Clock::time_point end = Clock::now() + timing::kPassPause;
    std::this_thread::sleep_for(timing::kPassFloor);
    g_pause_event.Wait(end);
    if (g_Exit) std::this_thread::sleep_until(end);
}

void Invariant(bool holds, const char* expression, int line = __builtin_LINE()) {
    assertion::Require(holds, "StartScanData", "Src/TaskMan/taskcontext", expression, line);
}

// What a state code means to the scanner.
struct Reaction {
    enum class Kind { kDropped, kInforms, kEnds };
    enum class Counts { kNone, kParseJob, kByKind };
    Kind kind = Kind::kDropped;
    Counts counts = Counts::kNone;
    double tagTaskContext::*value = nullptr;  // the slot's value that goes with it; null: 0.0
};

Reaction ReactionTo(int code) {
    using Kind = Reaction::Kind;
    using Counts = Reaction::Counts;
    switch (code) {
        case DOWNLOAD_STATE_PARSE_START:
        case DOWNLOAD_STATE_DOWNLOAD_START:
            return {Kind::kInforms, Counts::kNone, nullptr};
        case DOWNLOAD_STATE_PROGRESS:
            return {Kind::kInforms, Counts::kNone, &tagTaskContext::dProgress};
        case DOWNLOAD_STATE_SPEED:
            return {Kind::kInforms, Counts::kNone, &tagTaskContext::dSpeed};
        case DOWNLOAD_STATE_FILE_SIZE:
            return {Kind::kInforms, Counts::kNone, &tagTaskContext::dFileSize};
        case DOWNLOAD_STATE_PARSE_FINISH:
        case DOWNLOAD_STATE_PARSE_FAIL:
        case DOWNLOAD_STATE_INFO_TOO_LONG:
            return {Kind::kEnds, Counts::kParseJob, nullptr};
        case DOWNLOAD_STATE_DOWNLOAD_FINISH:
        case DOWNLOAD_STATE_DOWNLOAD_FAIL:
        case DOWNLOAD_STATE_STOPPED:
            return {Kind::kEnds, Counts::kByKind, nullptr};
        default:
            return {};
    }
}

class Scanner {
  public:
    // Works passes until the scanner is to end.
    void Run() {
        while (Pass()) Pause();
    }

  private:
    // One task of the pass. The node stays valid: only the scanner frees nodes.
    struct Visit {
        std::string id;
        tagTaskNode* node;
        std::int32_t nCmd;
        std::int32_t nTaskKind;
    };

    // False when the scanner is to end.
    bool Pass() {
        Invariant(g_VideoInfoSection.hPrt != nullptr, "0");
        if (ClearedEmptySection()) return false;
        if (g_Exit && ++shutdown_passes_ > timing::kShutdownPasses) return false;
        for (const auto& [id, node] : SnapshotMap()) VisitTask(id, *node);
        return EndOfPass();
    }

    bool EndOfPass() {
        if (!g_Exit) {
            shutdown_passes_ = 0;
        } else if (shutdown_passes_ > timing::kShutdownPasses) {
            return false;
        }
        Threading::AutoLock hold(&g_access_taskcount_mutex);
        const bool sound = static_cast<std::uint32_t>(g_TaskCount) <= TASK_SLOT_COUNT;
        hold.UnLock();
        Invariant(sound, "false");
        return true;
    }

    // With no task left, zeroes the counters and all slots.
    static bool ClearedEmptySection() {
        Threading::AutoLock hold(&g_access_taskmap_mutex);
        if (!g_TaskInfo_map.empty()) return false;
        {
            Threading::AutoLock count(&g_access_taskcount_mutex);
            g_TaskCount = g_ParseCount = g_DownloadCount = 0;
        }
        std::memset(g_VideoInfoSection.hPrt, 0, TASK_COMMDATA_OFFSET);
        return true;
    }

    static std::map<std::string, tagTaskNode*> SnapshotMap() {
        std::map<std::string, tagTaskNode*> tasks;
        Threading::AutoLock hold(&g_access_taskmap_mutex);
        for (const auto& [id, node] : g_TaskInfo_map) {
            Invariant(node != nullptr, "NULL != Node");
            std::string trimmed = strutil::trim(FieldText(node->szTaskID));
            if (!trimmed.empty()) tasks.emplace(std::move(trimmed), node);
        }
        return tasks;
    }

    void VisitTask(const std::string& id, tagTaskNode& node) {
        if (static_cast<std::uint32_t>(node.nTaskIndex) >= TASK_SLOT_COUNT) {
            node.nTaskIndex = TASK_SLOT_COUNT - 1;
        }
        const Visit visit{id, &node, node.nCmd, node.nTaskKind};
        tagTaskContext* live = SlotAt(g_VideoInfoSection, node.nTaskIndex);
        Invariant(live != nullptr, "NULL != pTask");
        Invariant(node.mutexLock != nullptr, "NULL != Node->mutexLock");
        if (!TakeReports(visit, *live)) return;
        KeepAnswer(node.nTaskIndex, snapshot_);
        for (int code = 0; code < 32; ++code) {
            if ((snapshot_.nStateBits >> code & 1U) != 0 && !Handle(visit, *live, code)) return;
        }
    }

    // Copies the slot and clears its bits. Returns false when there are none, or the slot carries
    // another id: it is left as it is then, and the next pass looks again.
    bool TakeReports(const Visit& visit, tagTaskContext& live) {
        Threading::AutoLock hold(visit.node->mutexLock);
        if (live.nStateBits == 0 && live.bStateChanged == 0) return false;
        CopySlot(&snapshot_, &live);
        if (strutil::trim(FieldText(snapshot_.szTaskID)) != visit.id) return false;
        live.bStateChanged = 0;
        live.nStateBits = 0;
        if ((snapshot_.nStateBits >> DOWNLOAD_STATE_FILE_SIZE & 1U) != 0) {
            g_TaskFileSize[visit.node->nTaskIndex] = snapshot_.dFileSize;
        }
        if ((snapshot_.nStateBits & FINAL_STATE_BITS) != 0) {
            g_TaskEndTaken[visit.node->nTaskIndex] = true;
        }
        return true;
    }

    // Acts on one code. False when it ended the task.
    bool Handle(const Visit& visit, tagTaskContext& live, int code) {
        const Reaction reaction = ReactionTo(code);
        switch (reaction.kind) {
            case Reaction::Kind::kDropped:
                return true;
            case Reaction::Kind::kInforms:
                CallState(visit.node->pfnStateCallback, visit.node->pCallbackParam, visit, code,
                          reaction.value == nullptr ? 0.0 : snapshot_.*reaction.value);
                return true;
            case Reaction::Kind::kEnds:
                End(visit, live, code, reaction.counts);
                return false;
        }
        return true;
    }

    // Retires the task and calls back with its final code. The node is gone before the callback.
    void End(const Visit& visit, tagTaskContext& live, int code, Reaction::Counts counts) {
        std::string text;
        if (code == DOWNLOAD_STATE_PARSE_FINISH) text = FieldText(snapshot_.szVideoInfo);
        const auto length = static_cast<std::uint32_t>(text.size());
        text.append(2, '\0');  // the text is followed by two zero bytes
        void* param = visit.node->pCallbackParam;
        const TaskStateCallback onState = visit.node->pfnStateCallback;
        const TaskResultCallback onResult = visit.node->pfnResultCallback;
        {
            Threading::AutoLock tally(&g_tally_mutex);
            Remove(visit, live);
            LowerCounters(visit, counts);
        }
        if (code == DOWNLOAD_STATE_PARSE_FINISH) {
            if (onResult != nullptr) {
                onResult(param, visit.id.c_str(), code, text.data(), length);
            }
            return;
        }
        const bool marked = code == DOWNLOAD_STATE_DOWNLOAD_FINISH && visit.nTaskKind == 1;
        CallState(onState, param, visit, code, marked ? -1.0 : 0.0);
    }

    void Remove(const Visit& visit, tagTaskContext& live) {
        Threading::AutoLock hold(&g_access_taskmap_mutex);
        std::memset(static_cast<void*>(&snapshot_), 0, TASK_SLOT_SIZE);
        {
            Threading::AutoLock task(visit.node->mutexLock);
            std::memset(static_cast<void*>(&live), 0, TASK_SLOT_SIZE);
        }
        const auto found = g_TaskInfo_map.find(visit.id);
        if (found == g_TaskInfo_map.end()) return;
        delete found->second;
        g_TaskInfo_map.erase(found);
    }

    static void LowerCounters(const Visit& visit, Reaction::Counts counts) {
        const bool parse =
            counts == Reaction::Counts::kParseJob || IsParseJob(visit.nCmd, visit.nTaskKind);
        Invariant(parse || IsDownloadJob(visit.nCmd, visit.nTaskKind), "false");
        Threading::AutoLock hold(&g_access_taskcount_mutex);
        --(parse ? g_ParseCount : g_DownloadCount);
        --g_TaskCount;
    }

    static void CallState(TaskStateCallback callback, void* param, const Visit& visit, int code,
                          double value) {
        if (callback != nullptr) callback(param, visit.id.c_str(), code, value, visit.nTaskKind);
    }

    tagTaskContext snapshot_;  // the slot that is being worked on
    int shutdown_passes_ = 0;  // passes begun in a row with g_Exit set
};

}  // namespace

void* StartScanData(void* /*arg*/) {
    {
        Scanner scanner;
        scanner.Run();
    }
    pthread_mutex_lock(&g_ScanThradIsExit_Lock);
    g_ScanThradIsExit = true;
    // Under the lock: when it is released, a waiter may end the manager and the process.
    g_end_event.Set();
    WakeSupervisor();
    pthread_mutex_unlock(&g_ScanThradIsExit_Lock);
    pthread_cond_broadcast(&g_ScanThradIsExit_Cond);
    pthread_exit(nullptr);
}

bool StartScanner() {
    pthread_mutex_lock(&g_ScanThradIsExit_Lock);
    if (g_ScanThradIsExit) {
        g_ScanThradIsExit = StartThread(&g_ScanDataPid, StartScanData, nullptr, true) != 0;
    }
    const bool runs = !g_ScanThradIsExit;
    pthread_mutex_unlock(&g_ScanThradIsExit_Lock);
    return runs;
}

void EndScannerPause() {
    g_pause_event.Set();
}

bool ScannerRuns() {
    pthread_mutex_lock(&g_ScanThradIsExit_Lock);
    const bool runs = !g_ScanThradIsExit;
    pthread_mutex_unlock(&g_ScanThradIsExit_Lock);
    return runs;
}
