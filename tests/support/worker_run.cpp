#include "support/worker_run.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <mutex>
#include <new>
#include <stdexcept>

#include "common/fieldtext.h"
#include "common/platform.h"

namespace test_support {
namespace {

// A number for each run, above every process id, so that several sections can live side by side.
int ManagerNumber() {
    static std::atomic<int> count{0};
    return (1 << 30) + (getpid() & 0x3fffff) * 256 + count++ % 256;
}

// A race detector does not see what orders the accesses to a slot, which is the worker's progress,
// nor what guards the C library's list of open semaphores. It sees this.
std::mutex g_order;

}  // namespace

WorkerRun::WorkerRun(int index, const std::string& id)
    : index_(index),
      id_(id),
      manager_(ManagerNumber()),
      section_(std::string(SHARE_MEM_NAME) + "_" + std::to_string(manager_)) {
    arguments = {id, std::to_string(index), std::to_string(manager_)};
    shm_unlink(section_.c_str());
    const int descriptor = shm_open(section_.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    std::unique_lock order(g_order);
    lock_ = sem_open(id.c_str(), O_CREAT | O_EXCL, 0600, 1);
    order.unlock();
    if (lock_ == SEM_FAILED || ftruncate(descriptor, SHARE_MEM_SIZE) != 0) {
        throw std::runtime_error("no section or no lock");
    }
    mapping_ = static_cast<char*>(
        mmap(nullptr, SHARE_MEM_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0));
    close(descriptor);
    SetField((new (&Slot()) tagTaskContext)->szTaskID, id);
}

WorkerRun::~WorkerRun() {
    if (!Wait(std::chrono::milliseconds(0))) {
        kill(pid_, SIGKILL);
        waitpid(pid_, &status_, 0);
    }
    munmap(mapping_, SHARE_MEM_SIZE);
    shm_unlink(section_.c_str());
    std::lock_guard order(g_order);
    sem_close(lock_);
    sem_unlink(id_.c_str());
}

tagTaskContext& WorkerRun::Slot(int index) const {
    return *reinterpret_cast<tagTaskContext*>(mapping_ +
                                              static_cast<std::size_t>(index) * TASK_SLOT_SIZE);
}

void WorkerRun::Request(const std::string& url) {
    Slot().nCmd = TASK_CMD_DOWNLOAD;
    Slot().nTaskKind = 0;
    Slot().nTryInterval = 0;
    SetField(Slot().szDownloadUrl, url);
    SetField(Slot().szFilePath, Output());
}

void WorkerRun::RequestPage(int port, const std::string& page) {
    Slot().nCmd = TASK_CMD_PARSE;
    Slot().nTaskKind = 0;
    Slot().nTryInterval = 0;
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
    std::unique_lock order(g_order);
    atStart_.assign(mapping_, SHARE_MEM_SIZE);
    order.unlock();
    std::vector<std::string> texts{TARNWICK_PATH};
    texts.insert(texts.end(), arguments.begin(), arguments.end());
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
    EXPECT_EQ(LockValue(), 1);
    EXPECT_TRUE(RestIntact());
    std::lock_guard order(g_order);
    EXPECT_EQ(SemaphoreValue(id_), -1);
}

std::string WorkerRun::End() const {
    if (status_ == -1) return "running";
    return WIFEXITED(status_) ? "exit " + std::to_string(WEXITSTATUS(status_))
                              : "signal " + std::to_string(WTERMSIG(status_));
}

void WorkerRun::UnderLock(const std::function<void(tagTaskContext&)>& step) const {
    if (!WaitUntil([this] { return sem_trywait(lock_) == 0; })) {
        throw std::runtime_error("the lock stays taken");
    }
    std::unique_lock(g_order).unlock();
    step(Slot());
    sem_post(lock_);
}

void WorkerRun::Stop() const {
    UnderLock([](tagTaskContext& slot) { StoreControl(slot, TASK_CONTROL_STOP); });
}

int WorkerRun::LockValue() const {
    int value = -1;
    sem_getvalue(lock_, &value);
    return value;
}

bool WorkerRun::RestIntact() const {
    std::string now(mapping_, SHARE_MEM_SIZE);
    const std::size_t own = static_cast<std::size_t>(index_) * TASK_SLOT_SIZE;
    now.replace(own, TASK_SLOT_SIZE, atStart_, own, TASK_SLOT_SIZE);
    return now == atStart_;
}

std::string Difference(const tagTaskContext& actual, const tagTaskContext& expected) {
    const auto* a = reinterpret_cast<const unsigned char*>(&actual);
    const auto* b = reinterpret_cast<const unsigned char*>(&expected);
    const auto* at = std::mismatch(a, a + TASK_SLOT_SIZE, b).first;
    if (at == a + TASK_SLOT_SIZE) return "";
    return "offset " + std::to_string(at - a) + ": " + std::to_string(*at) + ", not " +
           std::to_string(b[at - a]);
}

}  // namespace test_support
