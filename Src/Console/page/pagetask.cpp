#include "Console/page/pagetask.h"

#include "TaskMan/manager.h"

namespace {

constexpr const char* kSite = TASKMAN_SITE_BASE_ADDRESS;
constexpr const char* kNotResolved = "the page was not resolved";

}  // namespace

tagTaskInfo NewTask(const std::string& id, const Proxy& proxy, Tries tries, EventQueue& events) {
    tagTaskInfo task(id.c_str());
    task.nTaskKind = 0;
    task.nTryCount = tries.count;
    task.nTryInterval = tries.seconds;
    proxy.Fill(task);
    task.pCallbackParam = &events;
    task.pfnStateCallback = EventQueue::OnState;
    task.pfnResultCallback = EventQueue::OnResult;
    return task;
}

Outcome PageFailure(const std::string& page, const Event& event) {
    Outcome outcome{EndResult::kFailed, EXIT_STATUS_UNRESOLVED, kNotResolved};
    outcome.code = event.code;
    if (event.code == DOWNLOAD_STATE_STOPPED) {
        outcome.result = EndResult::kStopped;
        outcome.status = EXIT_STATUS_STOPPED;
        outcome.reason = event.remark;
    } else if (!event.remark.empty()) {
        outcome.reason = event.remark;
        if (event.remark == TASK_REMARK_NO_ANSWER) return outcome;
        outcome.result = EndResult::kDied;
        outcome.status = EXIT_STATUS_FAILED;
    } else if (!page.starts_with(kSite)) {
        outcome.reason = std::string("not a page of ") + kSite;
    } else if (event.code == DOWNLOAD_STATE_INFO_TOO_LONG) {
        outcome.reason = "the information about the page is too long";
    }
    return outcome;
}

bool MayBeTheSites(const Outcome& failure) {
    return failure.result == EndResult::kFailed &&
           (failure.reason == kNotResolved || failure.reason == TASK_REMARK_NO_ANSWER);
}
