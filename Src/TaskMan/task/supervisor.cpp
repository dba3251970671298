// The supervisor: sees to it that every task ends, whatever becomes of its worker.
//
// The scanner learns of a task's end only from a final code, and it waits for a task's lock without
// bound. A worker may die without that code, or with the lock. The supervisor follows the worker
// processes, so it can tell both; what it sets in a slot, the scanner handles like a worker's word.
#include <algorithm>
#include <array>
#include <csignal>
#include <thread>
#include <utility>

#include "TaskMan/task/watch.h"
#include "common/AutoLock.h"
#include "common/fieldtext.h"
#include "common/thread.h"

Threading::Mutex g_watch_mutex;
Watch g_Watches[TASK_SLOT_COUNT];
Clock::time_point g_refuse_until;
std::atomic<bool> g_supervisor_ends{false};

namespace {

using namespace std::chrono_literals;

constexpr auto kTick = 250ms;
constexpr auto kLateTick = 1s;  // a tick that is later than this comes after a pause
// Ticks in a row without the lock after which a dead worker must have been its holder. Living
// holders have it for the copy of one slot.
constexpr int kAbandonedTicks = 5;
constexpr int kStuckTicks = 20;      // without the lock: a living worker with it is stuck
constexpr auto kStopPatience = 10s;  // a size probe does not see the stop word
constexpr auto kExitPatience = 10s;  // after its final code a worker exits within a second
// The kernel may hold a killed worker for as long as a disk does not answer. It runs no code of its
// own any more then.
constexpr auto kKillPatience = 2s;

// So many workers that end before they take their task, within this time, are no accident: a
// program that cannot run would be started over and over. No task is accepted for as long again.
constexpr std::size_t kFailedStarts = 3;
constexpr auto kThrottleTime = 10s;
std::array<Clock::time_point, kFailedStarts> g_failed_starts TS_GUARDED_BY(g_watch_mutex);
std::size_t g_failed_start_count TS_GUARDED_BY(g_watch_mutex) = 0;

// Takes the task's lock if it is free.
bool TryLock(Watch& watch) {
    return sem_trywait(watch.lock) == 0;
}

void Unlock(Watch& watch) {
    sem_post(watch.lock);
}

// The slot as long as no final code was taken out of it; else null. The caller holds the task's
// lock.
tagTaskContext* OwnSlot(const Watch& watch) {
    return g_TaskEndTaken[watch.nTaskIndex] ? nullptr
                                            : SlotAt(g_VideoInfoSection, watch.nTaskIndex);
}

bool CarriesId(const tagTaskContext& slot, const Watch& watch) {
    return FieldView(slot.szTaskID) == watch.id;
}

void NoteEnded(Watch& watch, Clock::time_point now) {
    if (watch.bEnded) return;
    watch.bEnded = true;
    watch.endedAt = now;
}

void NoteClaim(Watch& watch, const tagTaskContext& slot, Clock::time_point now) {
    if (watch.bClaimed || slot.nPid != watch.process.Pid()) return;
    watch.bClaimed = true;
    watch.claimedAt = now;
}

// The scanner, which takes these codes, may be held up by another task's lock meanwhile.
void NoteAnswer(Watch& watch, const tagTaskContext& slot) {
    constexpr std::uint32_t answers =
        1U << DOWNLOAD_STATE_FILE_SIZE | 1U << DOWNLOAD_STATE_DOWNLOAD_START;
    if (CarriesId(slot, watch) && (slot.nStateBits & answers) != 0) watch.bAnswered = true;
}

void StoreStop(Watch& watch, tagTaskContext& slot) {
    if (!watch.bStopAsked || watch.bStopStored || !CarriesId(slot, watch)) return;
    StoreControl(slot, TASK_CONTROL_STOP);
    watch.bStopStored = true;
}

// Another process may have asked the task to stop, by the word in the slot.
void NoteStrangersStop(Watch& watch, const tagTaskContext& slot, Clock::time_point now) {
    if (watch.bStopAsked || !CarriesId(slot, watch) || LoadControl(slot) != TASK_CONTROL_STOP) {
        return;
    }
    watch.bStopAsked = watch.bStopStored = true;
    watch.stopAskedAt = now;
}

tagDownloadStateCode CodeForTheDead(const Watch& watch) {
    if (watch.bStopAsked) return DOWNLOAD_STATE_STOPPED;
    return watch.nCmd == TASK_CMD_PARSE ? DOWNLOAD_STATE_PARSE_FAIL : DOWNLOAD_STATE_DOWNLOAD_FAIL;
}

void NoteFailedStart(Clock::time_point now) TS_REQUIRES(g_watch_mutex) {
    g_failed_starts[g_failed_start_count++ % kFailedStarts] = now;
    if (g_failed_start_count < kFailedStarts) return;
    const Clock::time_point oldest = g_failed_starts[g_failed_start_count % kFailedStarts];
    if (now - oldest > kThrottleTime) return;
    g_refuse_until = now + kThrottleTime;
    g_failed_start_count = 0;
}

// Sets the final code for a worker that is gone without one.
void SpeakForTheDead(Watch& watch, tagTaskContext& slot, Clock::time_point now)
    TS_REQUIRES(g_watch_mutex) {
    const bool unclaimed = slot.nPid == -1;
    if (unclaimed && watch.killReason.empty() && !watch.bStopAsked) NoteFailedStart(now);
    if (watch.remark.empty()) {
        watch.remark = !watch.killReason.empty()             ? watch.killReason
                       : g_WorkerPid[watch.nTaskIndex] == -1 ? "the worker could not be started"
                       : unclaimed ? "the worker ended before it took the task"
                                   : "the worker died";
    }
    // The scanner passes over a slot without the task's id; a worker may have damaged it.
    SetField(slot.szTaskID, watch.id);
    SetStateBit(slot, CodeForTheDead(watch));
}

// Looks at the slot; the caller holds the task's lock.
void Inspect(Watch& watch, Clock::time_point now) TS_REQUIRES(g_watch_mutex) {
    tagTaskContext* slot = OwnSlot(watch);
    if (slot == nullptr ||
        (CarriesId(*slot, watch) && (slot->nStateBits & FINAL_STATE_BITS) != 0)) {
        NoteEnded(watch, now);
        return;
    }
    NoteStrangersStop(watch, *slot, now);
    if (watch.bDead) {
        SpeakForTheDead(watch, *slot, now);
        NoteEnded(watch, now);
    } else {
        NoteClaim(watch, *slot, now);
        NoteAnswer(watch, *slot);
        StoreStop(watch, *slot);
    }
}

// Whether the worker has waited for its server for longer than it may.
bool Unanswered(const Watch& watch, Clock::time_point now) TS_REQUIRES(g_watch_mutex) {
    const bool download = IsDownloadCommand(watch.nCmd);
    const std::chrono::seconds limit(download ? g_limits.nAnswerSeconds : g_limits.nPageSeconds);
    if (limit <= 0s || (download && watch.bAnswered)) return false;
    return now - watch.claimedAt >= limit;
}

// Why a living worker is to be killed now; null when it is not.
const char* Overdue(const Watch& watch, Clock::time_point now) TS_REQUIRES(g_watch_mutex) {
    if (watch.nMissed >= kStuckTicks) return "the worker hung with the task's lock";
    if (watch.bEnded) return now - watch.endedAt >= kExitPatience ? "" : nullptr;
    if (watch.bStopAsked && now - watch.stopAskedAt >= kStopPatience) {
        return "the worker did not stop by itself";
    }
    if (Unanswered(watch, now)) {
        return watch.bClaimed ? TASK_REMARK_NO_ANSWER : "the worker did not take the task";
    }
    return nullptr;
}

}  // namespace

