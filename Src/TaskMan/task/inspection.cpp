#include "TaskMan/task/inspection.h"

#include "TaskMan/task/extended.h"
#include "TaskMan/task/scanner.h"
#include "TaskMan/task/start.h"
#include "TaskMan/task/throttle.h"
#include "TaskMan/taskman.h"
#include "TaskMan/timing.h"
#include "common/fieldtext.h"

namespace {

bool CarriesId(const tagTaskContext& slot, const Watch& watch) {
    return FieldView(slot.szTaskID) == watch.id;
}

// The scanner, which takes these codes, may be held up by another task's lock.
bool IsAnswered(const Watch& watch, const tagTaskContext& slot) {
    constexpr std::uint32_t answers =
        1U << DOWNLOAD_STATE_FILE_SIZE | 1U << DOWNLOAD_STATE_DOWNLOAD_START;
    return IsDownloadCommand(watch.nCmd) && (slot.nStateBits & answers) != 0;
}

// Stores the stop word, or finds that of another process.
void ExchangeStop(Watch& watch, tagTaskContext& slot, Clock::time_point now) {
    if (watch.stop.state == Stop::kNo && LoadControl(slot) == TASK_CONTROL_STOP) {
        watch.stop.Advance(Stop::kStored, now);
    } else if (watch.stop.state == Stop::kAsked) {
        StoreControl(slot, TASK_CONTROL_STOP);
        watch.stop.state = Stop::kStored;
    }
}

tagDownloadStateCode CodeForTheDead(const Watch& watch) {
    if (watch.stop.state != Stop::kNo) return DOWNLOAD_STATE_STOPPED;
    return watch.nCmd == TASK_CMD_PARSE ? DOWNLOAD_STATE_PARSE_FAIL : DOWNLOAD_STATE_DOWNLOAD_FAIL;
}

// Sets the final code for a worker that is dead without one.
void SpeakForTheDead(Watch& watch, tagTaskContext& slot, Clock::time_point now)
    TS_REQUIRES(g_watch_mutex) {
    const bool unclaimed = slot.nPid == -1;
    if (unclaimed && watch.killReason.empty() && watch.stop.state == Stop::kNo) {
        NoteFailedStart(now);
    }
    if (watch.remark.empty()) {
        watch.remark = !watch.killReason.empty()             ? watch.killReason
                       : g_WorkerPid[watch.nTaskIndex] == -1 ? "the worker could not be started"
                       : unclaimed ? "the worker ended before it took the task"
                                   : "the worker died";
    }
    // The scanner passes over a slot without the task's id; a worker may have damaged it.
    SetField(slot.szTaskID, watch.id);
    SetStateBit(slot, CodeForTheDead(watch));
    EndScannerPause();
}

// Whether the task was handed over to a worker that waited and has died without claiming it: at the
// end of its time, perhaps. Nobody knows yet how the task would have gone.
bool IsUnanswered(const Watch& watch, const tagTaskContext& slot) {
    return watch.bHandedOver && watch.worker.state == Worker::kGone && slot.nPid == -1 &&
           watch.stop.state == Stop::kNo;
}

// The look itself; the caller holds the task's lock.
void LookAtSlot(Watch& watch, Clock::time_point now) TS_REQUIRES(g_watch_mutex) {
    // From the moment in which the scanner has taken a final code the slot is the scanner's alone,
    // which clears it without this lock.
    if (g_TaskEndTaken[watch.nTaskIndex]) {
        watch.stage.Advance(Stage::kEnded, now);
        return;
    }
    tagTaskContext& slot = *SlotAt(g_VideoInfoSection, watch.nTaskIndex);
    const bool own = CarriesId(slot, watch);
    if (own && (slot.nStateBits & FINAL_STATE_BITS) != 0) {
        watch.stage.Advance(Stage::kEnded, now);
        return;
    }
    if (own) ExchangeStop(watch, slot, now);
    if (own) ExchangeRate(watch, slot);
    if (watch.worker.state >= Worker::kDead) {
        if (IsUnanswered(watch, slot) && StartAnew(watch)) return;
        SpeakForTheDead(watch, slot, now);
        watch.stage.Advance(Stage::kEnded, now);
        return;
    }
    if (slot.nPid == watch.process.Pid() && watch.stage.Advance(Stage::kClaimed, now)) {
        watch.request.clear();
    }
    if (own && IsAnswered(watch, slot)) watch.stage.Advance(Stage::kAnswered, now);
}

}  // namespace

void Inspect(Watch& watch, Clock::time_point now) {
    if (watch.lock.Try()) {
        watch.lockBusySince.reset();
        LookAtSlot(watch, now);
        watch.lock.Release();
        return;
    }
    if (!watch.lockBusySince) watch.lockBusySince = now;
    if (watch.worker.state < Worker::kDead || now - *watch.lockBusySince < timing::kAbandonedLock) {
        return;
    }
    // A dead holder cannot release the lock. It is released on its behalf and taken like by
    // everybody at the next look: a write without it would race with the scanner.
    watch.lockBusySince.reset();
    watch.lock.ReleaseForDead();
}
