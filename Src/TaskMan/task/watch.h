// What the manager keeps about each task in hand.
//
// The scanner owns the nodes of the map; nothing else may hold on to one. Everybody else works on a
// watch: it has the handle of the task's semaphore, follows the worker process, and stands
// between the scanner and the application's callbacks. Watch i belongs to slot i, so that a slot is
// free exactly when its watch is: after the final callback has returned and the worker is gone, or
// waits for its next task.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "TaskMan/manager.h"
#include "TaskMan/task/channel.h"
#include "TaskMan/task/diskwatch.h"
#include "TaskMan/task/managerevent.h"
#include "TaskMan/task/tasklock.h"
#include "common/mutex.h"
#include "common/platform.h"
#include "common/threadsafety.h"

using Clock = std::chrono::steady_clock;

// How far a task is. The scanner's callbacks and the supervisor both move it on.
enum class Stage {
    kFree,       // the slot is free
    kEntered,    // AddTask has taken the slot; the worker has claimed nothing
    kClaimed,    // the worker has claimed the task
    kAnswered,   // the server has answered a download
    kEnded,      // a final code has been set, by the worker or for it
    kDelivered,  // the final callback has returned
};

// What became of the worker process. A quick one ends, and its task is delivered, before AddTask
// comes to look at it: so this is no part of the stage.
enum class Worker {
    kNotStarted,  // AddTask has not followed it yet; the supervisor passes over the watch
    kAlive,
    kKilled,  // by the supervisor
    kDead,    // killed, and held by the kernel: it runs no code any more
    kGone,    // ended, or never started
};

enum class Stop {
    kNo,
    kAsked,   // by the application or the disk watch
    kStored,  // the stop word is in the slot
};

// A state that only advances, and the time since when it holds.
template <class State>
struct StateSince {
    State state{};
    Clock::time_point since{};

    // Enters `next`. Returns false, and changes nothing, when that is not a later state.
    bool Advance(State next, Clock::time_point now) {
        if (next <= state) return false;
        state = next;
        since = now;
        return true;
    }
};

// What a task brings with it for its worker, which may get another task when that brings the same.
struct Traits {
    std::string origin{};  // scheme, host and port: there may be a connection
    // Its files other than the output, login, headers and proxy: its worker gives up all other
    // files, and nothing of one login is to be found where another one is used.
    std::string reach{};
    bool bNeedsFiles = false;  // more of them than a worker gets that waited for the task
    bool bKeeps = false;       // it keeps a record
};

struct Watch {
    StateSince<Stage> stage;  // kEntered counts from the start of the worker
    StateSince<Worker> worker;
    StateSince<Stop> stop;  // `since` the request, also when the word is stored later
    // Since when no attempt has got the lock; begins afresh with the worker's death.
    std::optional<Clock::time_point> lockBusySince;

    // When the supervisor is to look at the task next.
    Clock::time_point lookAt = Clock::time_point::max();

    std::string id;
    std::string path;     // output path without links; empty for none
    int nTaskIndex = -1;  // slot
    std::int32_t nTaskKind = -1;
    std::int32_t nCmd = -1;          // command of the task
    TaskLock lock;                   // which its node uses as well
    platform::ProcessWatch process;  // once the worker was started, the supervisor's to change

    // Of an extended task.
    bool bExtended = false;
    Channel channel;
    std::chrono::seconds answerLimit{0};  // of its download, once that is claimed; 0: none
    std::optional<tagTaskAnswer> answer;  // its worker's last one
    std::int32_t nRate = -1;              // what its slot is to hold in nReserved3
    std::string request;                  // its text, until the worker has claimed the task
    Traits traits;

    // Of a worker that may get further tasks.
    std::chrono::seconds stay{0};  // how long it waits for the next one; 0: it exits
    std::int32_t nTasks = 0;       // that it has got, this one included
    bool bHandedOver = false;      // it had another task before, and has not claimed this one
    bool bPassedOver = false;      // the supervisor has looked before the worker got the task
    std::int32_t nFinalCode = -1;  // the one that was delivered

    // The manager has ended while a file system held the start of the worker up: whoever is at that
    // frees the watch.
    bool bGivenUp = false;

    // The application's callbacks; set before the node enters the map, then only read.
    void* pCallbackParam = nullptr;
    TaskResultCallback pfnResultCallback = nullptr;
    TaskStateCallback pfnStateCallback = nullptr;

    FileAdvance advance;     // of its output file
    std::string killReason;  // why the worker was killed, if it was
    std::string remark;      // TaskRemark
};

// Guards all watches. Taken alone, or before a semaphore that is only tried; never held while a
// callback runs or anything waits. Only a start holds it for longer, over its sweep of what dead
// managers have left: no task is in hand then.
extern Threading::Mutex g_watch_mutex;
extern Watch g_Watches[TASK_SLOT_COUNT] TS_GUARDED_BY(g_watch_mutex);

// Whether tasks may be added, and the program that is started for each; guarded like the watches.
// An end that a callback has held up leaves the manager stuck: no other can be started.
enum class ManagerPhase { kIdle, kRunning, kEnding, kStuck };
extern ManagerPhase g_phase TS_GUARDED_BY(g_watch_mutex);
extern std::string g_worker_path TS_GUARDED_BY(g_watch_mutex);
extern tagTaskLimits g_limits TS_GUARDED_BY(g_watch_mutex);

// Set when a watch was delivered, started or freed, or the scanner has ended: the manager's end
// waits for these.
extern ManagerEvent g_end_event;

// Whether a slot has become free that SetSlotFreedCallback's function has not heard of.
extern bool g_slot_freed TS_GUARDED_BY(g_watch_mutex);

// The watch in use for `id`, or null.
Watch* FindWatch(const std::string& id) TS_REQUIRES(g_watch_mutex);

// The watches in use.
int UsedWatchCount() TS_REQUIRES(g_watch_mutex);

// Closes and removes the task's semaphore.
void RemoveLock(Watch& watch) TS_REQUIRES(g_watch_mutex);

// Does the same and frees the slot.
void FreeWatch(Watch& watch) TS_REQUIRES(g_watch_mutex);
