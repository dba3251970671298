#include "support/command_run.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>

#include "TaskMan/taskcontext.h"
#include "common/platform.h"

namespace test_support {

CommandRun::~CommandRun() {
    if (pid_ > 0 && !Ended()) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        for (const std::string& name : SharedNames()) shm_unlink(name.c_str());
    }
    if (reader_.joinable()) reader_.join();
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
    for (const std::string& name : platform::SharedMemoryNames()) strangers_.insert(name);
    const winsize size{24, static_cast<unsigned short>(columns), 0, 0};
    pid_ = columns > 0 ? forkpty(&terminal_, nullptr, nullptr, &size) : fork();
    if (pid_ == 0) {
        // Terminals of other runs among them.
        platform::CloseDescriptorsOnExec();
        // Whoever runs the tests in the background has these ignored, and the program would
        // obey.
        for (const int number : {SIGINT, SIGHUP}) signal(number, SIG_DFL);
        if (output == -1) output = open(out.c_str(), O_WRONLY | O_CREAT, 0600);
        dup2(output, STDOUT_FILENO);
        if (input != -1) dup2(input, STDIN_FILENO);
        if (columns == 0) dup2(open(err.c_str(), O_WRONLY | O_CREAT, 0600), STDERR_FILENO);
        if (chdir(directory.c_str()) == 0) execve(TASKMAN_PATH, argv.data(), envp.data());
        _exit(99);
    }
    if (columns > 0) reader_ = std::thread([this] { ReadTerminal(); });
}

std::string CommandRun::End() {
    if (!WaitUntil([this] { return Ended(); })) return "running";
    if (reader_.joinable()) reader_.join();
    if (WIFSIGNALED(status_)) return "signal " + std::to_string(WTERMSIG(status_));
    return "exit " + std::to_string(WEXITSTATUS(status_));
}

void CommandRun::Signal(int number) const {
    kill(pid_, number);
}

void CommandRun::Type(char key) const {
    EXPECT_EQ(write(terminal_, &key, 1), 1);
}

std::string CommandRun::Err() {
    std::lock_guard hold(mutex_);
    return terminal_ == -1 ? ReadFile(scratch_.Path("err")) : terminal_text_;
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
    char id[16];
    std::snprintf(id, sizeof id, "%06x", static_cast<unsigned>(pid_));
    std::vector<std::string> mine;
    for (const std::string& name : platform::SharedMemoryNames()) {
        if (strangers_.count(name) > 0) continue;
        if (name == SHARE_MEM_NAME + ("_" + std::to_string(pid_)) ||
            name.find(std::string("sem.") + id) == 0) {
            mine.push_back(name);
        }
    }
    return mine;
}

pid_t CommandRun::Worker() const {
    const std::string section = SHARE_MEM_NAME + ("_" + std::to_string(pid_));
    std::int32_t pid = 0;
    WaitUntil([&] {
        const int file = shm_open(section.c_str(), O_RDONLY, 0);
        if (file == -1) return false;
        if (pread(file, &pid, sizeof pid, offsetof(tagTaskContext, nPid)) < 1) pid = 0;
        close(file);
        return pid > 0;
    });
    return pid;
}

bool CommandRun::Ended() {
    return status_ != -1 || waitpid(pid_, &status_, WNOHANG) == pid_;
}

void CommandRun::ReadTerminal() {
    char bytes[4096];
    for (ssize_t count; (count = read(terminal_, bytes, sizeof bytes)) > 0;) {
        std::lock_guard hold(mutex_);
        terminal_text_.append(bytes, static_cast<std::size_t>(count));
    }
}

}  // namespace test_support
