#include "TaskMan/task/diskwatch.h"

#include <utility>

#include "TaskMan/sweep/sweep.h"
#include "TaskMan/task/managerevent.h"
#include "TaskMan/task/supervisor.h"
#include "TaskMan/taskman.h"
#include "TaskMan/timing.h"
#include "common/AutoLock.h"
#include "common/file.h"
#include "common/thread.h"

namespace {

// Guards both flags, so that the thread does not decide to end just when StartDiskWatch decides to
// keep it. It is never destroyed: a thread that a file system holds may outlive all else at the
// exit.
Threading::Mutex& g_disk_watch_mutex = *new Threading::Mutex;
bool g_disk_watch_ends TS_GUARDED_BY(g_disk_watch_mutex) = false;
bool g_disk_watch_runs TS_GUARDED_BY(g_disk_watch_mutex) = false;
ManagerEvent g_wake_event;   // tells the thread to end
ManagerEvent g_ended_event;  // the thread has ended

// What a look at one task needs and finds: copies, because no lock is held during the look.
struct Look {
    std::string id;
    std::string path;
    pid_t pid = -1;
    double size = 0.0;
    FileAdvance advance;
    bool bLacksSpace = false;
};

// Copies what the look needs. Returns false when there is nothing to look at in that slot.
bool Prepare(int slot, Look& look) {
    Threading::AutoLock hold(&g_watch_mutex);
    const Watch& watch = g_Watches[slot];
    // The worker of an extended task sees to its file itself, and does not write it in order.
    const bool working = !watch.bExtended && (watch.stage.state == Stage::kClaimed ||
                                              watch.stage.state == Stage::kAnswered);
    if (!working || watch.worker.state == Worker::kGone || watch.stop.state != Stop::kNo ||
        watch.path.empty()) {
        return false;
    }
    look = {watch.id, watch.path, watch.process.Pid(), g_TaskFileSize[slot], watch.advance, false};
    return true;
}

void Perform(Look& look) {
    const bool again = NoteFile(
        look.advance, platform::LookAtOpenFile(look.pid, look.path, look.advance.last.nDescriptor));
    if (look.size <= 0.0 || (look.advance.bSpaceChecked && !again)) return;
    look.advance.bSpaceChecked = true;
    look.bLacksSpace = LacksSpace(look.path, look.size);
}

void Finish(const Look& look) {
    Threading::AutoLock hold(&g_watch_mutex);
    Watch* watch = FindWatch(look.id);
    if (watch == nullptr || watch->stage.state >= Stage::kEnded || watch->stop.state != Stop::kNo) {
        return;
    }
    // After a look that took long, the watch may be that of a later task with the same id.
    if (watch->process.Pid() != look.pid) return;
    watch->advance = look.advance;
    const std::int32_t most = g_limits.nStartsOver;
    if (look.bLacksSpace) {
        watch->remark = TASK_REMARK_NO_SPACE;
    } else if (most > 0 && look.advance.nStartsOver >= most) {
        watch->remark = TASK_REMARK_STARTS_OVER;
    } else {
        return;
    }
    AskToStop(*watch);
}

bool Runs() {
    Threading::AutoLock hold(&g_disk_watch_mutex);
    return g_disk_watch_runs;
}

// Whether the thread is to continue; if not, it counts as ended from now on.
bool Continues() {
    Threading::AutoLock hold(&g_disk_watch_mutex);
    if (g_disk_watch_ends) g_disk_watch_runs = false;
    return g_disk_watch_runs;
}

void* RunDiskWatch(void* /*argument*/) {
    while (Continues()) {
        for (int slot = 0; slot < TASK_SLOT_COUNT; ++slot) {
            Look look;
            if (!Prepare(slot, look)) continue;
            Perform(look);
            Finish(look);
        }
        SweepAgain(Clock::now());
        g_wake_event.Wait(Clock::now() + timing::kDiskLook);
    }
    g_ended_event.Set();
    return nullptr;
}

}  // namespace

bool NoteFile(FileAdvance& advance, const platform::OpenFile& now) {
    const platform::OpenFile last = std::exchange(advance.last, now);
    if (now.nPosition < 0) return false;
    if (now.nSize > advance.nBest) {
        advance.nBest = now.nSize;
        advance.nStartsOver = 0;
    }
    if (last.nPosition < 0 || now.nPosition > last.nPosition) return false;
    const bool written = now.nModifiedBefore != last.nModifiedAfter;
    if (now.nPosition == last.nPosition && !written) return false;
    ++advance.nStartsOver;
    return true;
}

int StartDiskWatch() {
    Threading::AutoLock hold(&g_disk_watch_mutex);
    g_disk_watch_ends = false;
    // A thread of the previous manager may still be blocked in a file system: it serves this one.
    if (g_disk_watch_runs) return 0;
    pthread_t thread{};
    const int error = StartThread(&thread, RunDiskWatch, nullptr, true);
    g_disk_watch_runs = error == 0;
    return error;
}

bool EndDiskWatch() {
    {
        Threading::AutoLock hold(&g_disk_watch_mutex);
        g_disk_watch_ends = true;
    }
    g_wake_event.Set();
    return g_ended_event.WaitUntil(Clock::now() + timing::kDiskWatchEnd, [] { return !Runs(); });
}
