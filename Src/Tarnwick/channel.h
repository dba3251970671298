// The channel of an extended task: standard input of its worker, the other end of which its manager
// keeps. Nobody waits for the other side here, but the worker for its request.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "TaskMan/tasktext.h"
#include "common/file.h"

// Reads the request, which the manager has sent with the start, or behind `text`, what of it has
// come with the task's id. Returns why there is none, in one line: it is malformed, incomplete
// after ten seconds, or `wanted` has returned false; it is asked ten times a second, and when the
// request is there. Empty: `request` holds it. Once for each task, by the thread that prepares its
// job.
std::string ReceiveRequest(tagTaskRequest& request, std::string text, bool (*wanted)());

// Whether the manager has closed its end, which it does by dying as well. Any thread may call.
bool ManagerGone();

// Tells the manager that this worker waits for its next task, and waits for that, at most
// `patience`. Returns the task's id, with its files in `files` and the beginning of its request in
// `request`. Empty when none has come, or the manager is gone. Calls `rest` when the wait is longer
// than from one file of a list to the next. Job thread only, between two jobs.
std::string AwaitTask(std::chrono::seconds patience, std::vector<Descriptor>& files,
                      std::string& request, void (*rest)());

// Tells the manager that the slot holds the final code. A manager that is gone, or whose end is
// full, is told nothing.
void AnnounceEnd();
