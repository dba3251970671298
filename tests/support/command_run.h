// One run of the real command `taskman` under a test.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "support/helpers.h"

namespace test_support {

// The program runs in a directory of its own, which becomes its working directory. Standard output
// and standard error go to files; with columns given, standard error is a terminal. It is killed,
// if it still runs, at the end of the scope. For one thread.
class CommandRun {
  public:
    explicit CommandRun(std::string verb = "get") : verb_(std::move(verb)) {}
    ~CommandRun();
    CommandRun(const CommandRun&) = delete;
    CommandRun& operator=(const CommandRun&) = delete;

    // `output`: descriptor of standard output; -1 is a file.
    void Start(std::vector<std::string> arguments, int columns = 0, int output = -1);

    // Waits for the end and tells it: "exit 0", "signal 2", "running".
    std::string End();

    pid_t Pid() const { return pid_; }
    void Signal(int number) const;
    void Type(char key) const;
    std::string Path(const std::string& name) const { return directory_.Path(name); }
    std::string Out() const { return ReadFile(scratch_.Path("out")); }
    std::string Err();
    // Waits until `text` stands in Err(); false when it never does.
    bool Says(const std::string& text);

    // Names in the working directory, with a blank between them.
    std::string Files() const;

    // Names in shared memory that the run has made: its section, its list of open
    // parts and its locks.
    std::vector<std::string> SharedNames() const;

    // Process id of a worker; waits until one has claimed its slot.
    pid_t Worker() const;

    int input = -1;  // descriptor of standard input; -1 is that of the test
    std::vector<std::string> environment{"TERM=xterm", "LC_ALL=C"};

  private:
    bool Ended();

    const std::string verb_;
    TempDir directory_;
    TempDir scratch_;
    pid_t pid_ = -1;
    int status_ = -1;
    int terminal_ = -1;
    std::string terminal_text_;
};

}  // namespace test_support
