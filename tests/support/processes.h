// Programs under a test: any one, the command `taskman`, and the worker, whose manager is the test.
#pragma once

#include <semaphore.h>
#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <string>
#include <vector>

#include "TaskMan/taskcontext.h"
#include "support/helpers.h"

namespace test_support {

// A program that runs in a directory of its own. Standard output and standard error go to files;
// with columns given, standard error and standard input are a terminal. It is killed, if it still
// runs, at the end of the scope. For one thread.
class ChildProcess {
  public:
    ChildProcess() = default;
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    int input = -1;   // descriptor of standard input; -1 is that of the test
    int output = -1;  // of standard output; -1 is a file
    // Settings, each "NAME=value", before those of the test, whose proxies are left out.
    std::vector<std::string> environment{"TERM=xterm", "LC_ALL=C"};

    // `command`: the program's path and its arguments.
    void Start(std::vector<std::string> command, int columns = 0);
    void Signal(int number) const { kill(pid_, number); }
    void Kill();
    // False when it has not ended by the deadline.
    bool Wait(std::chrono::milliseconds deadline = std::chrono::minutes(1));
    // Waits for the end and tells it: "exit 0", "signal 2", "running".
    std::string End();

    pid_t Pid() const { return pid_; }
    std::string Path(const std::string& name = "") const { return directory_.Path(name); }
    std::string Files() const { return directory_.Names(); }
    std::string Out() const { return ReadFile(scratch_.Path("out")); }
    std::string Err();
    // Waits until `text` stands in Err(); false when it never does.
    bool Says(const std::string& text);
    void Type(char key) const;  // on the terminal
    bool Echoes() const;        // whether the terminal shows what is typed

  private:
    bool Ended();

    TempDir directory_;
    TempDir scratch_;
    pid_t pid_ = -1;
    int status_ = -1;  // as waitpid tells; -1 while it runs
    int terminal_ = -1;
    std::string terminal_text_;
};

// The real command.
class CommandRun : public ChildProcess {
  public:
    explicit CommandRun(std::string verb = "get") : verb_(std::move(verb)) {}
    ~CommandRun();

    void Start(std::vector<std::string> arguments, int columns = 0);
    // Names in shared memory that the run has made: its section and its locks.
    std::vector<std::string> SharedNames() const;
    // Process id of a worker; waits until one has claimed its slot.
    pid_t Worker() const;

  private:
    const std::string verb_;
};

// The real worker, met at the binary interface only. Its section has mode 0600 and is all zero but
// for a constructed record that carries `id` in slot `index`; section and lock are removed at the
// end. For one thread, but for UnderLock() and Stop().
class WorkerRun : public ChildProcess {
  public:
    explicit WorkerRun(int index = 2, const std::string& id = UniqueName("task"));
    ~WorkerRun();

    // The live slots, the task's and others.
    tagTaskContext& Slot(int index) const { return *SlotAt({0, mapping_, nullptr}, index); }
    tagTaskContext& Slot() const { return Slot(index_); }
    // Fills the slot with a download (command 1) of `url`: 3 tries without pauses into Output().
    void Request(const std::string& url);
    // The same with the resolution (command 0) of `page`, through a proxy on 127.0.0.1.
    void RequestPage(int port, const std::string& page = "http://www.youtube.com/watch?v=ID");
    void UseProxy(int port, const std::string& user = "", const std::string& password = "");
    std::string Output() const { return Path("output"); }
    const std::string& Section() const { return section_; }

    // What the worker gets: task id, slot index, number of the manager.
    std::vector<std::string> arguments;

    void Start();
    // Starts the worker, unless it runs, and expects an end in good order: status 0, no message,
    // the lock free and its name gone, and nothing changed beside the slot.
    void EndWell();

    using Step = std::function<void(tagTaskContext&)>;
    // Calls `step` with the live slot while holding the task's lock.
    void UnderLock(const Step& step) const;
    void Stop() const;
    // Whether the section has the bytes of Start(), but for what `change` does to the slot.
    bool ChangedBy(const Step& change) const;

  private:
    const int index_;
    const std::string id_;
    std::string section_;
    char* mapping_ = nullptr;
    sem_t* lock_ = nullptr;
    std::string atStart_;  // all bytes of the section
};

}  // namespace test_support
