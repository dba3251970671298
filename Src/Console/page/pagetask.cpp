#include "Console/page/pagetask.h"

#include <algorithm>

#include "TaskMan/manager.h"

namespace {

constexpr const char* kSite = TASKMAN_SITE_BASE_ADDRESS;
// The most for a page; what a download is given goes with its request.
constexpr Tries kPageTries{3, 1};

}  // namespace

tagTaskInfo NewTask(const std::string& id, const Proxy& proxy, Tries tries, EventQueue& events) {
    tagTaskInfo task(id.c_str());
    task.nTaskKind = 0;
    task.nTryCount = std::min(tries.count, kPageTries.count);
    task.nTryInterval = std::min(tries.seconds, kPageTries.seconds);
    proxy.Fill(task);
    task.pCallbackParam = &events;
    task.pfnStateCallback = EventQueue::OnState;
    task.pfnResultCallback = EventQueue::OnResult;
    return task;
}

Outcome TaskFailure(const Event& event) {
    Outcome outcome{EndResult::kFailed, EXIT_STATUS_FAILED, event.remark};
    outcome.code = event.code;
    const TaskReason reason = event.answer.Reason;
    if (event.code == DOWNLOAD_STATE_STOPPED) {
        outcome.result = EndResult::kStopped;
        outcome.status = EXIT_STATUS_STOPPED;
    } else if (event.remark.empty()) {
        outcome.message = event.answer.strMessage;
        if (outcome.message.empty()) outcome.message = "the worker told no reason";
        const bool local = reason == TaskReason::kNoSpace || reason == TaskReason::kLocal;
        if (event.answer.nTries > 1 && !local) {
            outcome.message += " (" + std::to_string(event.answer.nTries) + " tries)";
        }
        if (const int pause = event.answer.nRetryAfter; pause > 0) {
            outcome.message += ": the server asks for a pause of " + std::to_string(pause) + " s";
        }
        if (local) outcome.status = EXIT_STATUS_LOCAL;
        if (reason == TaskReason::kAddress) outcome.status = EXIT_STATUS_USAGE;
    } else if (event.remark != TASK_REMARK_NO_ANSWER) {
        outcome.result = EndResult::kDied;
    }
    return outcome;
}

Outcome PageFailure(const std::string& page, const Event& event) {
    Outcome outcome = TaskFailure(event);
    if (outcome.result != EndResult::kFailed) return outcome;
    outcome.status = EXIT_STATUS_UNRESOLVED;
    if (!event.remark.empty()) return outcome;
    if (!page.starts_with(kSite)) {
        outcome.message = std::string("not a page of ") + kSite;
    } else if (event.code == DOWNLOAD_STATE_INFO_TOO_LONG) {
        outcome.message = "the information about the page is too long";
    } else {
        outcome.message = "the page was not resolved: " + outcome.message;
    }
    return outcome;
}
