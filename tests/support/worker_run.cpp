#include "support/worker_run.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <new>
#include <stdexcept>

#include "common/fieldtext.h"
#include "common/platform.h"

namespace test_support {
namespace {

// A number for each run, above every process id, so that several sections can live side by side.
std::string ManagerNumber() {
    static std::atomic<int> number{(1 << 30) + (getpid() & 0xfffff) * 1024};
    return std::to_string(number++);
}

}  // namespace

WorkerRun::WorkerRun(int index, const std::string& id)
    : index_(index), id_(id), manager_(ManagerNumber()) {
    arguments = {id, std::to_string(index), manager_};
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
    if (!Wait(std::chrono::milliseconds(0))) {
        kill(pid_, SIGKILL);
        waitpid(pid_, &status_, 0);
    }
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
    std::vector<std::string> texts = arguments;
    texts.insert(texts.begin(), TARNWICK_PATH);
    std::vector<std::string> settings = Environment(environment);
    const std::vector<char*> argv = Pointers(texts);
    const std::vector<char*> envp = Pointers(settings);
    const std::string errors = directory_.Path("stderr");
    const std::string working = directory_.Path();
    pid_ = fork();
    if (pid_ != 0) return;
    platform::CloseDescriptorsOnExec();
    dup2(open(errors.c_str(), O_WRONLY | O_CREAT, 0600), STDERR_FILENO);
    if (chdir(working.c_str()) == 0) execve(argv[0], argv.data(), envp.data());
    _exit(127);
}

bool WorkerRun::Wait(std::chrono::milliseconds deadline) {
    if (pid_ == -1) return true;
    return WaitUntil([this] { return status_ != -1 || waitpid(pid_, &status_, WNOHANG) == pid_; },
                     deadline);
}

std::string WorkerRun::Run() {
    Start();
    Wait();
    return End();
}

void WorkerRun::EndWell() {
    if (pid_ == -1) Start();
    Wait();
    EXPECT_EQ(End(), "exit 0");
    EXPECT_EQ(Errors(), "");
    EXPECT_TRUE(ChangedBy([this](tagTaskContext& slot) { CopySlot(&slot, &Slot()); }));
    EXPECT_EQ(SemaphoreValue(id_), -1);
    int value = -1;
    sem_getvalue(lock_, &value);
    EXPECT_EQ(value, 1);
}

std::string WorkerRun::End() const {
    if (status_ == -1) return "running";
    return WIFEXITED(status_) ? "exit " + std::to_string(WEXITSTATUS(status_))
                              : "signal " + std::to_string(WTERMSIG(status_));
}

void WorkerRun::UnderLock(const Step& step) const {
    if (!WaitUntil([this] { return sem_trywait(lock_) == 0; })) {
        throw std::runtime_error("the lock stays taken");
    }
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
