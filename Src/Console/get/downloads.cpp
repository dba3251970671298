#include "Console/get/downloads.h"

#include <unistd.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "Console/base/signals.h"
#include "TaskMan/manager.h"

namespace {

// Files that are begun before signals and the display have their turn.
constexpr int kMostAtOnce = 100;
// Files that run: those with a task and those with a helper thread.
constexpr std::size_t kMostRunning = 3 * TASK_SLOT_COUNT;
// For copying the rest of a list when the end is not to be held up.
constexpr std::chrono::seconds kCopyTime{1};
// For the manager to take a task while none runs.
constexpr std::chrono::seconds kRefusalTime{30};

}  // namespace

Downloads::Downloads(const GetOptions& options, InputList& list, FailedList& failed,
                     EventQueue& events, Display& display)
    : options_(options),
      list_(list),
      failed_(failed),
      events_(events),
      display_(display),
      limit_(options.limitRate),
      print_paths_(isatty(STDOUT_FILENO) != 1 && !options.display.json && !options.resolveOnly &&
                   !options.ToOutput()) {
    totals_.files = totals_.waiting = options.addresses.size();
}

bool Downloads::StartNext() {
    limit_.Update(running_);
    while (!resolved_.empty() && FreeSlotCount() > 0) {
        if (!Start(resolved_.front())) return false;
        resolved_.pop_front();
    }
    for (int i = 0; i < kMostAtOnce; ++i) {
        if (!HasRoom()) return false;
        if (next_ == nullptr) {
            Request request;
            const InputList::Taken taken = TakeRequest(request);
            if (taken != InputList::Taken::kRequest) return taken == InputList::Taken::kMore;
            next_ = std::make_unique<Fetch>(std::move(request), options_, events_);
        }
        if (!Start(next_)) return false;
        --totals_.waiting;
    }
    return true;
}

InputList::Taken Downloads::TakeRequest(Request& request) {
    if (taken_ < options_.addresses.size()) {
        const std::string name = options_.ToOutput() ? "" : options_.output;
        request = {options_.addresses[taken_++], name, options_.sha256, ""};
        return InputList::Taken::kRequest;
    }
    const InputList::Taken taken = list_.Take(request);
    if (taken == InputList::Taken::kRequest) {
        ++totals_.files;
        ++totals_.waiting;
    }
    return taken;
}

// Whether one more file may run, as far as the command is concerned.
bool Downloads::MayRun() const {
    const auto tasks = std::count_if(running_.begin(), running_.end(), [](const auto& r) {
        return r.second->Now() == Fetch::Phase::kTask;
    });
    return !stopping_ && running_.size() < kMostRunning &&
           resolved_.size() + static_cast<std::size_t>(tasks) <
               std::min(static_cast<std::size_t>(options_.jobs), limit_.MostFiles());
}

bool Downloads::HasRoom() const {
    return MayRun() && FreeSlotCount() > 0;
}

bool Downloads::MoreToBegin() const {
    return next_ != nullptr || taken_ < options_.addresses.size() || !list_.Ended();
}

int Downloads::Awaits() const {
    return next_ == nullptr && HasRoom() ? list_.Source() : -1;
}

// Begins the file or reports why it cannot be begun; it is moved away then. False when the manager
// does not take its task at present: it keeps its turn.
bool Downloads::Start(File& file) {
    bool later = false;
    std::optional<Outcome> end = Begin(*file, later);
    if (later) {
        const Clock::time_point now = Clock::now();
        if (!refused_since_) refused_since_ = now;
        // What stands in the way may never pass: with nothing else to wait for, give the file up.
        if (!running_.empty() || now - *refused_since_ < kRefusalTime) return false;
    }
    refused_since_.reset();
    if (end) {
        Report(std::move(file), std::move(*end));
        return true;
    }
    const FileView& view = file->View();
    const bool task = file->Now() == Fetch::Phase::kTask;
    running_[file->Id()] = std::move(file);
    if (task) display_.Started(view);
    return true;
}

// As Fetch::Begin, unless the outcome is known without it.
std::optional<Outcome> Downloads::Begin(Fetch& file, bool& later) {
    if (std::optional<Outcome> verdict = file.Verdict()) return verdict;
    std::optional<Outcome> end;
    do {
        std::string fault = Collision(file);
        end = fault.empty() ? file.Begin(limit_.MakeRoomFor(file, running_), later)
                            : Outcome{EndResult::kRefused, EXIT_STATUS_LOCAL, std::move(fault)};
    } while (end && file.NextName());
    return end;
}

std::string Downloads::Collision(const Fetch& file) const {
    std::vector<const Fetch*> others;
    for (const auto& [id, other] : running_) others.push_back(other.get());
    for (const File& other : resolved_) others.push_back(other.get());
    return names_.Collision(file, others);
}

// The server has given the file its name: declines it when that cannot be used.
void Downloads::Name(Fetch& file) const {
    if (file.Skips()) return file.Decline("");
    std::string fault;
    do {
        fault = Collision(file);
        if (fault.empty()) fault = file.Obstacle();
    } while (!fault.empty() && file.NextName());
    if (!fault.empty()) file.Decline(fault);
}

