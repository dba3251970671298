// The signals of the command. Handlers only note what came and wake the main loop.
#pragma once

#include "Console/cli/events.h"

namespace signals {

// Installs all handlers, that of the manager for SIGCHLD included. SIGINT and SIGHUP stay ignored
// when they are at the start (nohup, jobs of a script). What is handled is unblocked: a parent that
// waits for signals (sigwait, signalfd) may leave its mask to its children. A broken pipe is an
// error of the write. To be called once, before there are other threads; `wake` lives to the end of
// the process.
void Install(const WakePipe& wake);

// The first of SIGINT, SIGTERM and SIGHUP that came, 0 while none did; and how many came.
int StopSignal();
int StopCount();

// Whether, since the last call, the terminal got another size; or the command went on after it was
// suspended.
bool TakeResize();
bool TakeResume();

// Has TakeSuspend tell of Ctrl-Z, instead of the process being suspended at once: for whoever has
// changed the terminal, and suspends the process after giving it back.
void CatchSuspend();
bool TakeSuspend();

// Ends the process as if it had not handled the signal, so that its parent sees what ended it.
[[noreturn]] void EndBy(int signal);

}  // namespace signals
