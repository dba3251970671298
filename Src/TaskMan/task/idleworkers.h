// Workers that have ended their task and wait for another one: at most one for each slot, which is
// free meanwhile. They hold nothing of any task, so that one which is not wanted any more is
// killed.
#pragma once

#include <string>
#include <vector>

#include "TaskMan/task/watch.h"

struct IdleWorker {
    platform::ProcessWatch process{};  // gone: there is none
    Channel channel{};
    TaskLock lock{};
    Traits traits{};
    std::int32_t nTasks = 0;                             // that it has served
    Clock::time_point until = Clock::time_point::max();  // it should have ended by itself by then
};
extern IdleWorker g_IdleWorkers[TASK_SLOT_COUNT] TS_GUARDED_BY(g_watch_mutex);

// What a download brings with it for its worker. May wait for the file system of the path.
Traits TraitsOf(const tagTaskInfo& taskinfo, const tagTaskRequest& request,
                const std::string& path);

// How well a free slot suits a task, the lowest number best: its idle worker has a connection to
// the task's server, may take the task; it has no worker; it has one that may not.
enum class Fit { kConnected, kAble, kEmpty, kUnable };
// `traits`: null for a task that gets a process of its own.
Fit FitOf(int nTaskIndex, const Traits* traits) TS_REQUIRES(g_watch_mutex);

// Gives the slot's idle worker to the slot's watch.
void TakeIdleWorker(Watch& watch) TS_REQUIRES(g_watch_mutex);

// Kills the slot's idle worker, if there is one; or the worker of the watch, whose place another
// one is to take.
void DropIdleWorker(int nTaskIndex) TS_REQUIRES(g_watch_mutex);
void DropWorker(Watch& watch) TS_REQUIRES(g_watch_mutex);

// What follows when a worker whose task was delivered says that it is idle: the slot is free, and
// the worker kept or told to exit. Does nothing for any other. Returns whether the slot is free.
bool KeepIfIdle(Watch& watch, Clock::time_point now) TS_REQUIRES(g_watch_mutex);

// Looks after the idle workers and those that were dropped: reaps the dead, kills what has not
// ended in time or says something. Adds what is to be waited for; returns when to look again at the
// latest. One that gets a task before that is waited for already. `told`: the descriptors of the
// channels that can be read, which alone are looked at then; empty: all are.
Clock::time_point SuperviseIdleWorkers(Clock::time_point now, const std::vector<int>& told,
                                       std::vector<platform::ProcessWatch>& processes,
                                       std::vector<int>& channels) TS_REQUIRES(g_watch_mutex);

// Kills all of them. SuperviseIdleWorkers reaps them.
void DropIdleWorkers() TS_REQUIRES(g_watch_mutex);

// Whether none is left, those included that were dropped.
bool NoIdleWorkers() TS_REQUIRES(g_watch_mutex);
