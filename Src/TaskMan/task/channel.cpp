#include "TaskMan/task/channel.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "TaskMan/tasktext.h"
#include "common/descriptors.h"
#include "common/platform.h"

namespace {

// Moves the end away from the standard streams, which this process may have closed: what is written
// to those must not get into a channel. Returns 0 or an error number.
int LeaveStandardStreams(Descriptor& end) {
    if (end.Get() > STDERR_FILENO) return 0;
    Descriptor moved(fcntl(end.Get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    if (!moved.IsOpen()) return errno;
    end = std::move(moved);
    return 0;
}

// Asks for a buffer that holds the longest text, whatever is usual on the system.
void WidenBuffer(const Descriptor& end, int option) {
    const int size = 2 * static_cast<int>(TASK_REQUEST_MOST);
    setsockopt(end.Get(), SOL_SOCKET, option, &size, sizeof size);
}

}  // namespace

Channel& Channel::operator=(Channel&& other) noexcept {
    Close();
    // In this order: a child that is forked in between closes both.
    end_ = other.end_.load();
    other.end_ = -1;
    heard_ = std::exchange(other.heard_, {});
    over_ = std::exchange(other.over_, false);
    return *this;
}

int Channel::Open(Descriptor& worker) {
    Descriptor own;
    Descriptor other;
    int error = platform::StreamPair(own, other);
    if (error == 0) error = LeaveStandardStreams(own);
    if (error == 0) error = LeaveStandardStreams(other);
    if (error != 0) return error;
    WidenBuffer(own, SO_SNDBUF);
    WidenBuffer(other, SO_RCVBUF);
    Close();
    end_ = own.Release();
    worker = std::move(other);
    return 0;
}

int Channel::Send(std::string_view text, const std::vector<int>& files) {
    heard_.clear();
    over_ = false;
    const ssize_t sent = SendWith(end_, text, files);
    if (sent == -1) return errno;
    return static_cast<std::size_t>(sent) < text.size() ? ENOBUFS : 0;
}

bool Channel::IsAmong(const std::vector<int>& told) const {
    return told.empty() || std::find(told.begin(), told.end(), Awaited()) != told.end();
}

bool Channel::Heard() {
    constexpr std::size_t kMost = 64;
    const int end = Awaited();
    if (end == -1) return false;
    char bytes[kMost];
    const ssize_t got = recv(end, bytes, kMost - heard_.size(), MSG_DONTWAIT);
    if (got == -1 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return false;
    if (got > 0) heard_.append(bytes, static_cast<std::size_t>(got));
    over_ = got <= 0 || heard_.size() == kMost;
    return true;
}

bool Channel::SaysIdle() const {
    return end_ != -1 && heard_.ends_with(TASK_CHANNEL_IDLE);
}

void Channel::Close() {
    if (const int end = end_.exchange(-1); end != -1) close(end);
}
