// Refuses tasks for a while when workers end before they claim theirs: a program that cannot run
// would be started over and over.
#pragma once

#include "TaskMan/task/watch.h"

// While workers end before they claim their task, AddTask refuses everything until this time.
extern Clock::time_point g_refuse_until TS_GUARDED_BY(g_watch_mutex);

// What it says then.
constexpr const char* REFUSED_FOR_NOW =
    "three workers ended before they took their task; no new one for ten seconds";

// Notes a worker that has ended before it claimed its task. Three within ten seconds are no
// accident.
void NoteFailedStart(Clock::time_point now) TS_REQUIRES(g_watch_mutex);

// Has AddTask accept tasks, whatever became of earlier ones.
void ForgetFailedStarts() TS_REQUIRES(g_watch_mutex);
