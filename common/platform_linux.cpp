#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/auxv.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string_view>

#include "common/platform.h"

namespace platform {
namespace {

std::string ProcessFile(pid_t pid, const char* name) {
    return "/proc/" + std::to_string(pid) + "/" + name;
}

// The first kilobyte of a file; empty when it cannot be read. Without a stream, whose locale costs
// a worker memory.
std::string FirstBytes(const std::string& path) {
    char bytes[1024];
    FILE* file = std::fopen(path.c_str(), "re");
    if (file == nullptr) return {};
    const std::size_t size = std::fread(bytes, 1, sizeof bytes, file);
    std::fclose(file);
    return {bytes, size};
}

// Whether both paths lead to the same file.
bool SameFile(const std::string& one, const std::string& other) {
    struct stat first {};
    struct stat second {};
    return stat(one.c_str(), &first) == 0 && stat(other.c_str(), &second) == 0 &&
           ::SameFile(first, second);
}

// The first descriptor of the process that is of this file; -1 when there is none.
int FindDescriptor(pid_t pid, const struct stat& file) {
    const std::string path = ProcessFile(pid, "fd");
    DIR* directory = opendir(path.c_str());
    if (directory == nullptr) return -1;
    int found = -1;
    while (const dirent* entry = readdir(directory)) {
        struct stat status {};
        if (*entry->d_name == '.' || fstatat(dirfd(directory), entry->d_name, &status, 0) != 0 ||
            !::SameFile(status, file)) {
            continue;
        }
        found = static_cast<int>(std::strtol(entry->d_name, nullptr, 10));
        break;
    }
    closedir(directory);
    return found;
}

// The position of a descriptor; -1 when it is not open.
std::int64_t Position(pid_t pid, int descriptor) {
    const std::string path = ProcessFile(pid, "fdinfo/") + std::to_string(descriptor);
    FILE* info = std::fopen(path.c_str(), "re");
    if (info == nullptr) return -1;
    long long position = -1;
    if (std::fscanf(info, "pos: %lld", &position) != 1) position = -1;
    std::fclose(info);
    return position;
}

}  // namespace

int ExecutablePath(char* buffer, std::uint32_t* size) {
    const auto* path = reinterpret_cast<const char*>(getauxval(AT_EXECFN));
    if (path == nullptr) path = "";
    const std::size_t needed = std::strlen(path) + 1;
    if (needed > *size) {
        *size = static_cast<std::uint32_t>(needed);
        return -1;
    }
    std::memcpy(buffer, path, needed);
    return 0;
}

pid_t StartChild(void (*child)(const void*), const void* argument) {
    // Not clone: the sanitizers know vfork and make it safe for themselves (ThreadSanitizer forks).
    const pid_t pid = vfork();
    if (pid == 0) child(argument);  // NOLINT(clang-analyzer-unix.Vfork): it ends in exec or _exit
    return pid;
}

void CloseDescriptorsOnExec() {
    // Only flags are set: a child whose exec fails still has what it needs to say so.
    constexpr unsigned kCloseRangeCloexec = 4;
    if (syscall(SYS_close_range, 3U, UINT_MAX, kCloseRangeCloexec) == 0) return;
    // Kernels without the call; the limit may be a number of no use.
    const long limit = std::min(sysconf(_SC_OPEN_MAX), 65536L);
    for (int fd = 3; fd < limit; ++fd) fcntl(fd, F_SETFD, FD_CLOEXEC);
}

int StreamPair(Descriptor& one, Descriptor& other) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return errno;
    one = Descriptor(ends[0]);
    other = Descriptor(ends[1]);
    return 0;
}

int ReserveSharedMemory(int descriptor, off_t size) {
    int error = 0;
    do {
        error = posix_fallocate(descriptor, 0, size);
    } while (error == EINTR);
    return error;
}

