#include "Console/get/fetch.h"

#include <semaphore.h>

#include <algorithm>
#include <filesystem>
#include <utility>

#include "Console/get/filename.h"
#include "Console/get/secondlook.h"
#include "Console/page/pagetask.h"
#include "Console/page/videopage.h"
#include "Console/screen/text.h"
#include "TaskMan/taskman.h"
#include "common/fieldtext.h"

namespace {

constexpr int kMostOfAddress = 100;  // columns, of one that is refused
constexpr std::int32_t kBlocks = 3;

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

// A value from another process.
double Sane(double value, double most) {
    return value >= 0 ? std::min(value, most) : 0;
}

// The path as it is to stand in a task, so that its part is found again from every directory:
// absolute, unless the task would be refused for that.
std::string FindablePath(const std::string& path) {
    std::error_code error;
    std::string absolute = std::filesystem::absolute(path, error);
    const bool usable = !error && absolute.size() < sizeof(tagTaskInfo::szFilePath) &&
                        absolute.find('\\') == std::string::npos;
    return usable ? absolute : path;
}

}  // namespace

Fetch::Fetch(Request request, const GetOptions& options, EventQueue& events)
    : request_(std::move(request)),
      options_(options),
      events_(events),
      page_(options.format.Given()) {
    view_.address = request_.address;
    fault_ = request_.fault;
    if (fault_.empty()) Plan();
    if (!fault_.empty() || page_) {
        const std::string& text = view_.address.empty() ? request_.name : view_.address;
        view_.name = text::CutMiddle(text::Printable(text), kMostOfAddress);
    } else {
        Aim(NameFromAddress(view_.address));
    }
}

Fetch::~Fetch() {
    if (thread_.joinable()) thread_.join();
}

// Looks at the address.
void Fetch::Plan() {
    fault_ = AddressFault(view_.address);
    if (fault_.empty()) fault_ = options_.proxy.For(view_.address, proxy_);
}

// Sets the path of the file, which gets `name` unless the user has named it.
void Fetch::Aim(const std::string& name) {
    const std::string& wanted = request_.name.empty() ? name : request_.name;
    target_ = std::make_unique<Target>(Join(options_.directory, wanted), options_.existing,
                                       options_.keepPart);
    view_.path = target_->Path();
    view_.name = text::Printable(BaseName(view_.path));
}

std::string Fetch::PartPath() const {
    if (target_ == nullptr || (!target_->IsOpen() && target_->Skips())) return "";
    return target_->PartPath();
}

std::optional<Outcome> Fetch::Refusal() const {
    if (!fault_.empty()) return Outcome{EndResult::kRefused, EXIT_STATUS_USAGE, fault_};
    if (target_ == nullptr || !target_->Skips() || !request_.sha256.empty()) return std::nullopt;
    return target_->Skip("");
}

std::optional<Outcome> Fetch::Begin() {
    id_ = MakeTaskID();
    if (target_ != nullptr && !target_->IsOpen()) {
        if (target_->Skips()) {
            without_look_ = {EndResult::kStopped, EXIT_STATUS_STOPPED};
            Run(Phase::kLooking, [this] { return target_->Skip(request_.sha256); });
            return std::nullopt;
        }
        std::string fault = target_->Open();
        if (!fault.empty()) {
            return Outcome{EndResult::kRefused, EXIT_STATUS_LOCAL, std::move(fault)};
        }
    }
    std::string reason;
    if (!AddTaskFor(reason)) return Outcome{EndResult::kRefused, EXIT_STATUS_FAILED, reason};
    phase_ = Phase::kTask;
    view_.id = id_;
    view_.started = Clock::now();
    return std::nullopt;
}

bool Fetch::AddTaskFor(std::string& reason) {
    if (page_) return AddPageTask(id_, view_.address, proxy_, options_.tries, events_, reason);
    tagTaskInfo task = NewTask(id_, proxy_, options_.tries, events_);
    SetField(task.szDownloadUrl, view_.address);
    SetField(task.szFilePath, FindablePath(target_->PartPath()));
    task.nCmd = TASK_CMD_DOWNLOAD;
    task.nBlockCount = kBlocks;
    return AddTask(task, reason) == 0;
}

void Fetch::NoteState(const Event& event) {
    switch (event.code) {
        case DOWNLOAD_STATE_FILE_SIZE:
            view_.size = Sane(event.value, 1e18);
            break;
        case DOWNLOAD_STATE_DOWNLOAD_START:
            if (view_.answered) StartOver();
            break;
        case DOWNLOAD_STATE_PROGRESS: {
            const double percent = Sane(event.value, 100);
            if (percent < view_.percent) StartOver();
            view_.percent = percent;
            break;
        }
        case DOWNLOAD_STATE_SPEED:
            view_.speed = Sane(event.value, 1e12);
            break;
        default:
            break;
    }
    if (!page_ && event.code != DOWNLOAD_STATE_FILE_SIZE) view_.answered = true;
}

