// The job of an extended task: its request comes over the channel, its answer goes into szVideoInfo
// of the slot, with code 10 and with the final code.
#pragma once

#include "TaskMan/taskcontext.h"
#include "TaskMan/tasktext.h"

// Whether the slot asks for an extended task.
bool IsExtended(const tagTaskContext& task);

// Carries out an extended task, a download or a page, to its final code. Nothing is reported when
// the manager is gone, or the slot no longer the task's: a partial file is left so that it can be
// continued. `curl` is the job's handle. Job thread only.
void RunExtended(void* curl, tagTaskContext* task);

// The failure code of a page task; of an extended one with the answer. Job thread only.
void ReportPageFailure(const tagTaskContext& task, const tagTaskAnswer& answer);