Watch* FindWatch(const std::string& id) {
    for (Watch& watch : g_Watches) {
        if (watch.bUsed && watch.id == id) return &watch;
    }
    return nullptr;
}

void ForgetFailedStarts() {
    g_failed_start_count = 0;
    g_refuse_until = {};
}

void AskToStop(Watch& watch) {
    if (watch.bStopAsked) return;
    watch.bStopAsked = true;
    watch.stopAskedAt = Clock::now();
    if (!watch.bStarted || !TryLock(watch)) return;
    if (tagTaskContext* slot = OwnSlot(watch)) StoreStop(watch, *slot);
    Unlock(watch);
}

void FreeWatch(Watch& watch) {
    if (watch.lock != nullptr) {
        sem_close(watch.lock);
        // The scanner's lock has removed the name; a worker that came late has made it again.
        sem_unlink(watch.id.c_str());
    }
    g_WorkerPid[watch.nTaskIndex] = 0;
    watch = Watch{};
}

void Supervise(Watch& watch, Clock::time_point now) {
    if (!watch.bUsed || !watch.bStarted) return;
    if (!watch.bGone && watch.process.Gone()) {
        watch.bGone = true;
        // The system may give its number to another process; -1 stays: it tells of the start.
        std::atomic<pid_t>& pid = g_WorkerPid[watch.nTaskIndex];
        if (pid > 0) pid = 0;
    }
    if (!watch.bDead && (watch.bGone || (watch.bKilled && now - watch.killedAt >= kKillPatience))) {
        watch.bDead = true;
        watch.nMissed = 0;
    }
    if (watch.bGone && watch.bDelivered) {
        FreeWatch(watch);
        return;
    }
    if (TryLock(watch)) {
        watch.nMissed = 0;
        Inspect(watch, now);
        Unlock(watch);
    } else {
        ++watch.nMissed;
    }
    if (watch.bDead) {
        // A dead holder cannot release the lock. Its release is made up for, and the lock
        // taken like by everybody with the next tick: a write without it would race with the
        // scanner.
        if (watch.nMissed >= kAbandonedTicks) {
            watch.nMissed = 0;
            Unlock(watch);
        }
    } else if (const char* reason = Overdue(watch, now)) {
        if (watch.killReason.empty()) watch.killReason = reason;
        if (!std::exchange(watch.bKilled, true)) watch.killedAt = now;
        watch.process.Signal(SIGKILL);
    }
}

