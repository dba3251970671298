#include "Tarnwick/channel.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string_view>

namespace {

constexpr int kChannel = STDIN_FILENO;
constexpr std::string_view kRequestEnd = "\r\n\r\n";
constexpr auto kPatience = std::chrono::seconds(10);

// Waits a tenth of a second for something to read.
bool Readable() {
    pollfd channel{kChannel, POLLIN, 0};
    return poll(&channel, 1, 100) == 1;
}

// Whether the request's empty line has come, whatever stands behind it.
bool HasEnd(std::string_view text) {
    return text.starts_with(kRequestEnd.substr(2)) || text.find(kRequestEnd) != text.npos;
}

}  // namespace

std::string ReceiveRequest(tagTaskRequest& request, bool (*wanted)()) {
    const auto until = std::chrono::steady_clock::now() + kPatience;
    std::string text;
    while (!HasEnd(text)) {
        if (!wanted()) return "the request is not wanted any more";
        if (std::chrono::steady_clock::now() >= until) return "the request did not come in time";
        if (text.size() > TASK_REQUEST_MOST) break;
        if (!Readable()) continue;
        char piece[4096];
        const ssize_t got = recv(kChannel, piece, sizeof piece, MSG_DONTWAIT);
        if (got == -1 && (errno == EINTR || errno == EAGAIN)) continue;
        if (got == -1) return std::string("no channel for the request: ") + std::strerror(errno);
        if (got == 0) return "the request is incomplete";
        text.append(piece, static_cast<std::size_t>(got));
    }
    return DecodeRequest(text, request);
}

bool ManagerGone() {
    // Also with bytes before the end that nobody has read.
    pollfd channel{kChannel, 0, 0};
    if (poll(&channel, 1, 0) == 1) return true;
    char byte = 0;
    const ssize_t got = recv(kChannel, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    return got == 0 || (got == -1 && errno != EAGAIN && errno != EINTR);
}

void AnnounceEnd() {
    const std::string_view line = TASK_CHANNEL_END;
    static_cast<void>(send(kChannel, line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL));
}
