#include "support/command_run.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <set>

#include "TaskMan/othermanagers.h"
#include "TaskMan/taskcontext.h"
#include "common/platform.h"

namespace test_support {

CommandRun::~CommandRun() {
    if (pid_ > 0 && !Ended()) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        for (const std::string& name : SharedNames()) shm_unlink(name.c_str());
    }
    if (terminal_ != -1) close(terminal_);
}

void CommandRun::Start(std::vector<std::string> arguments, int columns, int output) {
    arguments.insert(arguments.begin(), {TASKMAN_PATH, verb_});
    std::vector<std::string> settings = Environment(environment);
    const std::vector<char*> argv = Pointers(arguments);
    const std::vector<char*> envp = Pointers(settings);
    const std::string out = scratch_.Path("out");
    const std::string err = scratch_.Path("err");
    const std::string directory = directory_.Path();
    const winsize size{24, static_cast<unsigned short>(columns), 0, 0};
    pid_ = columns > 0 ? forkpty(&terminal_, nullptr, nullptr, &size) : fork();
    if (pid_ == 0) {
        // Terminals of other runs among them.
        platform::CloseDescriptorsOnExec();
        // Whoever runs the tests in the background has these ignored; the program would obey.
        for (const int number : {SIGINT, SIGHUP}) signal(number, SIG_DFL);
        if (output == -1) output = open(out.c_str(), O_WRONLY | O_CREAT, 0600);
        dup2(output, STDOUT_FILENO);
        if (input != -1) dup2(input, STDIN_FILENO);
        if (columns == 0) dup2(open(err.c_str(), O_WRONLY | O_CREAT, 0600), STDERR_FILENO);
        if (chdir(directory.c_str()) == 0) execve(TASKMAN_PATH, argv.data(), envp.data());
        _exit(99);
    }
    if (terminal_ != -1) fcntl(terminal_, F_SETFL, O_NONBLOCK);
}

std::string CommandRun::End() {
    if (!WaitUntil([this] { return Ended(); })) return "running";
    if (WIFSIGNALED(status_)) return "signal " + std::to_string(WTERMSIG(status_));
    return "exit " + std::to_string(WEXITSTATUS(status_));
}

bool CommandRun::Ended() {
    Err();  // a terminal that nobody reads holds the program up
    return status_ != -1 || waitpid(pid_, &status_, WNOHANG) == pid_;
}

void CommandRun::Signal(int number) const {
    kill(pid_, number);
}

void CommandRun::Type(char key) const {
    EXPECT_EQ(write(terminal_, &key, 1), 1);
}

std::string CommandRun::Err() {
    if (terminal_ == -1) return ReadFile(scratch_.Path("err"));
    char bytes[4096];
    for (ssize_t count; (count = read(terminal_, bytes, sizeof bytes)) > 0;) {
        terminal_text_.append(bytes, static_cast<std::size_t>(count));
    }
    return terminal_text_;
}

bool CommandRun::Says(const std::string& text) {
    return WaitUntil([&] { return Err().find(text) != std::string::npos; });
}

std::string CommandRun::Files() const {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory_.Path())) {
        names.insert(entry.path().filename());
    }
    std::string list;
    for (const std::string& name : names) list += (list.empty() ? "" : " ") + name;
    return list;
}

std::vector<std::string> CommandRun::SharedNames() const {
    char lock[16];
    std::snprintf(lock, sizeof lock, "sem.%06x", static_cast<unsigned>(pid_));
    const std::string list = std::string("taskman-parts_") + (lock + 4);
    std::vector<std::string> names = platform::SharedMemoryNames();
    std::erase_if(names, [&](const std::string& name) {
        return name != SectionName(pid_) && !name.starts_with(lock) && !name.starts_with(list);
    });
    return names;
}

pid_t CommandRun::Worker() const {
    pid_t pid = -1;
    WaitUntil([&] {
        for (const OtherTask& task : ListTasks()) {
            if (task.nManagerPid == pid_) pid = task.nPid;
        }
        return pid > 0;
    });
    return pid;
}

}  // namespace test_support
