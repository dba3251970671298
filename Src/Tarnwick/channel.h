// The channel of an extended task: standard input of its worker, the other end of which its manager
// keeps. Nobody waits for the other side here, but the worker for its request.
#pragma once

#include <string>

#include "TaskMan/tasktext.h"

// Reads the request, which the manager has sent with the start. Returns why there is none, in one
// line: it is malformed, incomplete after ten seconds, or `wanted` has returned false; it is asked
// ten times a second. Empty: `request` holds it. Main thread only, once.
std::string ReceiveRequest(tagTaskRequest& request, bool (*wanted)());

// Whether the manager has closed its end, which it does by dying as well. Any thread may call.
bool ManagerGone();

// Tells the manager that the slot holds the final code. A manager that is gone, or whose end is
// full, is told nothing.
void AnnounceEnd();
