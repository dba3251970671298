#include "Console/downloads.h"

#include <semaphore.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "Console/filename.h"
#include "Console/tasks.h"
#include "Console/text.h"
#include "Console/videopage.h"
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

}  // namespace

Downloads::Downloads(const GetOptions& options, EventQueue& events, Display& display)
    : options_(options),
      events_(events),
      display_(display),
      print_paths_(!options.display.json && isatty(STDOUT_FILENO) != 1) {
    for (const std::string& address : options.addresses) {
        files_.push_back(std::make_unique<File>());
        files_.back()->address = address;
        files_.back()->page = options.format.Given();
        Plan(*files_.back());
    }
    totals_.files = totals_.waiting = files_.size();
}

Downloads::~Downloads() {
    for (const auto& file : files_) {
        if (file->store.joinable()) file->store.join();
    }
}

void Downloads::Plan(File& file) {
    file.fault = AddressFault(file.address);
    if (!file.fault.empty() || file.page) {
        file.view.name = text::CutMiddle(text::Printable(file.address), kMostOfAddress);
    } else {
        Aim(file, NameFromAddress(file.address));
    }
}

// Sets the path of the file, which gets `name` unless the user has named it.
void Downloads::Aim(File& file, const std::string& name) {
    const std::string& wanted = options_.output.empty() ? name : options_.output;
    file.target = std::make_unique<Target>(Join(options_.directory, wanted), options_.force);
    file.view.name = text::Printable(BaseName(file.target->Path()));
}

void Downloads::StartNext() {
    while (!resolved_.empty() && FreeSlotCount() > 0) {
        if (!Start(*resolved_.front())) return;
        resolved_.pop_front();
    }
    while (!stopping_ && next_ < files_.size() &&
           TaskCount() < static_cast<std::size_t>(options_.jobs) && FreeSlotCount() > 0) {
        if (!Start(*files_[next_])) return;
        ++next_;
        --totals_.waiting;
    }
}

// False when the manager has no room after all: the file keeps its turn.
bool Downloads::Start(File& file) {
    Outcome refusal = Refusal(file);
    if (refusal.result == EndResult::kFinished) {
        std::string reason;
        file.id = MakeTaskID();
        if (AddTaskFor(file, reason)) {
            file.view.started = Clock::now();
            running_[file.id] = &file;
            display_.Begin(file.view);
            return true;
        }
        if (FreeSlotCount() == 0) return false;
        refusal = {EndResult::kRefused, EXIT_STATUS_FAILED, reason};
    }
    Report(file, std::move(refusal));
    return true;
}

// Opens the target. A finished outcome when nothing speaks against the start.
Outcome Downloads::Refusal(File& file) {
    if (!file.fault.empty()) return {EndResult::kRefused, EXIT_STATUS_USAGE, file.fault};
    if (file.page || file.target->IsOpen()) return {};
    const std::string& path = file.target->Path();
    const std::string& part = file.target->PartPath();
    if (claimed_.count(path) + claimed_.count(part) > 0) {
        return {EndResult::kRefused, EXIT_STATUS_LOCAL,
                "another URL of this command goes to " + path};
    }
    claimed_.insert({path, part});
    std::string fault = file.target->Open();
    if (fault.empty()) return {};
    return {EndResult::kRefused, EXIT_STATUS_LOCAL, std::move(fault)};
}

bool Downloads::AddTaskFor(File& file, std::string& reason) {
    if (file.page) return AddPageTask(file.id, file.address, options_.proxy, events_, reason);
    tagTaskInfo task = NewTask(file.id, options_.proxy, events_);
    SetField(task.szDownloadUrl, file.address);
    SetField(task.szFilePath, file.target->PartPath());
    task.nCmd = TASK_CMD_DOWNLOAD;
    task.nBlockCount = kBlocks;
    return AddTask(task, reason) == 0;
}

void Downloads::Handle(const Event& event) {
    const auto found = running_.find(event.id);
    if (found == running_.end()) return;
    File& file = *found->second;
    if (event.kind == Event::Kind::kStored) {
        running_.erase(found);
        Report(file, event.outcome);
        return;
    }
    if ((FINAL_STATE_BITS >> event.code & 1U) != 0) {
        Ended(file, event);
        return;
    }
    FileView& view = file.view;
    switch (event.code) {
        case DOWNLOAD_STATE_FILE_SIZE:
            view.size = Sane(event.value, 1e18);
            break;
        case DOWNLOAD_STATE_PROGRESS:
            view.percent = Sane(event.value, 100);
            break;
        case DOWNLOAD_STATE_SPEED:
            view.speed = Sane(event.value, 1e12);
            break;
        default:
            break;
    }
    if (!file.page && event.code != DOWNLOAD_STATE_FILE_SIZE) view.answered = true;
    display_.State(view, event.code, event.value);
}

