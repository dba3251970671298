// The supervisor: sees to it that every task ends, whatever becomes of its worker.
//
// The scanner learns of a task's end only from a final code, and it waits for a task's lock without
// bound. A worker may die without that code, or with the lock. The supervisor follows the worker
// processes, so it can tell both; what it sets in a slot, the scanner handles like a worker's word.
//
// It sleeps until a worker ends, somebody wakes it, or a time has come that a task has to be looked
// at again.
#pragma once

#include <atomic>

#include "TaskMan/task/watch.h"

// Starts the thread. Returns 0 or an error number.
int StartSupervisor();

// Ends the thread and waits for that: no longer than one look at all tasks takes, and the function
// of SetSlotFreedCallback.
void EndSupervisor();

// Whether the thread runs, and so wakes the scanner when a worker has ended.
extern std::atomic<bool> g_supervisor_runs;

// Has the supervisor look at all tasks now. Any thread may call, with any lock held.
void WakeSupervisor();

// Calls the function of SetSlotFreedCallback. No lock is held.
void TellOfFreeSlot();

// Notes that the task is to stop. The supervisor stores the stop word.
void AskToStop(Watch& watch) TS_REQUIRES(g_watch_mutex);

// Looks after one task: releases a lock whose holder has died, gives a final code to a task whose
// worker is gone, kills a worker that hangs, frees the slot in the end. Never waits. Returns when
// the task has to be looked at again; the end of its worker, and a delivery, come before that.
Clock::time_point Supervise(Watch& watch, Clock::time_point now) TS_REQUIRES(g_watch_mutex);

// Moves the times of all watches on when one was to be looked at long before `now`: while this
// process was stopped, by a terminal's Ctrl-Z for example, nobody was silent towards it.
void MakeUpForPause(Clock::time_point now) TS_REQUIRES(g_watch_mutex);
