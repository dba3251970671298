#include <fcntl.h>
#include <mach-o/dyld.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <utility>

#include "common/platform.h"

namespace platform {

int ExecutablePath(char* buffer, std::uint32_t* size) {
    return _NSGetExecutablePath(buffer, size);
}

void CloseDescriptorsOnExec() {
    const int limit = getdtablesize();
    for (int fd = 3; fd < limit; ++fd) fcntl(fd, F_SETFD, FD_CLOEXEC);
}

int ReserveSharedMemory(int, off_t) {
    return 0;  // the system backs shared memory by anonymous memory; there is nothing to reserve
}

int WaitCondition(pthread_cond_t* condition, pthread_mutex_t* mutex, int milliseconds) {
    const timespec time{milliseconds / 1000, milliseconds % 1000 * 1'000'000L};
    return pthread_cond_timedwait_relative_np(condition, mutex, &time);
}

std::vector<std::string> SharedMemoryNames() {
    return {};
}

int RenameToNew(const char* from, const char* to) {
    return renamex_np(from, to, RENAME_EXCL) == 0 ? 0 : errno;
}

OpenFile LookAtOpenFile(pid_t, const std::string&, int) {
    return {};
}

ProcessWatch::ProcessWatch(pid_t pid) : pid_(pid), descriptor_(-1) {}

ProcessWatch::~ProcessWatch() = default;

ProcessWatch::ProcessWatch(ProcessWatch&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)), descriptor_(-1) {}

ProcessWatch& ProcessWatch::operator=(ProcessWatch&& other) noexcept {
    std::swap(pid_, other.pid_);
    return *this;
}

bool ProcessWatch::Gone() const {
    return pid_ < 1 || (kill(pid_, 0) == -1 && errno == ESRCH);
}

void ProcessWatch::Signal(int number) const {
    if (!Gone()) kill(pid_, number);
}

std::vector<Process> OwnProcesses() {
    return {};
}

std::vector<std::string> ProcessArguments(pid_t) {
    return {};
}

double ProcessAge(pid_t) {
    return -1;
}

bool MapsSharedMemory(pid_t, const std::string&) {
    return false;
}

std::vector<std::string> OwnSemaphoreNames() {
    return {};
}

bool ReadSharedMemory(int descriptor, void* buffer, std::size_t size, off_t offset) {
    // Such objects cannot be read by calls; a mapping has to begin at a page.
    struct stat status {};
    const off_t end = offset + static_cast<off_t>(size);
    if (fstat(descriptor, &status) != 0 || status.st_size < end) return false;
    void* mapping =
        mmap(nullptr, static_cast<std::size_t>(end), PROT_READ, MAP_SHARED, descriptor, 0);
    if (mapping == MAP_FAILED) return false;
    std::memcpy(buffer, static_cast<const char*>(mapping) + offset, size);
    munmap(mapping, static_cast<std::size_t>(end));
    return true;
}

bool WriteSharedMemory(int, const void*, std::size_t, off_t) {
    return false;  // the size of such an object is set once
}

}  // namespace platform
