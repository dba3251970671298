// Threads of a library inside somebody else's program.
#pragma once

#include <pthread.h>

// Starts a thread with every signal blocked but those of its own faults, so that the program's
// handlers run on the program's own threads. A detached thread cannot be joined. Returns 0 or an
// error number.
int StartThread(pthread_t* thread, void* (*routine)(void*), void* argument, bool detached);
