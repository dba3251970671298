#include "Console/tasks.h"

#include <utility>

#include "TaskMan/taskman.h"
#include "common/fieldtext.h"

namespace {

constexpr std::int32_t kTries = 3;
constexpr std::int32_t kSecondsBetweenTries = 1;
constexpr const char* kSite = TASKMAN_SITE_BASE_ADDRESS;

}  // namespace

tagTaskInfo NewTask(const std::string& id, const Proxy& proxy, EventQueue& events) {
    tagTaskInfo task(id.c_str());
    task.nTaskKind = 0;
    task.nTryCount = kTries;
    task.nTryInterval = kSecondsBetweenTries;
    SetProxy(proxy, task);
    task.pCallbackParam = &events;
    task.pfnStateCallback = EventQueue::OnState;
    task.pfnResultCallback = EventQueue::OnResult;
    return task;
}

bool AddPageTask(const std::string& id, const std::string& page, const Proxy& proxy,
                 EventQueue& events, std::string& reason) {
    tagTaskInfo task = NewTask(id, proxy, events);
    SetField(task.szOrgUrl, page);
    task.nCmd = TASK_CMD_PARSE;
    return AddTask(task, reason) == 0;
}

Outcome PageFailure(const std::string& page, const Event& event) {
    if (event.code == DOWNLOAD_STATE_STOPPED) {
        return {EndResult::kStopped, EXIT_STATUS_STOPPED, event.remark};
    }
    if (!event.remark.empty()) return {EndResult::kDied, EXIT_STATUS_FAILED, event.remark};
    std::string reason = "the page was not resolved";
    if (!page.starts_with(kSite)) {
        reason = std::string("not a page of ") + kSite;
    } else if (event.code == DOWNLOAD_STATE_INFO_TOO_LONG) {
        reason = "the information about the page is too long";
    }
    return {EndResult::kFailed, EXIT_STATUS_UNRESOLVED, std::move(reason)};
}
