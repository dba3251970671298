#include "Console/get/fetch.h"

#include <algorithm>
#include <utility>

#include "Console/get/filename.h"
#include "Console/get/hosts.h"
#include "Console/get/origin.h"
#include "Console/get/standardoutput.h"
#include "Console/page/pagetask.h"
#include "Console/screen/text.h"
#include "TaskMan/manager.h"
#include "common/address.h"
#include "common/fieldtext.h"

namespace {

constexpr int kMostOfAddress = 100;  // columns, of one that is refused

std::string BaseName(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

}  // namespace

Fetch::Fetch(Request request, const GetOptions& options, EventQueue& events, Helpers& helpers)
    : request_(std::move(request)),
      options_(options),
      events_(events),
      page_(options.format.Given() || options.resolveOnly),
      carried_(options.request),
      helper_(helpers) {
    view_.address = request_.address;
    ReadAddress();
    if (!request_.fault.empty()) fault_ = request_.fault;
    if (!fault_.empty() || page_) {
        const std::string& text = view_.address.empty() ? request_.name : view_.address;
        view_.name = text::CutMiddle(text::Printable(text), kMostOfAddress);
    } else {
        const bool later = options_.serverName && request_.name.empty();
        SetPath(NameFromAddress(view_.address), later ? Naming::kLater : Naming::kNow);
    }
}

void Fetch::ReadAddress() {
    fault_ = TakeLogin(view_.address, carried_.strUser, carried_.strPassword);
    if (fault_.empty())
        fault_ = AddressFault(view_.address, page_ ? PAGE_ADDRESS_MOST : TASK_ADDRESS_MOST);
    tagTaskRequest whole = carried_;
    if (!page_) whole.strUrl = view_.address;
    if (fault_.empty()) fault_ = RefusalOf(whole);
    if (fault_.empty()) fault_ = options_.proxy.For(view_.address, proxy_);
    host_ = fault_.empty() ? HostOf(view_.address) : "";
}

std::string Fetch::Peer() const {
    return proxy_.host.empty() ? host_ : proxy_.host + ":" + std::to_string(proxy_.port);
}

// `name` is what the address or the page makes of it; the user's own goes first.
void Fetch::SetPath(const std::string& name, Naming naming) {
    const std::string& wanted = request_.name.empty() ? name : request_.name;
    view_.name = text::Printable(BaseName(wanted));
    if (options_.ToOutput()) {
        target_ = std::make_unique<Target>(PrivatePath(options_.directory), Existing::kRefuse,
                                           PartRule::kRemove, Naming::kNever);
        return;
    }
    const PartRule rule = options_.continues ? PartRule::kContinue : PartRule::kRemove;
    target_ = std::make_unique<Target>(PathIn(options_.directory, wanted), options_.existing, rule,
                                       naming);
    ShowPath();
}

void Fetch::ShowPath() {
    view_.path = target_->Path();
    if (!view_.path.empty()) view_.name = text::Printable(BaseName(view_.path));
}

bool Fetch::TakeServerName(const Event& event) {
    const bool told =
        event.code == DOWNLOAD_STATE_FILE_SIZE || event.code == DOWNLOAD_STATE_DOWNLOAD_FINISH;
    const bool awaited = options_.serverName && !page_ && target_ != nullptr && view_.path.empty();
    if (!told || !awaited) return false;
    const std::string name = NameFromServer(event.answer.strFileName);
    target_->Name(PathIn(options_.directory, name.empty() ? NameFromAddress(view_.address) : name));
    ShowPath();
    return true;
}

bool Fetch::NextName() {
    const bool open = target_ != nullptr && target_->IsOpen();
    if (target_ == nullptr || (open && phase_ != Phase::kTask) || !target_->NextName())
        return false;
    ShowPath();
    return true;
}

void Fetch::Decline(const std::string& fault) {
    declined_ = fault;
    target_->Spoil();
    StopTask(id_.c_str());
}

// The helper thread compares the existing file, which is to end so, with its digest.
void Fetch::CheckExisting(EndResult result, std::int32_t code) {
    phase_ = Phase::kChecking;
    helper_.Start(events_, id_, [=, target = target_.get(), sha256 = request_.sha256] {
        Outcome outcome = target->Skip(sha256);
        outcome.code = code;
        if (outcome.result != EndResult::kSkipped || result == EndResult::kSkipped) return outcome;
        outcome.result = result;
        outcome.message.clear();
        return outcome;
    });
}

std::string Fetch::PartPath() const {
    if (target_ == nullptr || (!target_->IsOpen() && target_->Skips())) return "";
    return target_->PartPath();
}

std::optional<Outcome> Fetch::Verdict() const {
    if (!fault_.empty()) return Outcome{EndResult::kRefused, EXIT_STATUS_USAGE, fault_};
    if (target_ == nullptr || !target_->Skips() || !request_.sha256.empty()) return std::nullopt;
    return target_->Skip("");
}

std::optional<Outcome> Fetch::Begin(std::int32_t rate, bool once, bool& later) {
    id_ = MakeTaskID();
    if (target_ != nullptr && !target_->IsOpen()) {
        // The file may appear while its part is still somebody else's.
        const std::string fault = target_->Skips() ? "" : target_->Open();
        if (!target_->IsOpen() && target_->Skips()) {
            CheckExisting(EndResult::kSkipped);
            return std::nullopt;
        }
        if (!fault.empty()) return Outcome{EndResult::kRefused, EXIT_STATUS_LOCAL, fault};
        view_.foundPart = target_->FoundPart();
    }
    std::string reason;
    TaskRefusal refusal{};
    if (!AddTaskFor(TaskRequest(rate, once), reason, refusal)) {
        later = refusal == TaskRefusal::kLater;
        return Outcome{EndResult::kRefused, EXIT_STATUS_FAILED, reason};
    }
    phase_ = Phase::kTask;
    once_ = once;
    view_.answer = {};
    view_.id = id_;
    view_.started = Clock::now();
    return std::nullopt;
}

bool Fetch::AddTaskFor(const tagTaskRequest& request, std::string& reason, TaskRefusal& refusal) {
    tagTaskInfo task = NewTask(id_, proxy_, options_.tries, events_);
    if (page_) {
        SetField(task.szOrgUrl, view_.address);
        task.nCmd = TASK_CMD_PARSE;
    } else {
        SetField(task.szDownloadUrl, view_.address);
        SetField(task.szFilePath, FindablePath(target_->PartPath()));
        task.nCmd = TASK_CMD_DOWNLOAD;
        task.nBlockCount = options_.connections;
    }
    return AddTask(task, request, reason, &refusal) == 0;
}

tagTaskRequest Fetch::TaskRequest(std::int32_t rate, bool once) const {
    tagTaskRequest request = carried_;
    if (page_) return request;
    request.strUrl = view_.address;
    request.strSha256 = request_.sha256;
    request.bContinue = options_.continues && !options_.ToOutput();
    if (options_.newer) {
        const Marks marks = OriginMarks(target_->Path(), view_.address);
        request.strIfNoneMatch = marks.etag;
        request.strIfModifiedSince = marks.lastModified;
    }
    request.bRemoteTime = options_.remoteTime;
    request.nRetryAfter = options_.retryAfter;
    request.bEndsWhenBusy = true;
    request.nAnswerSeconds = options_.timeout;
    request.nTries = once ? 1 : options_.tries.count;
    request.nWaitSeconds = options_.tries.seconds;
    request.nRate = rate;
    return request;
}
