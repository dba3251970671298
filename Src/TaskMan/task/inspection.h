// How the supervisor looks into a slot.
#pragma once

#include "TaskMan/task/watch.h"

// Looks into the task's slot, if its lock can be had: notes how far the task is, stores the stop
// word and the rate, and sets the final code for a worker that is dead without one. A lock that is
// busy is only noted; that of a dead holder is released for it in time.
void Inspect(Watch& watch, Clock::time_point now) TS_REQUIRES(g_watch_mutex);
