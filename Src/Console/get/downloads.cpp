#include "Console/get/downloads.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "TaskMan/manager.h"

namespace {

// Files that are begun before signals and the display have their turn.
constexpr int kMostAtOnce = 100;
// Files that run: those with a task and those with a helper thread.
constexpr std::size_t kMostRunning = 3 * TASK_SLOT_COUNT;
// Files that are held back because their hosts rest or serve enough others: those that have not
// begun, at some kilobytes each, and those that have, each with its partial file open.
constexpr std::size_t kMostHeld = 1000;
constexpr std::size_t kMostBegun = 100;
// For the manager to take a task while none runs.
constexpr std::chrono::seconds kRefusalTime{30};
// Between two tries to have it take one.
constexpr std::chrono::milliseconds kRefusalPause{100};

// Files for whose tasks the process may have descriptors.
std::size_t FilesWithDescriptors() {
    constexpr rlim_t kOfCommand = 16;  // streams, lists, section, pipes, what is open for moments
    constexpr rlim_t kOfFile = 6;      // its part twice, its record, channel, process, lock
    struct rlimit most {};
    if (getrlimit(RLIMIT_NOFILE, &most) != 0) return kMostRunning;
    const rlim_t room = std::max(most.rlim_cur, kOfCommand) - kOfCommand;
    return std::clamp<rlim_t>(room / kOfFile, 1, kMostRunning);
}

// Whether a task that ends for this reason may have had no connection at all.
bool MayLackConnection(TaskReason reason) {
    constexpr TaskReason kReasons[] = {TaskReason::kRefused, TaskReason::kNameNotFound,
                                       TaskReason::kTimeout, TaskReason::kProxy};
    return std::find(std::begin(kReasons), std::end(kReasons), reason) != std::end(kReasons);
}

}  // namespace

Downloads::Downloads(const GetOptions& options, InputList& list, FailedList& failed,
                     EventQueue& events, Display& display)
    : options_(options),
      list_(list),
      failed_(failed),
      events_(events),
      display_(display),
      room_(FilesWithDescriptors()),
      hosts_(options.perHost, options.tries.seconds),
      limit_(options.limitRate),
      print_paths_(isatty(STDOUT_FILENO) != 1 && !options.display.json && !options.resolveOnly &&
                   !options.ToOutput()) {
    totals_.files = totals_.waiting = options.addresses.size();
    totals_.more = !list.Ended();
}

bool Downloads::StartNext() {
    helpers_.Hurry();
    limit_.Update(running_);
    for (int i = 0; i < kMostAtOnce; ++i) {
        if (!HasRoom()) return false;
        bool more = false;
        if (next_ == nullptr) next_ = NextFile(more);
        if (next_ == nullptr) return more;
        const bool begun = next_->HasBegun();
        if (!Start(next_)) {
            if (begun) begun_.push_front(std::move(next_));
            return false;
        }
        if (!begun) --totals_.waiting;
    }
    return true;
}

// The first file whose host may be asked: of those that have begun, of those that were held back,
// or the next one of the list. Null when there is none; `more`: when the list may have one.
Downloads::File Downloads::NextFile(bool& more) {
    if (File file = TakeFree(begun_)) return file;
    if (File file = TakeFree(held_)) return file;
    while (LooksAhead()) {
        Request request;
        const InputList::Taken taken = TakeRequest(request);
        more = taken == InputList::Taken::kMore;
        if (taken != InputList::Taken::kRequest) return nullptr;
        auto file = std::make_unique<Fetch>(std::move(request), options_, events_, helpers_);
        if (MayBeAsked(*file)) return file;
        held_.push_back(std::move(file));
    }
    return nullptr;
}

Downloads::File Downloads::TakeFree(std::deque<File>& files) const {
    const auto found = std::find_if(files.begin(), files.end(),
                                    [this](const File& file) { return MayBeAsked(*file); });
    if (found == files.end()) return nullptr;
    File file = std::move(*found);
    files.erase(found);
    return file;
}

// Whether the host of the file may be asked for it now.
bool Downloads::MayBeAsked(const Fetch& file) const {
    const auto underWay = std::count_if(running_.begin(), running_.end(), [&](const auto& r) {
        return r.second->Now() == Fetch::Phase::kTask && r.second->Host() == file.Host();
    });
    return hosts_.MayBeAsked(file.Host(), static_cast<std::size_t>(underWay));
}

// Whether the list is read on, past files that are held back.
bool Downloads::LooksAhead() const {
    return held_.size() < kMostHeld && begun_.size() < kMostBegun;
}

InputList::Taken Downloads::TakeRequest(Request& request) {
    if (taken_ < options_.addresses.size()) {
        const std::string name = options_.ToOutput() ? "" : options_.output;
        request = {options_.addresses[taken_++], name, options_.sha256, ""};
        return InputList::Taken::kRequest;
    }
    const InputList::Taken taken = list_.Take(request);
    totals_.more = !list_.Ended();
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
    const auto most =
        std::min({static_cast<std::size_t>(options_.jobs), room_, limit_.MostFiles()});
    return !stopping_ && running_.size() < std::min(kMostRunning, 3 * room_) &&
           static_cast<std::size_t>(tasks) < most;
}

