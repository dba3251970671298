#include "Console/get/fetch.h"

#include <semaphore.h>

#include <algorithm>
#include <filesystem>
#include <utility>

#include "Console/get/filename.h"
#include "Console/page/pagetask.h"
#include "Console/page/videopage.h"
#include "Console/screen/text.h"
#include "TaskMan/manager.h"
#include "common/address.h"
#include "common/fieldtext.h"

namespace {

constexpr int kMostOfAddress = 100;  // columns, of one that is refused

std::string Join(const std::string& directory, const std::string& name) {
    if (!directory.empty() && name.front() != '/') {
        return directory + (directory.back() == '/' ? "" : "/") + name;
    }
    // A program that is given the path must not take it for an option.
    return name.front() == '-' ? "./" + name : name;
}

std::string BaseName(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

// Clamps what another process wrote to [0, most]; NaN becomes 0.
double Clamped(double value, double most) {
    return value >= 0 ? std::min(value, most) : 0;
}

// The path for a task's slot: absolute, so that a sweep finds the part from any directory, unless
// the task would be refused for that.
std::string FindablePath(const std::string& path) {
    std::error_code error;
    std::string absolute = std::filesystem::absolute(path, error);
    const bool usable = !error && absolute.size() < sizeof(tagTaskInfo::szFilePath) &&
                        absolute.find('\\') == std::string::npos;
    return usable ? absolute : path;
}

}  // namespace

void HelperThread::Start(EventQueue& events, const std::string& id, std::function<Outcome()> work) {
    thread_ = RunBeside([&events, id, work = std::move(work)] {
        Event event{Event::Kind::kEnd, id};
        event.outcome = work();
        events.Add(std::move(event));
    });
}

void HelperThread::Join() {
    if (thread_.joinable()) thread_.join();
}

Fetch::Fetch(Request request, const GetOptions& options, EventQueue& events)
    : request_(std::move(request)),
      options_(options),
      events_(events),
      page_(options.format.Given() || options.resolveOnly),
      carried_(options.request) {
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
    if (fault_.empty()) fault_ = RefusalOf(carried_);
    if (fault_.empty())
        fault_ = AddressFault(view_.address, page_ ? PAGE_ADDRESS_MOST : TASK_ADDRESS_MOST);
    if (fault_.empty()) fault_ = options_.proxy.For(view_.address, proxy_);
}

// `name` is what the address or the page makes of it; the user's own goes first.
void Fetch::SetPath(const std::string& name, Naming naming) {
    const std::string& wanted = request_.name.empty() ? name : request_.name;
    const PartRule rule = options_.continues ? PartRule::kContinue : PartRule::kRemove;
    target_ =
        std::make_unique<Target>(Join(options_.directory, wanted), options_.existing, rule, naming);
    view_.name = text::Printable(BaseName(wanted));
    ShowPath();
}

void Fetch::ShowPath() {
    view_.path = target_->Path();
    if (!view_.path.empty()) view_.name = text::Printable(BaseName(view_.path));
}

bool Fetch::TakeServerName(const Event& event) {
    const bool told =
        event.code == DOWNLOAD_STATE_FILE_SIZE || event.code == DOWNLOAD_STATE_DOWNLOAD_FINISH;
    if (!told || page_ || target_ == nullptr || !view_.path.empty()) return false;
    const std::string name = NameFromServer(event.answer.strFileName);
    target_->Name(Join(options_.directory, name.empty() ? NameFromAddress(view_.address) : name));
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

// The helper thread compares the existing file, which is skipped, with its digest.
void Fetch::CheckExisting() {
    phase_ = Phase::kChecking;
    helper_.Start(events_, id_, [target = target_.get(), sha256 = request_.sha256] {
        return target->Skip(sha256);
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

std::optional<Outcome> Fetch::Begin(std::int32_t rate, bool& later) {
    id_ = MakeTaskID();
    if (target_ != nullptr && !target_->IsOpen()) {
        // The file may appear while its part is still somebody else's.
        const std::string fault = target_->Skips() ? "" : target_->Open();
        if (!target_->IsOpen() && target_->Skips()) {
            CheckExisting();
            return std::nullopt;
        }
        if (!fault.empty()) return Outcome{EndResult::kRefused, EXIT_STATUS_LOCAL, fault};
        view_.foundPart = target_->FoundPart();
    }
    std::string reason;
    TaskRefusal refusal{};
    if (!AddTaskFor(rate, reason, refusal)) {
        later = refusal == TaskRefusal::kLater;
        return Outcome{EndResult::kRefused, EXIT_STATUS_FAILED, reason};
    }
    phase_ = Phase::kTask;
    view_.answer = {};
    view_.id = id_;
    view_.started = Clock::now();
    return std::nullopt;
}

bool Fetch::AddTaskFor(std::int32_t rate, std::string& reason, TaskRefusal& refusal) {
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
    return AddTask(task, TaskRequest(rate), reason, &refusal) == 0;
}

tagTaskRequest Fetch::TaskRequest(std::int32_t rate) const {
    tagTaskRequest request = carried_;
    if (page_) return request;
    request.strUrl = view_.address;
    request.strSha256 = request_.sha256;
    request.bContinue = options_.continues;
    request.bRemoteTime = options_.remoteTime;
    request.nAnswerSeconds = options_.timeout;
    request.nTries = options_.tries.count;
    request.nWaitSeconds = options_.tries.seconds;
    request.nRate = rate;
    return request;
}

void Fetch::NoteState(const Event& event) {
    if (!page_ && event.code != DOWNLOAD_STATE_FILE_SIZE) view_.answered = true;
    switch (event.code) {
        case DOWNLOAD_STATE_FILE_SIZE:
            view_.size = event.value < 0 ? -1 : Clamped(event.value, 1e18);
            NoteBeginning(event.answer);
            break;
        case DOWNLOAD_STATE_PROGRESS:
            view_.percent = Clamped(event.value, 100);
            break;
        case DOWNLOAD_STATE_SPEED:
            view_.speed.Note(Clamped(event.value, 1e12), Clock::now());
            break;
        default:
            break;
    }
}

// Comes with each beginning of the file, and with its end for one too short to have told before.
void Fetch::NoteBeginning(const tagTaskAnswer& answer) {
    view_.answer = answer;
    if (begun_with_ == answer.uHad) return;
    begun_with_ = answer.uHad;
    beginning_ = true;
    const auto had = static_cast<double>(answer.uHad);
    view_.percent = view_.size > 0 ? Clamped(100 * had / view_.size, 100) : 0;
}

double Fetch::Seconds() const {
    if (phase_ != Phase::kTask) return seconds_;
    return std::chrono::duration<double>(Clock::now() - view_.started).count();
}

std::optional<Outcome> Fetch::NoteEnd(const Event& event, bool stopping) {
    seconds_ = Seconds();
    phase_ = Phase::kIdle;
    if (event.size != 0) view_.size = event.size;
    view_.answer = event.answer;
    if (declined_ && declined_->empty()) {
        CheckExisting();
        return std::nullopt;
    }
    if (declined_) {
        return Outcome{.result = EndResult::kRefused,
                       .status = EXIT_STATUS_LOCAL,
                       .message = *declined_,
                       .code = event.code};
    }
    if (event.code == DOWNLOAD_STATE_DOWNLOAD_FINISH) {
        NoteBeginning(event.answer);
        Store();
        return std::nullopt;
    }
    if (page_ && event.code == DOWNLOAD_STATE_PARSE_FINISH && !stopping) return TakePage(event);
    Outcome outcome = page_ ? PageFailure(view_.address, event) : TaskFailure(event);
    if (stopping) outcome = {EndResult::kStopped, EXIT_STATUS_STOPPED};
    outcome.code = event.code;
    return outcome;
}

// All bytes have arrived: the helper thread checks them and renames the part.
void Fetch::Store() {
    view_.answered = true;
    view_.percent = 100;
    phase_ = Phase::kStoring;
    const auto work = [target = target_.get(), size = view_.size, sha256 = request_.sha256] {
        Outcome outcome = target->Store(size, sha256);
        outcome.code = DOWNLOAD_STATE_DOWNLOAD_FINISH;
        return outcome;
    };
    helper_.Start(events_, id_, work);
}

// The page gives the file its name and its address; from here on it is like any other.
std::optional<Outcome> Fetch::TakePage(const Event& event) {
    Outcome outcome;
    outcome.code = event.code;
    if (options_.resolveOnly) {
        view_.information = event.text;
        return outcome;
    }
    const VideoPage page = ReadVideoPage(event.text);
    const VideoFormat* format = Choose(page, options_.format);
    if (format == nullptr) {
        outcome.result = EndResult::kFailed;
        outcome.status = EXIT_STATUS_UNRESOLVED;
        outcome.message = NO_SUCH_FORMAT;
        return outcome;
    }
    page_ = false;
    // What was given for the site of the page is not for whom that names.
    if (!SameOrigin(view_.address, format->address)) {
        carried_.Headers.clear();
        carried_.strUser = carried_.strPassword = "";
    }
    view_.address = format->address;
    ReadAddress();
    SetPath(NameFromTitle(page.title));
    return std::nullopt;
}

// Gives the part up. Returns the line that tells what stays; empty when nothing does.
std::string Fetch::GiveUpPart() const {
    const double percent = target_ == nullptr ? -1 : target_->GiveUp();
    if (percent < 0) return "";
    return "kept " + text::Printable(target_->PartPath()) + " (" + text::Percent(percent) +
           " %): the same command continues it" +
           (view_.answer.bParts ? "" : " if the server serves parts");
}

std::string Fetch::Release() {
    helper_.Join();
    std::string kept = GiveUpPart();
    if (target_ != nullptr) ShowPath();
    target_.reset();
    return kept;
}

std::string Fetch::Abandon() const {
    if (phase_ == Phase::kTask) sem_unlink(id_.c_str());
    return GiveUpPart();
}
