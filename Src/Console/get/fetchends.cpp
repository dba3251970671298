// What the task of a file reports, and what follows its end.
#include <semaphore.h>

#include <algorithm>

#include "Console/get/fetch.h"
#include "Console/get/filename.h"
#include "Console/get/origin.h"
#include "Console/page/pagetask.h"
#include "Console/page/videopage.h"
#include "Console/screen/text.h"
#include "common/address.h"

namespace {

// Clamps what another process wrote to [0, most]; NaN becomes 0.
double Clamped(double value, double most) {
    return value >= 0 ? std::min(value, most) : 0;
}

// Whether the server has nothing against the request, but no time for it.
bool IsBusy(const Event& event) {
    const int status = event.answer.nStatus;
    return event.remark.empty() && event.code == DOWNLOAD_STATE_DOWNLOAD_FAIL &&
           event.answer.Reason == TaskReason::kHttpStatus && (status == 429 || status == 503);
}

}  // namespace

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

std::optional<Outcome> Fetch::NoteEnd(Event event, bool stopping) {
    event.answer.uReceived += spent_.uReceived;
    event.answer.nRequests += spent_.nRequests;
    event.answer.nTries += spent_.nTries;
    seconds_ = Seconds();
    phase_ = Phase::kIdle;
    if (event.size != 0) view_.size = event.size;
    view_.answer = event.answer;
    if (declined_ && declined_->empty()) {
        CheckExisting(EndResult::kSkipped);
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
    if (event.answer.Reason == TaskReason::kUnchanged && !stopping) {
        target_->GiveUp();
        CheckExisting(EndResult::kUnchanged, event.code);
        return std::nullopt;
    }
    if (page_ && event.code == DOWNLOAD_STATE_PARSE_FINISH && !stopping) return TakePage(event);
    if (IsBusy(event) && !page_ && !stopping && MayRest(event.answer)) {
        Rest(event.answer);
        return std::nullopt;
    }
    if (LacksTries(event) && !stopping) {
        AwaitTask(event.answer);
        return std::nullopt;
    }
    Outcome outcome = page_ ? PageFailure(view_.address, event) : TaskFailure(event);
    if (event.answer.nRetryAfter > options_.retryAfter) {
        outcome.message +=
            ", longer than the " + std::to_string(options_.retryAfter) + " s of --retry-after";
    }
    if (stopping) outcome = {EndResult::kStopped, EXIT_STATUS_STOPPED};
    outcome.code = event.code;
    return outcome;
}

// Whether the host is worth another try. How much of the file a task leaves, the next one tells.
bool Fetch::MayRest(const tagTaskAnswer& answer) {
    if (answer.uHad > std::exchange(most_had_, std::max(most_had_, answer.uHad))) busy_tries_ = 0;
    return ++busy_tries_ < options_.tries.count && answer.nRetryAfter <= options_.retryAfter;
}

// The file waits, with its part, until the host may be asked again.
void Fetch::Rest(const tagTaskAnswer& answer) {
    rest_ = answer.nRetryAfter;
    AwaitTask(answer);
}

// Whether the task was given one try only, because its host seemed to be away, and that has reached
// the host and failed later: the file gets another task, with all tries.
bool Fetch::LacksTries(const Event& event) const {
    return once_ && options_.tries.count > 1 && event.remark.empty() &&
           event.code == DOWNLOAD_STATE_DOWNLOAD_FAIL && event.answer.bReached &&
           event.answer.nTries > spent_.nTries && event.answer.nRetryAfter <= options_.retryAfter;
}

// The file keeps its part for its next task.
void Fetch::AwaitTask(const tagTaskAnswer& answer) {
    spent_ = answer;
    view_.answered = false;
    view_.speed = {};
    view_.started = Clock::now();
}

// All bytes have arrived: the helper thread checks them and renames the part.
void Fetch::Store() {
    view_.answered = true;
    view_.percent = 100;
    phase_ = Phase::kStoring;
    Marks marks;
    if (options_.newer) marks = {view_.answer.strETag, view_.answer.strLastModified};
    const auto work = [target = target_.get(), size = view_.size, sha256 = request_.sha256,
                       address = view_.address, marks, &sync = helper_.Sync()] {
        NoteOrigin(target->Part(), address, marks);
        Outcome outcome =
            target->Store(size, sha256, [&sync](int file) { return sync.Sync(file); });
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
