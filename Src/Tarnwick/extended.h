// The job of an extended task: its request comes over the channel, its answer goes into szVideoInfo
// of the slot, with code 10 and with the final code.
#pragma once

#include <memory>

#include "Tarnwick/engine/partfile.h"
#include "TaskMan/taskcontext.h"
#include "TaskMan/tasktext.h"

// Whether the slot asks for an extended task.
bool IsExtended(const tagTaskContext& task);

// What the worker of an extended task has to do.
struct ExtendedJob {
    tagTaskContext* task = nullptr;  // copy of its slot; outlives the job
    tagTaskRequest request{};
    std::unique_ptr<engine::PartFile> file{};  // of a download, open
    engine::MaybeFault fault{};                // why there is nothing to do
};

// Waits for the request of `task`, as long as a stop is not requested and the manager lives, and
// completes it: the address is in it, without a login, which stands in its fields, as does one from
// the netrc file. Then opens the partial file, and confines the process (confinement.h). Main
// thread, before there is a job thread; and that one, for further tasks.
ExtendedJob PrepareJob(tagTaskContext* task);

// Carries out an extended task, a download or a page, to its final code. Nothing is reported when
// the manager is gone, or the slot no longer the task's: a partial file is left so that it can be
// continued. Job thread only.
void RunExtended(ExtendedJob& job);

// The failure code of a page task; of an extended one with the answer. Job thread only.
void ReportPageFailure(const tagTaskContext& task, const tagTaskAnswer& answer);
