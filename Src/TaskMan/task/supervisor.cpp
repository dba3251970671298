#include "TaskMan/task/supervisor.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <mutex>
#include <utility>
#include <vector>

#include "TaskMan/task/idleworkers.h"
#include "TaskMan/task/inspection.h"
#include "TaskMan/task/scanner.h"
#include "TaskMan/task/throttle.h"
#include "TaskMan/taskman.h"
#include "TaskMan/timing.h"
#include "common/AutoLock.h"
#include "common/thread.h"

std::atomic<bool> g_supervisor_runs{false};

namespace {

constexpr Clock::time_point kNever = Clock::time_point::max();

pthread_t g_supervisor{};

// Made by the process that starts a manager: a child would share its parent's, and each would miss
// calls that the other has forgotten. Never destroyed: a scanner that is stuck in a callback may
// wake the supervisor at any time.
std::atomic<const platform::Waker*> g_waker{nullptr};
std::atomic<pid_t> g_waker_owner{-1};

std::mutex g_slot_callback_mutex;  // held while the callback runs
SlotFreedCallback g_slot_callback = nullptr;
void* g_slot_callback_param = nullptr;

// How long the worker may wait for its server, or to claim its task; 0: for ever.
std::chrono::seconds AnswerLimitOf(const Watch& watch) TS_REQUIRES(g_watch_mutex) {
    if (!IsDownloadCommand(watch.nCmd)) return std::chrono::seconds(g_limits.nPageSeconds);
    // The worker keeps the limits of the request itself, and tells which one it was.
    if (watch.bExtended && watch.stage.state == Stage::kClaimed) return watch.answerLimit;
    return std::chrono::seconds(g_limits.nAnswerSeconds);
}

constexpr const char* kNotTaken = "the worker did not take the task";

// What a living worker has to do next, by when, and what is said when it does not.
struct Limit {
    Clock::time_point until = kNever;
    const char* reason = "";
};

Limit LimitOf(const Watch& watch) TS_REQUIRES(g_watch_mutex) {
    Limit limit;
    const auto consider = [&](Clock::time_point since, Clock::duration patience,
                              const char* reason) {
        if (since + patience < limit.until) limit = {since + patience, reason};
    };
    if (watch.lockBusySince) {
        consider(*watch.lockBusySince, timing::kStuckLock, "the worker hung with the task's lock");
    }
    const std::chrono::seconds answer = AnswerLimitOf(watch);
    switch (watch.stage.state) {
        case Stage::kEntered:
            if (watch.bHandedOver) consider(watch.stage.since, timing::kHandOver, kNotTaken);
            [[fallthrough]];
        case Stage::kClaimed:
            if (answer.count() <= 0) break;
            consider(watch.stage.since, answer,
                     watch.stage.state == Stage::kClaimed ? TASK_REMARK_NO_ANSWER : kNotTaken);
            break;
        case Stage::kEnded:
        case Stage::kDelivered:
            consider(watch.stage.since, timing::kExitPatience, "");
            return limit;
        case Stage::kFree:
        case Stage::kAnswered:
            break;
    }
    if (watch.stop.state != Stop::kNo) {
        consider(watch.stop.since, timing::kStopPatience, "the worker did not stop by itself");
    }
    return limit;
}

// Notes the worker's death.
void FollowWorker(Watch& watch, Clock::time_point now) {
    const bool dead = watch.worker.state >= Worker::kDead;
    if (watch.worker.state < Worker::kGone && watch.process.Gone()) {
        // The kernel may reuse the pid once the worker is reaped: forget it. Keep -1, which records
        // that no process was made.
        std::atomic<pid_t>& pid = g_WorkerPid[watch.nTaskIndex];
        if (pid > 0) pid = 0;
        // The application may have blocked SIGCHLD.
        watch.process.Reap();
        watch.worker.Advance(Worker::kGone, now);
        EndScannerPause();
    } else if (watch.worker.state == Worker::kKilled &&
               now - watch.worker.since >= timing::kKillPatience) {
        watch.worker.Advance(Worker::kDead, now);
    }
    if (!dead && watch.worker.state >= Worker::kDead) watch.lockBusySince.reset();
}

Clock::time_point NextLook(const Watch& watch, Clock::time_point now) TS_REQUIRES(g_watch_mutex) {
    const bool silent = watch.worker.state >= Worker::kDead && watch.stage.state < Stage::kEnded;
    if (watch.lockBusySince || silent) return now + timing::kRetry;
    switch (watch.worker.state) {
        case Worker::kAlive:
            return std::min(now + timing::kLook, LimitOf(watch).until);
        case Worker::kKilled:
            return watch.worker.since + timing::kKillPatience;
        default:
            return kNever;
    }
}

// What a round of looks has found.
struct Round {
    Clock::time_point due = kNever;  // of the next one
    std::vector<platform::ProcessWatch> processes;
    std::vector<int> channels;
    bool bScannerNeeded = false;
    bool bSlotFreed = false;
};

// Looks at the tasks whose time has come and at those whose channels are among `told`; at all tasks
// when that is empty.
Round LookAround(const std::vector<int>& told) {
    Round round;
    Threading::AutoLock hold(&g_watch_mutex);
    const Clock::time_point now = Clock::now();
    MakeUpForPause(now);
    for (Watch& watch : g_Watches) {
        const bool concerned = watch.channel.IsAmong(told);
        if (concerned && watch.channel.Heard()) EndScannerPause();
        if (concerned || now >= watch.lookAt) watch.lookAt = Supervise(watch, now);
        round.due = std::min(round.due, watch.lookAt);
        watch.bPassedOver = watch.worker.state == Worker::kNotStarted;
        if (watch.bPassedOver) continue;
        if (watch.stage.state != Stage::kDelivered) round.bScannerNeeded = true;
        if (watch.worker.state != Worker::kGone) round.processes.push_back(watch.process);
        if (watch.channel.Awaited() != -1) round.channels.push_back(watch.channel.Awaited());
    }
    round.due =
        std::min(round.due, SuperviseIdleWorkers(now, told, round.processes, round.channels));
    if (g_refuse_until != Clock::time_point{}) {
        if (now >= g_refuse_until) {
            g_refuse_until = {};
            g_slot_freed = true;
        } else {
            round.due = std::min(round.due, g_refuse_until);
        }
    }
    round.bSlotFreed = std::exchange(g_slot_freed, false);
    return round;
}

int MillisecondsUntil(Clock::time_point due) {
    constexpr Clock::duration kLongest = std::chrono::hours(1);
    const Clock::time_point now = Clock::now();
    if (due <= now) return 0;
    const Clock::duration left = due == kNever ? kLongest : std::min(due - now, kLongest);
    return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(left).count());
}

