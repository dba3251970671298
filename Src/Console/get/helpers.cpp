#include "Console/get/helpers.h"

#include <sys/stat.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "Console/get/target.h"
#include "common/platform.h"

namespace {

using Clock = std::chrono::steady_clock;

// So many files are not worth a step together, in which those of others go to the disk as well.
constexpr int kHandful = 4;
// A piece that takes longer is slow: it has waited for a disk, or compares a large file.
constexpr std::chrono::microseconds kQuick{500};

}  // namespace

Helpers::~Helpers() {
    {
        const std::lock_guard hold(mutex_);
        over_ = true;
    }
    changed_.notify_all();
    for (std::thread& thread : threads_) thread.join();
}

void Helpers::Run(std::function<void()> work) {
    std::unique_lock hold(mutex_);
    if (waiting_.empty()) moved_ = Clock::now();
    waiting_.push_back(std::move(work));
    const bool anyAwake = called_ > 0 || idle_ < threads_.size();
    if ((anyAwake && !slow_) || Call() || !threads_.empty()) return;
    work = std::move(waiting_.back());
    waiting_.pop_back();
    hold.unlock();
    work();
}

void Helpers::Hurry() {
    const std::lock_guard hold(mutex_);
    if (called_ >= waiting_.size() || Clock::now() - moved_ < kQuick) return;
    slow_ = true;
    Call();
}

// Calls one more thread to the work that waits. False when none can be started.
bool Helpers::Call() {
    ++called_;
    if (idle_ >= called_) {
        changed_.notify_one();
        return true;
    }
    try {
        threads_.emplace_back([this] { Work(); });
    } catch (const std::system_error&) {
        --called_;
        return false;
    }
    return true;
}

void Helpers::Work() {
    std::unique_lock hold(mutex_);
    while (!over_ || !waiting_.empty()) {
        if (called_ > 0) --called_;
        while (!waiting_.empty()) {
            const std::function<void()> work = std::move(waiting_.front());
            waiting_.pop_front();
            const Clock::time_point since = moved_ = Clock::now();
            if (slow_ && !over_ && called_ < waiting_.size()) Call();
            hold.unlock();
            work();
            hold.lock();
            slow_ = Clock::now() - since >= kQuick;
        }
        ++idle_;
        changed_.wait(hold, [this] { return over_ || called_ > 0; });
        --idle_;
    }
}

int FileSync::Sync(int descriptor) {
    struct stat status {};
    if (fstat(descriptor, &status) != 0) return errno;
    std::unique_lock hold(mutex_);
    if (alone_ < kHandful || (next_ != nullptr && next_->device != status.st_dev)) {
        ++alone_;
        hold.unlock();
        const int error = SyncFile(descriptor);
        hold.lock();
        --alone_;
        return error;
    }
    if (next_ == nullptr) next_ = std::make_shared<Group>(Group{status.st_dev});
    const std::shared_ptr<Group> group = next_;
    changed_.wait(hold, [&] { return group->done || !syncing_; });
    if (!group->done) {
        // The first one that finds nobody at it does it for all that have come until now.
        syncing_ = true;
        next_.reset();
        hold.unlock();
        const int error = platform::SyncFileSystem(descriptor);
        hold.lock();
        syncing_ = false;
        group->done = true;
        group->failed = error != 0;
        changed_.notify_all();
    }
    hold.unlock();
    // Each file asks for itself whether it was the one that failed, also when the step succeeded:
    // syncfs is silent about a failure that was reported before its own file was opened.
    return group->failed ? SyncFile(descriptor) : platform::WriteFault(descriptor);
}

void HelperThread::Start(EventQueue& events, const std::string& id, std::function<Outcome()> work) {
    auto done = std::make_shared<std::promise<void>>();
    done_ = done->get_future();
    helpers_.Run([&events, id, work = std::move(work), done] {
        Event event{Event::Kind::kEnd, id};
        event.outcome = work();
        // Before the event: whoever takes that joins this work.
        done->set_value();
        events.Add(std::move(event));
    });
}

void HelperThread::Join() {
    if (done_.valid()) done_.wait();
}