int WaitCondition(pthread_cond_t* condition, pthread_mutex_t* mutex, int milliseconds) {
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    const long nanoseconds = deadline.tv_nsec + milliseconds % 1000 * 1'000'000L;
    deadline.tv_sec += milliseconds / 1000 + nanoseconds / 1'000'000'000;
    deadline.tv_nsec = nanoseconds % 1'000'000'000;
    return pthread_cond_clockwait(condition, mutex, CLOCK_MONOTONIC, &deadline);
}

std::vector<std::string> SharedMemoryNames() {
    std::vector<std::string> names;
    DIR* directory = opendir("/dev/shm");
    if (directory == nullptr) return names;
    while (const dirent* entry = readdir(directory)) names.emplace_back(entry->d_name);
    closedir(directory);
    return names;
}

OpenFile LookAtOpenFile(pid_t pid, const std::string& path, int nDescriptor) {
    struct stat file {};
    struct stat open {};
    const auto look = [&](int descriptor) {
        const std::string link = ProcessFile(pid, "fd/") + std::to_string(descriptor);
        return stat(link.c_str(), &open) == 0 && ::SameFile(open, file);
    };
    if (stat(path.c_str(), &file) != 0 || !S_ISREG(file.st_mode)) return {};
    if (nDescriptor == -1 || !look(nDescriptor)) {
        nDescriptor = FindDescriptor(pid, file);
        if (nDescriptor == -1 || !look(nDescriptor)) return {};
    }
    OpenFile found{nDescriptor, 0, 0, Modified(open), 0};
    found.nPosition = Position(pid, nDescriptor);
    if (!look(nDescriptor)) return {};
    found.nSize = open.st_size;
    found.nModifiedAfter = Modified(open);
    return found;
}

namespace {

// Whether a process has ended, by its id. A child that was not reaped stays to be reaped.
bool HasEnded(pid_t pid) {
    siginfo_t ended{};
    if (waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOHANG | WNOWAIT) == 0) {
        return ended.si_pid == pid;
    }
    return kill(pid, 0) == -1 && errno == ESRCH;
}

}  // namespace

ProcessWatch::ProcessWatch(pid_t pid) : pid_(pid) {
    if (pid < 1) return;
    file_ = std::make_shared<const Descriptor>(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    // Reaped before the watch began: the pid may be another process's later.
    if (!file_->IsOpen() && errno == ESRCH) pid_ = -1;
}

bool ProcessWatch::Gone() const {
    if (pid_ < 1) return true;
    if (!file_->IsOpen()) return HasEnded(pid_);
    pollfd ended{file_->Get(), POLLIN, 0};
    return poll(&ended, 1, 0) == 1;
}

void ProcessWatch::Signal(int number) const {
    if (pid_ < 1) return;
    if (!file_->IsOpen()) {
        kill(pid_, number);
    } else {
        syscall(SYS_pidfd_send_signal, file_->Get(), number, nullptr, 0);
    }
}

void ProcessWatch::Reap() const {
    constexpr auto kByDescriptor = static_cast<idtype_t>(3);  // P_PIDFD
    siginfo_t ended{};
    // Kernels before 5.4 know the descriptor, but do not reap by it.
    if (file_->IsOpen() &&
        (waitid(kByDescriptor, static_cast<id_t>(file_->Get()), &ended, WEXITED | WNOHANG) == 0 ||
         errno != EINVAL)) {
        return;
    }
    if (pid_ > 0) waitpid(pid_, nullptr, WNOHANG);
}

Waker::Waker() : reader_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void Waker::Wake() const {
    const int kept = errno;
    eventfd_write(reader_.Get(), 1);
    errno = kept;
}

void Waker::Forget() const {
    eventfd_t count = 0;
    eventfd_read(reader_.Get(), &count);
}

void WaitForEnd(const std::vector<ProcessWatch>& processes, const Waker& waker, int milliseconds,
                const std::vector<int>& readable) {
    constexpr int kPoll = 20;
    std::vector<pollfd> waits{{waker.reader_.Get(), POLLIN, 0}};
    for (const int descriptor : readable) waits.push_back({descriptor, POLLIN, 0});
    for (const ProcessWatch& process : processes) {
        if (process.pid_ < 1) milliseconds = 0;
        waits.push_back({process.file_->Get(), POLLIN, 0});
    }
    for (const pollfd& wait : waits) {
        if (wait.fd == -1) milliseconds = std::min(milliseconds, kPoll);
    }
    poll(waits.data(), waits.size(), milliseconds);
    waker.Forget();
}

namespace {

constexpr const char* kSharedMemory = "/dev/shm/";
constexpr const char* kSemaphorePrefix = "sem.";
constexpr std::size_t kMostOfArguments = 4096;

bool IsMine(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && status.st_uid == geteuid();
}

}  // namespace

std::vector<std::string> ProcessArguments(pid_t pid) {
    std::string text(kMostOfArguments, '\0');
    std::ifstream file(ProcessFile(pid, "cmdline"), std::ios::binary);
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(file.gcount()));
    std::vector<std::string> arguments;
    if (text.size() == kMostOfArguments) return arguments;
    std::istringstream rest(text);
    for (std::string argument; std::getline(rest, argument, '\0');) arguments.push_back(argument);
    return arguments;
}

