// Wakes a thread that waits for something to change.
#pragma once

#include <pthread.h>

#include <chrono>

#include "common/platform.h"

// One thread at a time waits; any thread sets. Never destroyed: the child of a fork has the state
// of a condition on which threads of its parent wait, and would wait for these when it exits.
class ManagerEvent {
  public:
    // Ends the wait that is on; when none is, the next one ends at once.
    void Set() {
        pthread_mutex_lock(&mutex_);
        set_ = true;
        pthread_mutex_unlock(&mutex_);
        pthread_cond_signal(&changed_);
    }

    // Waits for Set, at most until `deadline`.
    void Wait(std::chrono::steady_clock::time_point deadline) {
        using std::chrono::milliseconds;
        pthread_mutex_lock(&mutex_);
        while (!set_) {
            const auto left =
                std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
            if (left <= milliseconds(0)) break;
            platform::WaitCondition(&changed_, &mutex_, static_cast<int>(left.count()));
        }
        set_ = false;
        pthread_mutex_unlock(&mutex_);
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
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t changed_ = PTHREAD_COND_INITIALIZER;
    bool set_ = false;
};
