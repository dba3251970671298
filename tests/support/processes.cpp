#include "support/processes.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <new>
#include <stdexcept>

#include "TaskMan/othermanagers.h"
#include "common/fieldtext.h"
#include "common/platform.h"

namespace test_support {
namespace {

std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

}  // namespace

ChildProcess::~ChildProcess() {
    Kill();
    if (terminal_ != -1) close(terminal_);
}

void ChildProcess::Start(std::vector<std::string> command, int columns) {
    std::vector<std::string> settings = environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string name(*entry, std::strcspn(*entry, "="));
        const bool proxy = name.ends_with("_proxy") || name.ends_with("_PROXY");
        if (!proxy) settings.push_back(*entry);
    }
    // All is ready before the fork: a child of a program with threads may wait for ever for a lock
    // that one of them had, that of the memory among them.
    const std::vector<char*> argv = Pointers(command);
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
        if (chdir(directory.c_str()) == 0) execve(argv[0], argv.data(), envp.data());
        _exit(99);
    }
    if (terminal_ != -1) fcntl(terminal_, F_SETFL, O_NONBLOCK);
}

void ChildProcess::Kill() {
    if (Ended()) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, &status_, 0);
}

bool ChildProcess::Wait(std::chrono::milliseconds deadline) {
    return WaitUntil([this] { return Ended(); }, deadline);
}

std::string ChildProcess::End() {
    if (!Wait()) return "running";
    if (WIFSIGNALED(status_)) return "signal " + std::to_string(WTERMSIG(status_));
    return "exit " + std::to_string(WEXITSTATUS(status_));
}

bool ChildProcess::Ended() {
    Err();  // a terminal that nobody reads holds the program up
    return pid_ == -1 || status_ != -1 || waitpid(pid_, &status_, WNOHANG) == pid_;
}

void ChildProcess::Type(char key) const {
    EXPECT_EQ(write(terminal_, &key, 1), 1);
}

bool ChildProcess::Echoes() const {
    termios settings{};
    EXPECT_EQ(tcgetattr(terminal_, &settings), 0);
    return (settings.c_lflag & ECHO) != 0;
}

std::string ChildProcess::Err() {
    if (terminal_ == -1) return ReadFile(scratch_.Path("err"));
    char bytes[4096];
    for (ssize_t count; (count = read(terminal_, bytes, sizeof bytes)) > 0;) {
        terminal_text_.append(bytes, static_cast<std::size_t>(count));
    }
    return terminal_text_;
}

bool ChildProcess::Says(const std::string& text) {
    return WaitUntil([&] { return Err().find(text) != std::string::npos; });
}

CommandRun::~CommandRun() {
    Kill();
    for (const std::string& name : SharedNames()) shm_unlink(name.c_str());
}

void CommandRun::Start(std::vector<std::string> arguments, int columns) {
    arguments.insert(arguments.begin(), {TASKMAN_PATH, verb_});
    ChildProcess::Start(std::move(arguments), columns);
}

std::vector<std::string> CommandRun::SharedNames() const {
    char digits[16];
    std::snprintf(digits, sizeof digits, "%06x", static_cast<unsigned>(Pid()));
    std::vector<std::string> names = platform::SharedMemoryNames();
    std::erase_if(names, [&](const std::string& name) {
        return name != SectionName(Pid()) && !name.starts_with(std::string("sem.") + digits);
    });
    return names;
}

pid_t CommandRun::Worker() const {
    pid_t pid = -1;
    WaitUntil([&] {
        for (const OtherTask& task : ListTasks()) {
            if (task.nManagerPid == Pid()) pid = task.nPid;
        }
        return pid > 0;
    });
    return pid;
}

WorkerRun::WorkerRun(int index, const std::string& id) : index_(index), id_(id) {
    // Above every process id, so that several sections can live side by side.
    static std::atomic<int> number{(1 << 30) + (getpid() & 0xfffff) * 1024};
    environment.clear();
    arguments = {id, std::to_string(index), std::to_string(number++)};
    section_ = SHARE_MEM_NAME + ("_" + arguments[2]);
    const int section = shm_open(section_.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    lock_ = sem_open(id.c_str(), O_CREAT | O_EXCL, 0600, 1);
    if (lock_ == SEM_FAILED || ftruncate(section, SHARE_MEM_SIZE) != 0) {
        throw std::runtime_error("no section or no lock");
    }
    mapping_ = static_cast<char*>(
        mmap(nullptr, SHARE_MEM_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, section, 0));
    close(section);
    SetField((new (&Slot()) tagTaskContext)->szTaskID, id);
}

WorkerRun::~WorkerRun() {
    Kill();  // before its names are removed: it would make them anew
    munmap(mapping_, SHARE_MEM_SIZE);
    shm_unlink(section_.c_str());
    sem_close(lock_);
    sem_unlink(id_.c_str());
}

void WorkerRun::Request(const std::string& url) {
    Slot().nCmd = TASK_CMD_DOWNLOAD;
    Slot().nTaskKind = Slot().nTryInterval = 0;
    SetField(Slot().szDownloadUrl, url);
    SetField(Slot().szFilePath, Output());
}

void WorkerRun::RequestPage(int port, const std::string& page) {
    Request("");
    Slot().nCmd = TASK_CMD_PARSE;
    SetField(Slot().szOrgUrl, page);
    UseProxy(port);
}

void WorkerRun::UseProxy(int port, const std::string& user, const std::string& password) {
    SetField(Slot().szProxyHost, "127.0.0.1");
    SetField(Slot().szProxyUser, user);
    SetField(Slot().szProxyPassword, password);
    Slot().nProxyPort = port;
    Slot().bUseProxy = 1;
}

void WorkerRun::Start() {
    atStart_.assign(mapping_, SHARE_MEM_SIZE);
    std::vector<std::string> command = arguments;
    command.insert(command.begin(), TARNWICK_PATH);
    ChildProcess::Start(std::move(command));
}

void WorkerRun::EndWell() {
    if (Pid() == -1) Start();
    EXPECT_EQ(End(), "exit 0");
    EXPECT_EQ(Err(), "");
    EXPECT_TRUE(ChangedBy([this](tagTaskContext& slot) { CopySlot(&slot, &Slot()); }));
    EXPECT_EQ(SemaphoreValue(id_), -1);
    int value = -1;
    sem_getvalue(lock_, &value);
    EXPECT_EQ(value, 1);
}

void WorkerRun::UnderLock(const Step& step) const {
    EXPECT_TRUE(WaitUntil([this] { return sem_trywait(lock_) == 0; }));
    step(Slot());
    sem_post(lock_);
}

void WorkerRun::Stop() const {
    UnderLock([](tagTaskContext& slot) { StoreControl(slot, TASK_CONTROL_STOP); });
}

bool WorkerRun::ChangedBy(const Step& change) const {
    std::string expected = atStart_;
    change(*SlotAt({0, expected.data(), nullptr}, index_));
    return expected == std::string(mapping_, SHARE_MEM_SIZE);
}

}  // namespace test_support