void* RunSupervisor(void* /*argument*/) {
    std::vector<int> told;
    while (g_supervisor_runs) {
        Round round = LookAround(told);
        // One that found the map empty may have ended just when a task came.
        if (round.bScannerNeeded && !g_Exit && !StartScanner()) {
            round.due = std::min(round.due, Clock::now() + timing::kLook);
        }
        if (round.bSlotFreed) TellOfFreeSlot();
        told = platform::WaitForEnd(round.processes, *g_waker, MillisecondsUntil(round.due),
                                    round.channels);
    }
    return nullptr;
}

}  // namespace

int StartSupervisor() {
    if (g_waker_owner.exchange(getpid()) != getpid()) g_waker = new platform::Waker;
    g_supervisor_runs = true;
    const int error = StartThread(&g_supervisor, RunSupervisor, nullptr, false);
    if (error != 0) g_supervisor_runs = false;
    return error;
}

void EndSupervisor() {
    g_supervisor_runs = false;
    WakeSupervisor();
    pthread_join(g_supervisor, nullptr);
}

void WakeSupervisor() {
    if (const platform::Waker* waker = g_waker) waker->Wake();
}

void TellOfFreeSlot() {
    const std::lock_guard hold(g_slot_callback_mutex);
    if (g_slot_callback != nullptr) g_slot_callback(g_slot_callback_param);
}

void AskToStop(Watch& watch) {
    if (watch.stop.Advance(Stop::kAsked, Clock::now())) WakeSupervisor();
}

void SetSlotFreedCallback(SlotFreedCallback callback, void* param) {
    const std::lock_guard hold(g_slot_callback_mutex);
    g_slot_callback = callback;
    g_slot_callback_param = param;
}

Clock::time_point Supervise(Watch& watch, Clock::time_point now) {
    if (watch.worker.state == Worker::kNotStarted) return kNever;
    FollowWorker(watch, now);
    if (watch.worker.state == Worker::kGone && watch.stage.state == Stage::kDelivered) {
        FreeWatch(watch);
        return kNever;
    }
    if (KeepIfIdle(watch, now)) return kNever;
    Inspect(watch, now);
    if (watch.worker.state == Worker::kAlive) {
        const Limit limit = LimitOf(watch);
        if (now >= limit.until) {
            watch.killReason = limit.reason;
            watch.worker.Advance(Worker::kKilled, now);
            watch.process.Signal(SIGKILL);
        }
    }
    return NextLook(watch, now);
}

void MakeUpForPause(Clock::time_point now) {
    Clock::time_point due = kNever;
    for (const Watch& watch : g_Watches) due = std::min(due, watch.lookAt);
    if (due > now || now - due < timing::kPause) return;
    const Clock::duration late = now - due;
    for (Watch& watch : g_Watches) {
        for (Clock::time_point* since :
             {&watch.stage.since, &watch.worker.since, &watch.stop.since}) {
            *since = std::min(*since + late, now);
        }
        if (watch.lockBusySince) watch.lockBusySince = std::min(*watch.lockBusySince + late, now);
    }
}
