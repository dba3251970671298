#include <fcntl.h>
#include <mach-o/dyld.h>
#include <sys/event.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "common/platform.h"

namespace platform {

int ExecutablePath(char* buffer, std::uint32_t* size) {
    return _NSGetExecutablePath(buffer, size);
}

pid_t StartChild(void (*child)(const void*), const void* argument) {
    // The system advises against vfork, and its posix_spawn has no child that a failed exec ends.
    const pid_t pid = fork();
    if (pid == 0) child(argument);
    return pid;
}

void CloseDescriptorsOnExec() {
    const int limit = getdtablesize();
    for (int fd = 3; fd < limit; ++fd) fcntl(fd, F_SETFD, FD_CLOEXEC);
}

int StreamPair(Descriptor& one, Descriptor& other) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) return errno;
    for (const int end : ends) fcntl(end, F_SETFD, FD_CLOEXEC);
    one = Descriptor(ends[0]);
    other = Descriptor(ends[1]);
    return 0;
}

int ReserveSharedMemory(int, off_t) {
    return 0;  // the system backs shared memory by anonymous memory; there is nothing to reserve
}

int WaitCondition(pthread_cond_t* condition, pthread_mutex_t* mutex, int milliseconds) {
    const timespec time{milliseconds / 1000, milliseconds % 1000 * 1'000'000L};
    return pthread_cond_timedwait_relative_np(condition, mutex, &time);
}

ProcessWatch::ProcessWatch(pid_t pid) : pid_(pid) {}

bool ProcessWatch::Gone() const {
    if (pid_ < 1) return true;
    siginfo_t ended{};
    if (waitid(P_PID, static_cast<id_t>(pid_), &ended, WEXITED | WNOHANG | WNOWAIT) == 0) {
        return ended.si_pid == pid_;
    }
    return kill(pid_, 0) == -1 && errno == ESRCH;
}

void ProcessWatch::Signal(int number) const {
    if (!Gone()) kill(pid_, number);
}

void ProcessWatch::Reap() const {
    if (pid_ > 0) waitpid(pid_, nullptr, WNOHANG);
}

Waker::Waker() {
    int ends[2];
    if (pipe(ends) != 0) return;
    for (const int end : ends) {
        fcntl(end, F_SETFD, FD_CLOEXEC);
        fcntl(end, F_SETFL, O_NONBLOCK);
    }
    reader_ = Descriptor(ends[0]);
    writer_ = Descriptor(ends[1]);
}

void Waker::Wake() const {
    const int kept = errno;
    // A full pipe wakes as well.
    static_cast<void>(write(writer_.Get(), "", 1));
    errno = kept;
}

void Waker::Forget() const {
    char bytes[64];
    while (read(reader_.Get(), bytes, sizeof bytes) > 0) {
    }
}

std::vector<int> WaitForEnd(const std::vector<ProcessWatch>& processes, const Waker& waker,
                            int milliseconds, const std::vector<int>& readable) {
    constexpr int kPoll = 20;
    const Descriptor queue(kqueue());
    bool complete = queue.IsOpen();
    const auto add = [&](int identifier, short filter, unsigned note) {
        struct kevent event {};
        EV_SET(&event, static_cast<uintptr_t>(identifier), filter, EV_ADD | EV_ONESHOT, note, 0,
               nullptr);
        if (kevent(queue.Get(), &event, 1, nullptr, 0, nullptr) != 0) complete = false;
    };
    add(waker.reader_.Get(), EVFILT_READ, 0);
    for (const int descriptor : readable) add(descriptor, EVFILT_READ, 0);
    // A zombie cannot be added.
    for (const ProcessWatch& process : processes) {
        if (process.Gone()) milliseconds = 0;
        add(process.Pid(), EVFILT_PROC, NOTE_EXIT);
    }
    if (!complete) milliseconds = std::min(milliseconds, kPoll);
    const timespec time{milliseconds / 1000, milliseconds % 1000 * 1'000'000L};
    struct kevent event {};
    if (queue.IsOpen()) {
        kevent(queue.Get(), nullptr, 0, &event, 1, &time);
    } else {
        nanosleep(&time, nullptr);
    }
    waker.Forget();
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

}  // namespace platform
