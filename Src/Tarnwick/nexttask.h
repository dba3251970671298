// What a worker does between two tasks.
#pragma once

#include <cstddef>

// Bytes of private memory beyond which a new process is worth its start.
extern const std::size_t WORKER_MEMORY_MOST;

// Forgets the task that has ended, if it has asked the worker to stay, and waits for the next one.
// True when that has come: g_TaskID is its id. Else the process is to exit; it is, too, when it has
// taken too much memory. Job thread only, once the lock is closed.
bool NextTask();
