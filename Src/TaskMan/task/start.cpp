#include "TaskMan/task/start.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>

#include "TaskMan/partrecord.h"
#include "TaskMan/task/idleworkers.h"
#include "TaskMan/task/supervisor.h"
#include "TaskMan/taskman.h"
#include "common/AutoLock.h"
#include "common/fieldtext.h"
#include "common/thread.h"

Threading::Mutex g_start_tarnwick_mutex;

namespace {

// A child that is forked and executes nothing would keep the channels beyond the manager's death:
// the workers would go on.
void GiveChildrenNoChannel() {
    static const int registered = pthread_atfork(nullptr, nullptr, []() TS_NO_ANALYSIS {
        for (Watch& watch : g_Watches) watch.channel.Close();
        for (IdleWorker& idle : g_IdleWorkers) idle.channel.Close();
    });
    static_cast<void>(registered);
}

std::string WorkerPath() {
    Threading::AutoLock hold(&g_watch_mutex);
    return g_worker_path;
}

// The supervisor follows the worker from now on.
void FollowWorker(Watch& watch) TS_REQUIRES(g_watch_mutex) {
    const Clock::time_point now = Clock::now();
    watch.worker.Advance(Worker::kAlive, now);
    watch.lookAt = now;
    // A worker that hangs before claiming gets the same limit, counted from its start.
    if (watch.stage.state == Stage::kEntered) watch.stage.since = now;
}

// Frees a watch that the end of the manager has left to the start of its worker. Whether it did.
bool FreeIfGivenUp(Watch& watch) TS_REQUIRES(g_watch_mutex) {
    if (!watch.bGivenUp) return false;
    DropWorker(watch);
    FreeWatch(watch);
    WakeSupervisor();
    return true;
}

// Runs StartProgram on a thread of its own and waits for it. When no process could be made, the
// process id stays -1, and the supervisor ends the task like that of any dead worker.
void StartWorker(Watch& watch, const Descriptor& channel) {
    auto start = std::make_unique<tagStartParam>();
    SetField(start->szProgramPath, WorkerPath());
    SetField(start->szTaskID, watch.id);
    SetField(start->szTaskIndex, std::to_string(watch.nTaskIndex));
    SetField(start->szMainPid, std::to_string(g_mainpid));
    start->nChannel = channel.Get();
    std::atomic<pid_t>& pid = g_WorkerPid[watch.nTaskIndex];
    {
        Threading::AutoLock one(&g_start_tarnwick_mutex);
        pthread_t thread{};
        pid = -1;
        if ((!watch.bExtended || channel.IsOpen()) &&
            StartThread(&thread, StartProgram, start.get(), false) == 0) {
            static_cast<void>(start.release());
            pthread_join(thread, nullptr);
        }
    }
    {
        Threading::AutoLock hold(&g_watch_mutex);
        watch.process = platform::ProcessWatch(pid);
        if (!FreeIfGivenUp(watch)) FollowWorker(watch);
    }
    g_end_event.Set();
    WakeSupervisor();
}

// Starts a worker instead of the one that the watch has. Without a channel there is none.
void ReplaceWorker(Watch& watch) {
    {
        Threading::AutoLock hold(&g_watch_mutex);
        if (FreeIfGivenUp(watch)) return;
        DropWorker(watch);
        watch.nTasks = 1;
    }
    Descriptor channel;
    static_cast<void>(OpenChannel(watch, channel));
    StartWorker(watch, channel);
}

// Sends id and request to the worker, which waits for them, with the lock, by which it sees that it
// is the one that it has; and with what it cannot open once it has given up its rights: the partial
// file, and an empty record. No files where the system cannot lend a lock: there nobody gives up
// anything. False when the worker does not have the lock, or does not get all of it: a worker of
// the task's own is to be started.
bool HandOver(Watch& watch) {
    constexpr int flags = O_RDWR | O_CREAT | O_CLOEXEC | O_NONBLOCK;
    std::vector<int> files;
    Descriptor part;
    Descriptor record;
    {
        Threading::AutoLock hold(&g_watch_mutex);
        files.push_back(watch.lock.File());
        if (files.front() == -1 ? errno != ENOTSUP : !watch.lock.IsSame()) return false;
    }
    if (files.front() == -1) {
        files.clear();
    } else {
        part = Descriptor(open(watch.path.c_str(), flags, 0666));
        files.push_back(part.Get());
    }
    if (watch.traits.bKeeps && !files.empty()) {
        const std::string path = watch.path + PART_RECORD_ENDING;
        record = Descriptor(open(path.c_str(), flags | O_EXCL, 0600));
        files.push_back(record.Get());
    }
    if (std::count(files.begin(), files.end(), -1) > 0) return false;
    {
        Threading::AutoLock hold(&g_watch_mutex);
        const std::string text = TASK_CHANNEL_TASK + watch.id + "\r\n" + watch.request;
        if (watch.bGivenUp || watch.channel.Send(text, files) != 0) return false;
        FollowWorker(watch);
        // Else it waits for this worker already, and has seen to the scanner.
        if (watch.bPassedOver) WakeSupervisor();
    }
    g_end_event.Set();
    return true;
}

void* RunStartAnew(void* watch) {
    ReplaceWorker(*static_cast<Watch*>(watch));
    return nullptr;
}

}  // namespace

int OpenChannel(Watch& watch, Descriptor& workersEnd) {
    Threading::AutoLock hold(&g_watch_mutex);
    if (!watch.bExtended || watch.bHandedOver) return 0;
    GiveChildrenNoChannel();
    const int error = watch.channel.Open(workersEnd);
    return error == 0 ? watch.channel.Send(watch.request) : error;
}

void GiveToWorker(Watch& watch, const Descriptor& channel) {
    if (!watch.bHandedOver) {
        StartWorker(watch, channel);
    } else if (!HandOver(watch)) {
        ReplaceWorker(watch);
    }
}

bool StartAnew(Watch& watch) {
    const StateSince<Worker> before = std::exchange(watch.worker, {});
    watch.killReason.clear();
    pthread_t thread{};
    if (StartThread(&thread, RunStartAnew, &watch, true) == 0) return true;
    watch.worker = before;
    return false;
}
