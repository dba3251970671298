// What extended tasks have beyond the others: the check of their requests, the time that their
// workers may need, and the answers of those.
#pragma once

#include <chrono>
#include <string>

#include "TaskMan/task/watch.h"
#include "TaskMan/taskcontext.h"
#include "TaskMan/tasktext.h"

// Makes the record the one of an extended task and gives it and the request of a download the same
// address: the record as much of it as has room. A login in an address goes from there into the
// request. Returns why the task is refused, in one line;
// empty when nothing in the two speaks against it.
std::string RefusalOfExtended(tagTaskInfo& taskinfo, tagTaskRequest& request);

// How long a download may take to its first byte or its end, by its own limits, and some time more;
// 0: for ever.
std::chrono::seconds AnswerLimit(const tagTaskRequest& request);

// Stores the task's limit on its rate into its slot, should it not be there: a worker that claims
// its task writes the whole slot back, with the limit as it was. The caller holds the task's lock.
void ExchangeRate(const Watch& watch, tagTaskContext& slot) TS_REQUIRES(g_watch_mutex);

// Keeps the answer that stands in the slot of an extended task, for TaskAnswer. `slot` was copied
// under the task's lock together with its bits, or is nobody else's. Does nothing when those
// promise no answer, and when the text is none: the one that is known stays.
void KeepAnswer(int nTaskIndex, const tagTaskContext& slot);