bool Downloads::HasRoom() const {
    return MayRun() && Clock::now() >= again_at_ && FreeSlotCount() > 0;
}

bool Downloads::MoreToBegin() const {
    return next_ != nullptr || !held_.empty() || taken_ < options_.addresses.size() ||
           !list_.Ended();
}

int Downloads::Awaits() const {
    return next_ == nullptr && HasRoom() && LooksAhead() ? list_.Source() : -1;
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
        if (!running_.empty() || now - *refused_since_ < kRefusalTime) {
            again_at_ = now + kRefusalPause;
            return false;
        }
    }
    if (end) {
        Report(std::move(file), std::move(*end));
        return true;
    }
    const FileView& view = file->View();
    const bool task = file->Now() == Fetch::Phase::kTask;
    if (task) refused_since_.reset();
    running_[file->Id()] = std::move(file);
    if (task) display_.Started(view);
    return true;
}

// As Fetch::Begin, unless the outcome is known without it.
std::optional<Outcome> Downloads::Begin(Fetch& file, bool& later) {
    if (std::optional<Outcome> verdict = file.Verdict()) return verdict;
    const bool once = hosts_.IsUnreached(file.Peer());
    std::optional<Outcome> end;
    do {
        std::string fault = Collision(file);
        end = fault.empty() ? file.Begin(limit_.MakeRoomFor(file, running_), once, later)
                            : Outcome{EndResult::kRefused, EXIT_STATUS_LOCAL, std::move(fault)};
    } while (end && file.NextName());
    return end;
}

std::string Downloads::Collision(const Fetch& file) const {
    std::vector<const Fetch*> others;
    for (const auto& [id, other] : running_) others.push_back(other.get());
    for (const File& other : begun_) others.push_back(other.get());
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
        NotePeer(file, event);
        display_.State(file.View(), event.code, event.value);
        if (file.TakeBeginning()) display_.Begun(file.View());
        return;
    } else {
        end = file.NoteEnd(event, stopping_);
        if (file.TakeBeginning()) display_.Begun(file.View());
        // A remark means that the manager ended the task: its worker reported nothing.
        if (event.remark.empty()) display_.State(file.View(), event.code, event.value);
        NotePeer(file, event);
        NoteHost(file, event);
    }
    if (!end && file.Now() != Fetch::Phase::kIdle) return;
    File ended = std::move(found->second);
    running_.erase(found);
    if (end) {
        Report(std::move(ended), std::move(*end));
    } else {
        begun_.push_back(std::move(ended));
    }
}

// Notes whether a download has reached where its connections go to, as far as the event tells.
void Downloads::NotePeer(const Fetch& file, const Event& event) {
    if (event.answer.bReached || event.code == DOWNLOAD_STATE_DOWNLOAD_START) {
        hosts_.NoteReached(file.Peer());
    } else if (event.code == DOWNLOAD_STATE_DOWNLOAD_FAIL && event.remark.empty() &&
               MayLackConnection(event.answer.Reason)) {
        hosts_.NoteUnreached(file.Peer());
    }
}

// Has the host of the file rest, when it is busy.
void Downloads::NoteHost(Fetch& file, const Event& event) {
    if (event.answer.nConnections > 0) hosts_.NoteServed(file.Host());
    if (event.code == DOWNLOAD_STATE_DOWNLOAD_FINISH) ForgiveOthers(file.Host());
    const std::optional<int> asked = file.TakeRest();
    if (!asked) return;
    // A host that serves others of this command has but reached its number of connections.
    const auto served = [&file](const auto& r) {
        return r.second->Now() == Fetch::Phase::kTask && r.second->Host() == file.Host() &&
               r.second->View().answer.nConnections > 0;
    };
    if (std::any_of(running_.begin(), running_.end(), served)) file.ForgiveTry();
    const double seconds = hosts_.Rest(file.Host(), *asked);
    if (seconds > 0) display_.Resting(file.Host(), seconds);
}

// The host has served a whole file: those that it refuses meanwhile are served in their turn.
void Downloads::ForgiveOthers(const std::string& host) {
    for (const File& other : begun_) {
        if (other->Host() == host) other->ForgiveTries();
    }
    for (const auto& [id, other] : running_) {
        if (other->Host() == host) other->ForgiveTries();
    }
}

bool Downloads::Done() const {
    return running_.empty() && begun_.empty() && (stopping_ || !MoreToBegin());
}

std::vector<const FileView*> Downloads::Running() const {
    std::vector<const FileView*> views;
    for (const auto& [id, file] : running_) {
        if (!file->View().id.empty()) views.push_back(&file->View());
    }
    for (const File& file : begun_) views.push_back(&file->View());
    std::sort(views.begin(), views.end(),
              [](const FileView* a, const FileView* b) { return a->started < b->started; });
    return views;
}