void MakeUpForPause(Clock::time_point last, Clock::time_point now) {
    const Clock::duration late = now - last - kTick;
    if (late < kLateTick) return;
    for (Watch& watch : g_Watches) {
        for (Clock::time_point* since :
             {&watch.claimedAt, &watch.stopAskedAt, &watch.endedAt, &watch.killedAt}) {
            *since = std::min(*since + late, now);
        }
    }
}

void StartScanner() {
    pthread_mutex_lock(&g_ScanThradIsExit_Lock);
    if (g_ScanThradIsExit) {
        g_ScanThradIsExit = StartThread(&g_ScanDataPid, StartScanData, nullptr, true) != 0;
    }
    pthread_mutex_unlock(&g_ScanThradIsExit_Lock);
}

void* RunSupervisor(void* /*argument*/) {
    Clock::time_point last = Clock::now();
    while (!g_supervisor_ends) {
        bool scannerNeeded = false;
        {
            Threading::AutoLock hold(&g_watch_mutex);
            const Clock::time_point now = Clock::now();
            MakeUpForPause(std::exchange(last, now), now);
            for (Watch& watch : g_Watches) {
                Supervise(watch, now);
                if (watch.bStarted && !watch.bDelivered) scannerNeeded = true;
            }
        }
        // One that found the map empty may have ended just when a task came.
        if (scannerNeeded && !g_Exit) StartScanner();
        std::this_thread::sleep_for(kTick);
    }
    return nullptr;
}