void Downloads::Ended(File& file, const Event& event) {
    file.seconds = std::chrono::duration<double>(Clock::now() - file.view.started).count();
    if (event.size > 0) file.view.size = event.size;
    if (event.code == DOWNLOAD_STATE_DOWNLOAD_FINISH) {
        Store(file);
        return;
    }
    running_.erase(event.id);
    if (file.page && event.code == DOWNLOAD_STATE_PARSE_FINISH && !stopping_) {
        return Resolved(file, event);
    }
    Report(file, FailureOf(file, event));
}

// The page gives the file its name and its address; from here on it is like any other.
void Downloads::Resolved(File& file, const Event& event) {
    const VideoPage page = ReadVideoPage(event.text);
    const VideoFormat* format = Choose(page, options_.format);
    if (format == nullptr) {
        return Report(file,
                      {EndResult::kFailed, EXIT_STATUS_UNRESOLVED, "the page has no such format"});
    }
    file.page = false;
    file.address = format->address;
    file.fault = AddressFault(file.address);
    Aim(file, NameFromTitle(page.title));
    resolved_.push_back(&file);
}

Outcome Downloads::FailureOf(const File& file, const Event& event) const {
    if (stopping_) return {EndResult::kStopped, EXIT_STATUS_STOPPED};
    if (file.page) return PageFailure(file.address, event);
    if (event.code == DOWNLOAD_STATE_STOPPED) {
        return {EndResult::kStopped, EXIT_STATUS_STOPPED, event.remark};
    }
    if (!event.remark.empty()) return {EndResult::kDied, EXIT_STATUS_FAILED, event.remark};
    if (Outcome local = file.target->LocalFault(file.view.size);
        local.result != EndResult::kFinished) {
        return local;
    }
    const FileView& view = file.view;
    std::string reason =
        view.size < 0 ? "the server offered no file of known size" : "the transfer broke off";
    if (view.percent > 0) reason += " at " + std::to_string(static_cast<int>(view.percent)) + " %";
    return {EndResult::kFailed, EXIT_STATUS_FAILED, std::move(reason)};
}

// The last step waits for the disk, so it has a thread of its own.
void Downloads::Store(File& file) {
    file.storing = true;
    file.view.answered = true;
    file.view.percent = 100;
    file.store = std::thread([this, &file, size = file.view.size] {
        Event event{Event::Kind::kStored, file.id};
        event.outcome = file.target->Store(size);
        events_.Add(std::move(event));
    });
}

void Downloads::Report(File& file, Outcome outcome) {
    outcome.seconds = file.seconds;
    Tell(file, outcome);
    if (outcome.result == EndResult::kFinished && print_paths_) {
        Print(file.target->Path() + "\n");
    }
    if (file.store.joinable()) file.store.join();
    file.target.reset();
}

void Downloads::Tell(const File& file, const Outcome& outcome) {
    status_ = Combine(status_, outcome.status);
    ++totals_.ended;
    if (outcome.result == EndResult::kStopped) ++totals_.stopped;
    if (outcome.result == EndResult::kFinished) {
        ++totals_.finished;
        totals_.finishedBytes += outcome.bytes;
    }
    display_.End(file.view, outcome);
}

std::size_t Downloads::Stop() {
    stopping_ = true;
    for (File* file : std::exchange(resolved_, {})) {
        Report(*file, {EndResult::kStopped, EXIT_STATUS_STOPPED});
    }
    std::size_t asked = 0;
    for (const auto& [id, file] : running_) {
        if (!file->storing && StopTask(id.c_str()) == 0) ++asked;
    }
    return asked;
}

void Downloads::Abandon() {
    for (const auto& [id, file] : running_) {
        sem_unlink(id.c_str());
        Tell(*file, {EndResult::kStopped, EXIT_STATUS_STOPPED});
    }
    for (const auto& file : files_) {
        if (file->target != nullptr) file->target->RemovePart();
    }
}

bool Downloads::Done() const {
    return running_.empty() && resolved_.empty() && (stopping_ || next_ == files_.size());
}

std::size_t Downloads::TaskCount() const {
    const auto tasks = std::count_if(running_.begin(), running_.end(),
                                     [](const auto& r) { return !r.second->storing; });
    return resolved_.size() + static_cast<std::size_t>(tasks);
}

std::vector<const FileView*> Downloads::Running() const {
    std::vector<const FileView*> views;
    for (const auto& [id, file] : running_) views.push_back(&file->view);
    for (const File* file : resolved_) views.push_back(&file->view);
    std::sort(views.begin(), views.end(),
              [](const FileView* a, const FileView* b) { return a->started < b->started; });
    return views;
}
