// What the worker of an extended task gives up before its first connection: it parses what
// strangers send. docs/security.md says what is left to one that was taken over.
#pragma once

#include <string>

#include "TaskMan/tasktext.h"

// Leaves this process, as far as the system can, no file but those that are open and those that
// libcurl, the resolver, TLS and the request need for reading; no program to execute; no other
// process to signal or trace; no terminal; and no core dump, which would hold credentials. Returns
// why that failed, in one line; empty: it is done, or the system has no such thing. Main thread
// only, before there is another one: threads inherit it. Nothing gives rights back: a further call,
// of any thread, does nothing, and returns what the first did.
//
// Nothing below /proc can be read afterwards: platform::BootId and ProcessAge tell nothing.
std::string Confine(const tagTaskRequest& request);
