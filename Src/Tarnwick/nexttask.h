// What a worker does between two tasks.
#pragma once

// Forgets the task that has ended, if it has asked the worker to stay, and waits for the next one.
// True when that has come: ParseTask(g_TaskID) is to follow. Else the process is to exit; it is,
// too, when it has taken so much memory that a new one is worth its start. Main thread only, after
// ParseTask.
bool NextTask();
