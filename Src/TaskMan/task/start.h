// How a task that is in its slot gets to a worker: one that waits for it, or a process that is
// started for it.
#pragma once

#include "TaskMan/task/watch.h"

// Opens the channel of an extended task for a worker that is to be started, with the request in it;
// `workersEnd` becomes the worker's end. Does nothing for other tasks, and for one whose worker has
// a channel already. Returns an error number.
int OpenChannel(Watch& watch, Descriptor& workersEnd);

// Hands the task over to the worker of the watch, or starts one. Where that fails the supervisor
// ends the task. `channel`: the worker's end of what OpenChannel has opened.
void GiveToWorker(Watch& watch, const Descriptor& channel);

// Starts a worker for a task whose own has died before it claimed it, on a thread of its own. False
// when there is no such thread.
bool StartAnew(Watch& watch) TS_REQUIRES(g_watch_mutex);