double Fetch::Seconds() const {
    if (phase_ != Phase::kTask) return seconds_;
    return std::chrono::duration<double>(Clock::now() - view_.started).count();
}

void Fetch::StartOver() {
    ++view_.tries;
    view_.percent = 0;
}

std::optional<Outcome> Fetch::NoteEnd(const Event& event, bool stopping) {
    seconds_ = Seconds();
    phase_ = Phase::kIdle;
    if (event.size > 0) view_.size = event.size;
    if (event.code == DOWNLOAD_STATE_DOWNLOAD_FINISH) {
        view_.answered = true;
        view_.percent = 100;
        Run(Phase::kLast, [this, size = view_.size] {
            Outcome outcome = target_->Store(size, request_.sha256);
            outcome.code = DOWNLOAD_STATE_DOWNLOAD_FINISH;
            return outcome;
        });
        return std::nullopt;
    }
    Outcome failure{EndResult::kStopped, EXIT_STATUS_STOPPED};
    failure.code = event.code;
    if (stopping) return failure;
    if (page_ && event.code == DOWNLOAD_STATE_PARSE_FINISH) return TakePage(event);
    failure = page_ ? PageFailure(view_.address, event) : DownloadFailure(event);
    // Of what the server may be the cause the codes say nothing more.
    const bool servers =
        page_ ? MayBeTheSites(failure)
              : failure.result == EndResult::kFailed && failure.status == EXIT_STATUS_FAILED;
    if (!servers) return failure;
    Look(std::move(failure));
    return std::nullopt;
}

// The page gives the file its name and its address; from here on it is like any other.
std::optional<Outcome> Fetch::TakePage(const Event& event) {
    const VideoPage page = ReadVideoPage(event.text);
    const VideoFormat* format = Choose(page, options_.format);
    if (format == nullptr) {
        Outcome outcome{EndResult::kFailed, EXIT_STATUS_UNRESOLVED, "the page has no such format"};
        outcome.code = event.code;
        return outcome;
    }
    page_ = false;
    view_.address = format->address;
    Plan();
    Aim(NameFromTitle(page.title));
    return std::nullopt;
}

Outcome Fetch::DownloadFailure(const Event& event) const {
    const std::string& remark = event.remark;
    const bool server = remark == TASK_REMARK_NO_ANSWER || remark == TASK_REMARK_STARTS_OVER;
    const bool stopped =
        event.code == DOWNLOAD_STATE_STOPPED && !server && remark != TASK_REMARK_NO_SPACE;
    Outcome outcome;
    if (!stopped) outcome = target_->LocalFault(view_.size);
    outcome.code = event.code;
    if (outcome.result != EndResult::kFinished) return outcome;
    outcome.reason = remark;
    outcome.result = EndResult::kFailed;
    outcome.status = EXIT_STATUS_FAILED;
    if (stopped) {
        outcome.result = EndResult::kStopped;
        outcome.status = EXIT_STATUS_STOPPED;
    } else if (remark == TASK_REMARK_NO_SPACE) {
        outcome.status = EXIT_STATUS_LOCAL;
    } else if (!remark.empty() && !server) {
        outcome.result = EndResult::kDied;
    } else if (remark.empty()) {
        outcome.reason =
            view_.size < 0 ? "the server offered no file of known size" : "the transfer broke off";
        if (view_.percent > 0) {
            outcome.reason += " at " + std::to_string(static_cast<int>(view_.percent)) + " %";
        }
    }
    return outcome;
}

// The part can go meanwhile.
void Fetch::Look(Outcome failure) {
    target_.reset();
    without_look_ = std::move(failure);
    Run(Phase::kLooking, [this] {
        Outcome outcome = without_look_;
        outcome.secondLook =
            SecondLook(view_.address, proxy_, page_ ? Wanted::kPage : Wanted::kFile);
        return outcome;
    });
}

void Fetch::Run(Phase phase, std::function<Outcome()> work) {
    phase_ = phase;
    thread_ = std::thread([this, work = std::move(work)] {
        Event event{Event::Kind::kEnd, id_};
        event.outcome = work();
        events_.Add(std::move(event));
    });
}

void Fetch::Release() {
    if (thread_.joinable()) thread_.join();
    target_.reset();
}

void Fetch::Abandon() const {
    if (phase_ == Phase::kTask) sem_unlink(id_.c_str());
    if (target_ != nullptr) target_->RemovePart();
}
