// Wakes a thread that waits for something to change.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

// One thread at a time waits; any thread sets.
class ManagerEvent {
  public:
    // Ends the wait that is on; when none is, the next one ends at once.
    void Set() {
        const std::lock_guard hold(mutex_);
        set_ = true;
        changed_.notify_all();
    }

    // Waits for Set, at most until `deadline`.
    void Wait(std::chrono::steady_clock::time_point deadline) {
        std::unique_lock hold(mutex_);
        changed_.wait_until(hold, deadline, [this] { return set_; });
        set_ = false;
    }

    // Waits until `condition` holds; whether it does at `deadline`. What makes it hold is followed
    // by Set.
    template <class Condition>
    bool WaitUntil(std::chrono::steady_clock::time_point deadline, Condition condition) {
        while (!condition()) {
            if (std::chrono::steady_clock::now() >= deadline) return false;
            Wait(deadline);
        }
        return true;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool set_ = false;
};
