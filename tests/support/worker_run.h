// One run of the real worker program under a test that plays its manager: the test has the section
// and the lock and meets the worker at the binary interface only.
#pragma once

#include <semaphore.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "TaskMan/taskcontext.h"
#include "support/helpers.h"

namespace test_support {

// Makes a section of its own with mode 0600, all zero but for a constructed record that carries
// `id` in slot `index`; and the lock of that name. Everything is removed at the end, a worker that
// still runs is killed. For one thread, but for UnderLock() and Stop().
class WorkerRun {
  public:
    explicit WorkerRun(int index = 2, const std::string& id = UniqueName("task"));
    ~WorkerRun();

    // The live slot: to be filled before the start, and looked at afterwards.
    tagTaskContext& Slot(int index) const { return *SlotAt({0, mapping_, nullptr}, index); }
    tagTaskContext& Slot() const { return Slot(index_); }
    // Fills the slot with a download (command 1) of `url`: 3 tries without pauses into Output().
    void Request(const std::string& url);
    // Fills the slot with the resolution (command 0) of `page`, with 3 tries without pauses. The
    // site is asked through a proxy on 127.0.0.1.
    void RequestPage(int port, const std::string& page = "http://www.youtube.com/watch?v=ID");
    // Has the task go through a proxy on 127.0.0.1.
    void UseProxy(int port, const std::string& user = "", const std::string& password = "");
    // Path that Request() gives, in the worker's working directory.
    std::string Output() const { return directory_.Path("output"); }
    const std::string& SectionName() const { return section_; }

    // What the worker gets: task id, slot index, number of the manager; and settings for its
    // Environment().
    std::vector<std::string> arguments, environment;

    void Start();
    pid_t Pid() const { return pid_; }
    // Waits for the worker's end; false when it does not come by the deadline.
    bool Wait(std::chrono::milliseconds deadline = std::chrono::minutes(1));
    // Start() and Wait(); how it ended.
    std::string Run();
    // Start(), if that has not been, and Wait(); expects an end in good order: status 0, no
    // message, the lock free and its name gone, and nothing changed beside the slot.
    void EndWell();
    // "exit 0", "signal 6", or "running".
    std::string End() const;
    // What the worker wrote to standard error.
    std::string Errors() const { return ReadFile(directory_.Path("stderr")); }

    using Step = std::function<void(tagTaskContext&)>;
    // Calls `step` with the live slot while holding the task's lock. Throws when the lock cannot be
    // had by the deadline.
    void UnderLock(const Step& step) const;
    // Asks the worker to stop.
    void Stop() const;
    // Whether the section has the bytes of Start(), but for what `change` does to the slot.
    bool ChangedBy(const Step& change) const;

  private:
    const int index_;
    const std::string id_;
    const std::string manager_;
    const std::string section_ = SHARE_MEM_NAME + ("_" + manager_);
    TempDir directory_;
    char* mapping_ = nullptr;
    sem_t* lock_ = nullptr;
    std::string atStart_;  // all bytes of the section
    pid_t pid_ = -1;
    int status_ = -1;  // as waitpid tells; -1 while the worker runs
};

}  // namespace test_support
