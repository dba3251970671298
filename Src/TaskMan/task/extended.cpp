#include "TaskMan/task/extended.h"

#include <algorithm>
#include <utility>

#include "TaskMan/task/admission.h"
#include "TaskMan/task/supervisor.h"
#include "TaskMan/timing.h"
#include "common/AutoLock.h"
#include "common/address.h"
#include "common/fieldtext.h"

namespace {

// Codes with which the answer is in the slot; with code 1 it holds the information text.
constexpr std::uint32_t kAnswerBits =
    1U << DOWNLOAD_STATE_FILE_SIZE | (FINAL_STATE_BITS & ~(1U << DOWNLOAD_STATE_PARSE_FINISH));

bool HoldsAnswer(const tagTaskContext& slot) {
    return (slot.nStateBits & kAnswerBits) != 0 &&
           (slot.nStateBits & 1U << DOWNLOAD_STATE_PARSE_FINISH) == 0;
}

}  // namespace

std::string RefusalOfExtended(tagTaskInfo& taskinfo, tagTaskRequest& request) {
    taskinfo.nReserved1 = TASK_EXTENDED;
    const bool download = IsDownloadCommand(taskinfo.nCmd);
    if (!download && !request.strUrl.empty()) return "the address of a page belongs into the task";
    if (download && static_cast<std::uint32_t>(taskinfo.nBlockCount - 1) >= 10) {
        return "the number of connections is not 1 to 10";
    }
    auto& asked = download ? taskinfo.szDownloadUrl : taskinfo.szOrgUrl;
    auto& other = download ? taskinfo.szOrgUrl : taskinfo.szDownloadUrl;
    const bool own = !request.strUrl.empty();
    std::string address = own ? request.strUrl : FieldText(asked);
    std::string reason = TakeLogin(address, request.strUser, request.strPassword);
    if (own || address.size() < FieldView(asked).size()) SetField(asked, address);
    if (download) request.strUrl = address;
    const std::string rest = WithoutLogin(FieldView(other));
    if (rest.size() < FieldView(other).size()) SetField(other, rest);
    if (reason.empty()) reason = RefusalOf(taskinfo);
    return reason.empty() ? RefusalOf(request) : reason;
}

std::chrono::seconds AnswerLimit(const tagTaskRequest& request) {
    using std::chrono::seconds;
    if (request.nAnswerSeconds == 0 || request.nStallSeconds == 0) return seconds(0);
    // A pause is up to a quarter longer than it is asked for.
    const seconds pause(std::max(request.nWaitSeconds * 5 / 4 + 1, request.nRetryAfter));
    const timing::Milliseconds round =
        seconds(request.nAnswerSeconds + request.nStallSeconds) + pause;
    return std::chrono::ceil<seconds>((request.nTries + 1) * round + timing::kOwnLimits);
}

void ExchangeRate(const Watch& watch, tagTaskContext& slot) {
    if (watch.bExtended && LoadRate(slot) != watch.nRate) StoreRate(slot, watch.nRate);
}

int SetTaskRate(const char* szTaskID, std::int32_t nRate) {
    Threading::AutoLock hold(&g_watch_mutex);
    Watch* watch = FindWatch(szTaskID);
    if (watch == nullptr || !watch->bExtended || !IsDownloadCommand(watch->nCmd) ||
        watch->stage.state >= Stage::kEnded || nRate < 0) {
        return -1;
    }
    if (std::exchange(watch->nRate, nRate) != nRate) WakeSupervisor();
    return 0;
}

void KeepAnswer(int nTaskIndex, const tagTaskContext& slot) {
    if (!HoldsAnswer(slot)) return;
    Threading::AutoLock hold(&g_watch_mutex);
    Watch& watch = g_Watches[nTaskIndex];
    if (!watch.bExtended) return;
    tagTaskAnswer answer;
    if (DecodeAnswer(FieldView(slot.szVideoInfo), answer).empty()) watch.answer = answer;
}

bool TaskAnswer(const char* szTaskID, tagTaskAnswer& answer) {
    Threading::AutoLock hold(&g_watch_mutex);
    const Watch* watch = FindWatch(szTaskID);
    if (watch == nullptr || !watch->answer) return false;
    answer = *watch->answer;
    return true;
}
