// What the files of one command do beside the main thread, where it may take long: storing a file,
// comparing a digest. Any thread may call everything.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Console/base/events.h"
#include "common/uncopyable.h"

// Brings files to the disk. A few at a time each for themselves; when there are more, those that
// come while others are at it share one step, which brings all of the file system there.
class FileSync : private Uncopyable {
  public:
    // Returns when the file is on the disk: 0; or an error number.
    int Sync(int descriptor);

  private:
    // Files of one file system that share a step.
    struct Group {
        unsigned long device = 0;
        bool done = false;
        bool failed = false;
    };

    std::mutex mutex_{};  // guards the others
    std::condition_variable changed_{};
    std::shared_ptr<Group> next_{};  // has not begun; null: there is none
    bool syncing_ = false;           // a group is at it
    int alone_ = 0;                  // files that are brought there for themselves
};

// Threads that do pieces of work, and wait for the next one in between. While the pieces are quick,
// one thread does them one after the other; when they are slow, each piece has a thread of its own.
class Helpers : private Uncopyable {
  public:
    // Waits for all work.
    ~Helpers();

    // Has a thread do the work, which throws nothing. Without a thread it is done here.
    void Run(std::function<void()> work);

    // To be called now and then: has a further thread come when work waits behind a piece that
    // turns out to be slow.
    void Hurry();

    // For what the work has to bring to the disk.
    FileSync sync{};

  private:
    bool Call();
    void Work();

    std::mutex mutex_{};  // guards the others
    std::condition_variable changed_{};
    std::deque<std::function<void()>> waiting_{};
    std::vector<std::thread> threads_{};
    std::size_t idle_ = 0;    // threads that wait, those that are called included
    std::size_t called_ = 0;  // threads, idle or new, that have been called and do not run yet
    bool slow_ = true;        // the piece that ended last was slow, or one keeps others waiting
    // When the piece at the head of `waiting_` got there.
    std::chrono::steady_clock::time_point moved_{};
    bool over_ = false;
};

// One piece of work at a time, which ends with an event of the kind kEnd that carries the outcome.
// It runs on copies; of shared objects it touches one Target, of which the main thread meanwhile
// calls const functions only.
class HelperThread : private Uncopyable {
  public:
    explicit HelperThread(Helpers& helpers) : helpers_(helpers) {}
    ~HelperThread() { Join(); }

    // Begins the work; the one before has been joined. `events` outlives it.
    void Start(EventQueue& events, const std::string& id, std::function<Outcome()> work);

    // Waits for the work, if there is any. What it shared may be changed again then.
    void Join();

    FileSync& Sync() { return helpers_.sync; }

  private:
    Helpers& helpers_;
    std::future<void> done_{};
};
