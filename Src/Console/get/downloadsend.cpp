// How files end, and how the command does.
#include <utility>

#include "Console/base/signals.h"
#include "Console/get/downloads.h"
#include "TaskMan/manager.h"

namespace {

// For copying the rest of a list when the end is not to be held up.
constexpr std::chrono::seconds kCopyTime{1};

}  // namespace

void Downloads::Report(File file, Outcome outcome) {
    const bool there = IsThere(outcome.result);
    const bool mine = there && outcome.result != EndResult::kSkipped;
    const std::string kept = file->Release();
    Count(*file, std::move(outcome));
    if (!kept.empty()) display_.Note(kept);
    if (mine) names_.NoteWritten(file->View().path);
    if (print_paths_ && there) paths_ += file->View().path + '\n';
}

void Downloads::PrintPaths() {
    if (paths_.empty()) return;
    // Standard output may be the same terminal.
    display_.Clear();
    std::string fault;
    if (!Print(std::exchange(paths_, {}), fault) && !fault.empty()) display_.Fault(fault);
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
    for (File& file : std::exchange(begun_, {})) {
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
    for (auto& [id, file] : running_) begun_.push_back(std::move(file));
    running_.clear();
    for (const File& file : begun_) {
        const std::string kept = file->Abandon();
        Count(*file, {EndResult::kStopped, EXIT_STATUS_STOPPED});
        if (!kept.empty()) display_.Note(kept);
    }
    if (next_ != nullptr) next_->Abandon();
}

void Downloads::Finish(bool atOnce) {
    list_.StopWaiting();
    if (const File next = std::move(next_)) failed_.Add(next->Asked());
    for (const File& file : std::exchange(held_, {})) failed_.Add(file->Asked(), true);
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
