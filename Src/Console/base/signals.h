// The signals of the command. Handlers only count and wake the main loop; the functions below, for
// the main thread, report what has arrived.
#pragma once

#include "Console/base/events.h"

namespace signals {

// Installs all handlers, that of the manager for SIGCHLD included, and returns the pipe that they
// wake, which lives to the end of the process. To be called once, before there are other threads.
//
// SIGINT and SIGHUP stay ignored when they are ignored at the start (nohup, jobs of a script).
// Every signal that is handled is unblocked: a parent that waits for signals (sigwait, signalfd)
// may leave its mask to its children. A write to a broken pipe fails with EPIPE.
const WakePipe& Install();

// The first of SIGINT, SIGTERM and SIGHUP that came, 0 while none did; and how many came.
int StopSignal();
int StopCount();

// Whether, since the last call, the terminal changed its size (SIGWINCH), or the command was
// continued after a suspension (SIGCONT).
bool TakeResize();
bool TakeResume();

// Catches SIGTSTP from now on, for a caller that has changed the terminal: TakeSuspend tells
// whether one came since the last call; the caller restores the terminal and stops the process
// itself.
void CatchSuspend();
bool TakeSuspend();

// Ends the process as if it had not handled the signal, so that its parent sees what ended it.
[[noreturn]] void EndBy(int signal);

}  // namespace signals
