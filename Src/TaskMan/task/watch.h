// What the manager keeps about each task in hand.
//
// The scanner owns the nodes of the map; nothing else may hold on to one. Everybody else works on a
// watch: it has a handle of its own on the task's semaphore, follows the worker process, and stands
// between the scanner and the application's callbacks. Watch i belongs to slot i, so that a slot is
// free exactly when its watch is: after the final callback has returned and the worker is gone.
#pragma once

#include <semaphore.h>

#include <chrono>
#include <string>

#include "TaskMan/task/diskwatch.h"
#include "TaskMan/taskman.h"
#include "common/mutex.h"
#include "common/platform.h"
#include "common/threadsafety.h"

using Clock = std::chrono::steady_clock;

struct Watch {
    bool bUsed = false;     // the slot is taken
    bool bStarted = false;  // the worker's start has been tried: `process` is valid
    std::string id;
    std::string path;     // output path without links; empty for none
    int nTaskIndex = -1;  // slot
    std::int32_t nTaskKind = -1;
    std::int32_t nCmd = -1;  // command of the task
    sem_t* lock = nullptr;   // the task's semaphore
    platform::ProcessWatch process;

    // The application's callbacks; set before the node enters the map, then only read.
    void* pCallbackParam = nullptr;
    TaskResultCallback pfnResultCallback = nullptr;
    TaskStateCallback pfnStateCallback = nullptr;

    bool bClaimed = false;        // the worker has taken the task
    bool bAnswered = false;       // the server has answered a download
    bool bStopAsked = false;      // the application wants the task to stop
    bool bStopStored = false;     // the stop word is in the slot
    bool bEnded = false;          // a final code has been set, by the worker or for it
    bool bDelivered = false;      // the final callback has returned
    bool bKilled = false;         // the supervisor has killed the worker
    bool bDead = false;           // it is gone, or killed and runs no code any more
    bool bGone = false;           // the worker process has ended
    int nMissed = 0;              // ticks in a row in which the lock was not to be had; begins
                                  // afresh with the worker's death
    Clock::time_point claimedAt;  // until it has: when the worker was started
    Clock::time_point stopAskedAt;
    Clock::time_point endedAt;
    Clock::time_point killedAt;
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

// Until when no task is accepted, because workers end before they take their task; and what is said
// then.
extern Clock::time_point g_refuse_until TS_GUARDED_BY(g_watch_mutex);
constexpr const char* REFUSED_FOR_NOW =
    "three workers ended before they took their task; no new one for ten seconds";

// Has AddTask accept tasks, whatever became of earlier ones.
void ForgetFailedStarts() TS_REQUIRES(g_watch_mutex);

// The watch in use for `id`, or null.
Watch* FindWatch(const std::string& id) TS_REQUIRES(g_watch_mutex);

// Notes that the task is to stop and stores the stop word if the lock can be had at once; otherwise
// the supervisor stores it at one of its next ticks.
void AskToStop(Watch& watch) TS_REQUIRES(g_watch_mutex);

// Calls the application back in the scanner's place, with the final code that its worker has left
// in the slot, else with code 8. For when neither scanner nor worker runs any more.
void DeliverLast(Watch& watch);

// Closes and removes the task's semaphore and frees the slot.
void FreeWatch(Watch& watch) TS_REQUIRES(g_watch_mutex);

// Looks after one task: restores a lock that its holder took to the grave, gives a final code to a
// task whose worker is gone, kills a worker that hangs, frees the slot in the end. Never waits.
void Supervise(Watch& watch, Clock::time_point now) TS_REQUIRES(g_watch_mutex);

// Moves the times of all watches on when the tick at `now` comes long after the one at `last`:
// while this process was stopped, a terminal's Ctrl-Z for example, nobody was silent towards it.
void MakeUpForPause(Clock::time_point last, Clock::time_point now) TS_REQUIRES(g_watch_mutex);

// Starts a scanner when none runs. It does not look at the map: the supervisor must not wait for
// the map's lock, whose holder may wait for a task's lock that only the supervisor can restore.
void StartScanner();

// Thread function of the supervisor: a tick every 250 ms until `g_supervisor_ends` is set.
void* RunSupervisor(void* argument);
extern std::atomic<bool> g_supervisor_ends;
