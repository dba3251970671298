// A manager under many tasks at once, and what became of each of them.
#pragma once

#include <semaphore.h>

#include <atomic>
#include <chrono>
#include <list>
#include <map>
#include <mutex>
#include <random>
#include <string>

#include "TaskMan/taskman.h"
#include "common/platform.h"
#include "support/helpers.h"

namespace test_support {

using Clock = std::chrono::steady_clock;

// A number of the environment, TASKMAN_CAMPAIGN_ and `name`; `otherwise` where there is none.
unsigned Setting(const char* name, unsigned otherwise);

// What random choices begin with, printed so that a run can be repeated.
unsigned Seed();

// One task. What its callback writes is valid once `finals` is not 0.
struct Course {
    std::string id = MakeTaskID();
    platform::ProcessWatch worker;
    sem_t* lock = SEM_FAILED;
    Clock::time_point added, died, ended;
    int code = -1;
    std::string remark;
    std::atomic<int> finals{0};

    // From the death of the worker to the final callback; 0 when that came first.
    double Delay() const;
};

// Runs a manager whose worker is fault_worker.cpp. Its end checks that every task had one final
// callback and that nothing is left: no process, thread, descriptor or name, no lock that two could
// take. The calls, but for the first and the last, may come from any thread.
class Campaign {
  public:
    explicit Campaign(const std::string& worker = FAULT_WORKER_PATH);
    ~Campaign();
    Campaign(const Campaign&) = delete;
    Campaign& operator=(const Campaign&) = delete;

    // A new task: a download (command 1) of `address` into Output() of its course, or with command
    // 0 a page. An address without "http:" is what a fault worker does.
    Course& Add(const std::string& address, std::int32_t nCmd = TASK_CMD_DOWNLOAD);
    // Waits for the worker's death and for the final callback.
    static void Follow(Course& course);
    std::string Output(const Course& course) const { return directory_.Path(course.id); }
    std::size_t Refusals() const { return refusals_; }

  private:
    static void OnState(void* param, const char* id, std::int32_t code, double, std::int32_t);
    static void OnResult(void* param, const char* id, std::int32_t code, const char*,
                         std::uint32_t);
    static std::string Held();

    std::string before_;
    TempDir directory_;
    std::mutex mutex_;  // guards courses_
    std::list<Course> courses_;
    std::atomic<std::size_t> refusals_{0};
};

}  // namespace test_support
