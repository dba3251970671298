#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/auxv.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <ctime>
#include <utility>

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

void CloseDescriptorsOnExec() {
    // Only flags are set: a child whose exec fails still has what it needs to say so.
    constexpr unsigned kCloseRangeCloexec = 4;
    if (syscall(SYS_close_range, 3U, UINT_MAX, kCloseRangeCloexec) == 0) return;
    // Kernels without the call; the limit may be a number of no use.
    const long limit = std::min(sysconf(_SC_OPEN_MAX), 65536L);
    for (int fd = 3; fd < limit; ++fd) fcntl(fd, F_SETFD, FD_CLOEXEC);
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

ProcessWatch::ProcessWatch(pid_t pid) : pid_(pid), descriptor_(-1) {
    if (pid < 1) return;
    descriptor_ = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    // A child that ended and was reaped before the watch began has left nothing to follow.
    if (descriptor_ == -1 && errno == ESRCH) pid_ = -1;
}

ProcessWatch::~ProcessWatch() {
    if (descriptor_ != -1) close(descriptor_);
}

ProcessWatch::ProcessWatch(ProcessWatch&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)), descriptor_(std::exchange(other.descriptor_, -1)) {}

ProcessWatch& ProcessWatch::operator=(ProcessWatch&& other) noexcept {
    std::swap(pid_, other.pid_);
    std::swap(descriptor_, other.descriptor_);
    return *this;
}

bool ProcessWatch::Gone() const {
    if (pid_ < 1) return true;
    if (descriptor_ == -1) return kill(pid_, 0) == -1 && errno == ESRCH;
    pollfd ended{descriptor_, POLLIN, 0};
    return poll(&ended, 1, 0) == 1;
}

void ProcessWatch::Signal(int number) const {
    if (pid_ < 1) return;
    if (descriptor_ == -1) {
        kill(pid_, number);
    } else {
        syscall(SYS_pidfd_send_signal, descriptor_, number, nullptr, 0);
    }
}

}  // namespace platform