void Downloads::Handle(const Event& event) {
    const auto found = running_.find(event.id);
    if (found == running_.end()) return;
    Fetch& file = *found->second;
    std::optional<Outcome> end;
    if (event.kind == Event::Kind::kState && file.TakeServerName(event)) Name(file);
    if (event.kind == Event::Kind::kEnd) {
        end = event.outcome;
    } else if (!IsFinalCode(event.code)) {
        file.NoteState(event);
        display_.State(file.View(), event.code, event.value);
        if (file.TakeBeginning()) display_.Begun(file.View());
        return;
    } else {
        end = file.NoteEnd(event, stopping_);
        if (file.TakeBeginning()) display_.Begun(file.View());
        // A remark means that the manager ended the task: its worker reported nothing.
        if (event.remark.empty()) display_.State(file.View(), event.code, event.value);
    }
    if (!end && file.Now() != Fetch::Phase::kIdle) return;
    File ended = std::move(found->second);
    running_.erase(found);
    if (end) {
        Report(std::move(ended), std::move(*end));
    } else {
        resolved_.push_back(std::move(ended));
    }
}

void Downloads::Report(File file, Outcome outcome) {
    const bool there = IsThere(outcome.result);
    const bool mine = there && outcome.result != EndResult::kSkipped;
    const std::string kept = file->Release();
    Count(*file, std::move(outcome));
    if (!kept.empty()) display_.Note(kept);
    if (mine) names_.NoteWritten(file->View().path);
    if (print_paths_ && there) PrintPath(file->View().path);
}

void Downloads::PrintPath(const std::string& path) {
    // Standard output may be the same terminal.
    display_.Clear();
    std::string fault;
    if (!Print(path + "\n", fault) && !fault.empty()) display_.Fault(fault);
}

// Counts the file as ended and shows its end.
void Downloads::Count(const Fetch& file, Outcome outcome) {
    outcome.seconds = file.Seconds();
    status_ = Combine(status_, outcome.status);
    ++totals_.ended;
    switch (outcome.result) {
        case EndResult::kFinished:
            ++totals_.finished;
            totals_.finishedBytes += outcome.bytes;
            break;
        case EndResult::kSkipped:
            ++totals_.skipped;
            break;
        case EndResult::kUnchanged:
            ++totals_.unchanged;
            break;
        case EndResult::kStopped:
            ++totals_.stopped;
            [[fallthrough]];
        default:
            failed_.Add(file.Asked());
            break;
    }
    display_.Ended(file.View(), outcome);
}

std::size_t Downloads::Stop() {
    stopping_ = true;
    for (File& file : std::exchange(resolved_, {})) {
        Report(std::move(file), {EndResult::kStopped, EXIT_STATUS_STOPPED});
    }
    std::size_t asked = 0;
    for (auto it = running_.begin(); it != running_.end();) {
        Fetch& file = *it->second;
        if (file.Now() == Fetch::Phase::kChecking) {
            // The process ends by the signal, whatever the helper thread does then.
            Count(file, {EndResult::kStopped, EXIT_STATUS_STOPPED});
            unchecked_.push_back(std::move(it->second));
            it = running_.erase(it);
            continue;
        }
        if (file.Now() == Fetch::Phase::kTask) StopTask(file.Id().c_str());
        ++asked;  // also a file that is being stored: it is waited for
        ++it;
    }
    return asked;
}

void Downloads::Abandon() {
    stopping_ = true;
    for (auto& [id, file] : running_) resolved_.push_back(std::move(file));
    running_.clear();
    for (const File& file : resolved_) {
        const std::string kept = file->Abandon();
        Count(*file, {EndResult::kStopped, EXIT_STATUS_STOPPED});
        if (!kept.empty()) display_.Note(kept);
    }
    if (next_ != nullptr) next_->Abandon();
}

void Downloads::Finish(bool atOnce) {
    list_.StopWaiting();
    if (const File next = std::move(next_)) failed_.Add(next->Asked());
    CopyRest(atOnce);
    const std::string fault = failed_.Finish(!atOnce);
    if (fault.empty()) return;
    display_.Fault(fault);
    status_ = Combine(status_, EXIT_STATUS_LOCAL);
}

// Adds what was not begun to the list of what did not finish.
void Downloads::CopyRest(bool atOnce) {
    const Clock::time_point begin = Clock::now();
    while (failed_.IsOpen()) {
        Request request;
        const InputList::Taken taken = TakeRequest(request);
        if (taken == InputList::Taken::kNothing) return;
        if (taken == InputList::Taken::kRequest) failed_.Add(request, true);
        atOnce = atOnce || signals::StopCount() > 1;
        if (atOnce && Clock::now() - begin > kCopyTime) return failed_.Break();
    }
}

bool Downloads::Done() const {
    return running_.empty() && resolved_.empty() && (stopping_ || !MoreToBegin());
}

std::vector<const FileView*> Downloads::Running() const {
    std::vector<const FileView*> views;
    for (const auto& [id, file] : running_) {
        if (!file->View().id.empty()) views.push_back(&file->View());
    }
    for (const File& file : resolved_) views.push_back(&file->View());
    std::sort(views.begin(), views.end(),
              [](const FileView* a, const FileView* b) { return a->started < b->started; });
    return views;
}
