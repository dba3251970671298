#include "Console/get/helpers.h"

#include <sys/stat.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "Console/get/target.h"
#include "common/platform.h"

namespace {

// So many files are not worth a step together, in which those of others go to the disk as well.
constexpr int kHandful = 4;

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
    if (idle_ <= waiting_.size()) {
        try {
            threads_.emplace_back([this] { Work(); });
        } catch (const std::system_error&) {
            hold.unlock();
            return work();
        }
    }
    waiting_.push_back(std::move(work));
    hold.unlock();
    changed_.notify_one();
}

void Helpers::Work() {
    std::unique_lock hold(mutex_);
    for (;;) {
        ++idle_;
        changed_.wait(hold, [this] { return over_ || !waiting_.empty(); });
        --idle_;
        if (waiting_.empty()) return;
        const std::function<void()> work = std::move(waiting_.front());
        waiting_.pop_front();
        hold.unlock();
        work();
        hold.lock();
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
    // Which file it was that failed, each tells itself.
    return group->failed ? SyncFile(descriptor) : 0;
}

void HelperThread::Start(EventQueue& events, const std::string& id, std::function<Outcome()> work) {
    auto done = std::make_shared<std::promise<void>>();
    done_ = done->get_future();
    helpers_.Run([&events, id, work = std::move(work), done] {
        Event event{Event::Kind::kEnd, id};
        event.outcome = work();
        // First: who takes the event waits for this.
        done->set_value();
        events.Add(std::move(event));
    });
}

void HelperThread::Join() {
    if (done_.valid()) done_.wait();
}
