// What a worker does between two tasks.
#pragma once

// Forgets the task that has ended, if it has asked the worker to stay, and waits for the next one.
// True when that has come: g_TaskID is its id. Else the process is to exit; it is, too, when it has
// taken so much memory that a new one is worth its start. Job thread only, once the lock is closed.
bool NextTask();
