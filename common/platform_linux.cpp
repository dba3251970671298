#include <fcntl.h>
#include <poll.h>
#include <sys/auxv.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <ctime>

#include "common/platform.h"

namespace platform {

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

std::vector<int> WaitForEnd(const std::vector<ProcessWatch>& processes, const Waker& waker,
                            int milliseconds, const std::vector<int>& readable) {
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
    const int ended = std::max(poll(waits.data(), waits.size(), milliseconds), 0);
    if (waits.front().revents != 0) waker.Forget();
    std::vector<int> told;
    for (std::size_t i = 1; i <= readable.size(); ++i) {
        if (waits[i].revents != 0) told.push_back(waits[i].fd);
    }
    return told.size() == static_cast<std::size_t>(ended) ? told : std::vector<int>{};
}

bool ReadSharedMemory(int descriptor, void* buffer, std::size_t size, off_t offset) {
    // A mapping would end the process with SIGBUS when the bytes are not there.
    return pread(descriptor, buffer, size, offset) == static_cast<ssize_t>(size);
}

}  // namespace platform