std::vector<Process> OwnProcesses() {
    std::vector<Process> processes;
    // A /proc that belongs to another namespace has other ids.
    if (!SameFile("/proc/self", ProcessFile(getpid(), ""))) return processes;
    DIR* directory = opendir("/proc");
    if (directory == nullptr) return processes;
    while (const dirent* entry = readdir(directory)) {
        const auto pid = static_cast<pid_t>(std::strtol(entry->d_name, nullptr, 10));
        if (pid < 1 || !IsMine(ProcessFile(pid, "")) ||
            !SameFile(ProcessFile(pid, "ns/pid"), "/proc/self/ns/pid")) {
            continue;
        }
        processes.push_back({pid, ProcessArguments(pid)});
    }
    closedir(directory);
    return processes;
}

double ProcessAge(pid_t pid) {
    const std::string text = FirstBytes(ProcessFile(pid, "stat"));
    // The second field, the name, may hold blanks and brackets; the state is the third, the start
    // the 22nd.
    const std::size_t name = text.rfind(')');
    if (name == std::string::npos) return -1;
    char state = 'Z';
    double started = 0;
    timespec now{};
    if (std::sscanf(
            &text[name + 1],
            " %c %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %lf",
            &state, &started) != 2 ||
        state == 'Z' || state == 'X' || clock_gettime(CLOCK_BOOTTIME, &now) != 0) {
        return -1;
    }
    const double age = static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9 -
                       started / static_cast<double>(sysconf(_SC_CLK_TCK));
    return std::max(age, 0.0);
}

bool MapsSharedMemory(pid_t pid, const std::string& name) {
    const std::string path = kSharedMemory + name;
    std::ifstream file(ProcessFile(pid, "maps"));
    for (std::string line; std::getline(file, line);) {
        if (line.ends_with(path)) return true;
    }
    return false;
}

std::vector<std::string> OwnSemaphoreNames() {
    const std::string_view prefix = kSemaphorePrefix;
    std::vector<std::string> names;
    for (const std::string& name : SharedMemoryNames()) {
        if (!name.starts_with(prefix) || !IsMine(kSharedMemory + name)) continue;
        names.push_back(name.substr(prefix.size()));
    }
    return names;
}

bool ReadSharedMemory(int descriptor, void* buffer, std::size_t size, off_t offset) {
    // A mapping would end the process with SIGBUS when the bytes are not there.
    return pread(descriptor, buffer, size, offset) == static_cast<ssize_t>(size);
}

std::string BootId() {
    std::string id = FirstBytes("/proc/sys/kernel/random/boot_id");
    return id.substr(0, id.find('\n'));
}

}  // namespace platform
