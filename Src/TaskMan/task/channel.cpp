#include "TaskMan/task/channel.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "TaskMan/tasktext.h"
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
    end_ = other.end_.exchange(-1);
    heard_ = other.heard_;
    return *this;
}

int Channel::Open(std::string_view text, Descriptor& worker) {
    Descriptor own;
    Descriptor other;
    int error = platform::StreamPair(own, other);
    if (error == 0) error = LeaveStandardStreams(own);
    if (error == 0) error = LeaveStandardStreams(other);
    if (error != 0) return error;
    WidenBuffer(own, SO_SNDBUF);
    WidenBuffer(other, SO_RCVBUF);
    const ssize_t sent = send(own.Get(), text.data(), text.size(), MSG_DONTWAIT);
    if (sent == -1) return errno;
    if (static_cast<std::size_t>(sent) < text.size()) return ENOBUFS;
    Close();
    end_ = own.Release();
    worker = std::move(other);
    return 0;
}

bool Channel::Heard() {
    const int end = Awaited();
    if (end == -1) return false;
    char bytes[64];
    const ssize_t got = recv(end, bytes, sizeof bytes, MSG_DONTWAIT);
    heard_ = got >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR);
    return heard_;
}

void Channel::Close() {
    if (const int end = end_.exchange(-1); end != -1) close(end);
}
