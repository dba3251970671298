#include "Tarnwick/channel.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string_view>
#include <utility>

#include "common/descriptors.h"

namespace {

constexpr int kChannel = STDIN_FILENO;
constexpr std::string_view kRequestEnd = "\r\n\r\n";
constexpr auto kPatience = std::chrono::seconds(10);
// A server that serves one connection at a time lets all others wait for one that is kept.
constexpr auto kRestAfter = std::chrono::milliseconds(500);

// Waits until there is something to read, a tenth of a second at most.
void WaitForMore() {
    pollfd channel{kChannel, POLLIN, 0};
    poll(&channel, 1, 100);
}

// The other end may be full, or closed.
void Send(std::string_view line) {
    static_cast<void>(send(kChannel, line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL));
}

// Reads the line with the id of the next task, and of the request, which comes in the same piece,
// as much as there is room for. Returns the id; empty when something else has come.
std::string ReceiveTask(std::vector<Descriptor>& files, std::string& request) {
    constexpr std::string_view kKey = TASK_CHANNEL_TASK;
    constexpr std::string_view kLineEnd = "\r\n";
    char bytes[4096];
    const ssize_t got = ReceiveWith(kChannel, bytes, sizeof bytes, files);
    const std::string_view text(bytes, got > 0 ? static_cast<std::size_t>(got) : 0);
    const std::size_t end = text.find(kLineEnd);
    if (!text.starts_with(kKey) || end == text.npos) return {};
    request = text.substr(end + kLineEnd.size());
    return std::string(text.substr(kKey.size(), end - kKey.size()));
}

// Whether the request's empty line has come, whatever stands behind it.
bool HasEnd(std::string_view text) {
    return text.starts_with(kRequestEnd.substr(2)) || text.find(kRequestEnd) != text.npos;
}

}  // namespace

std::string ReceiveRequest(tagTaskRequest& request, std::string text, bool (*wanted)()) {
    constexpr const char* kUnwanted = "the request is not wanted any more";
    const auto until = std::chrono::steady_clock::now() + kPatience;
    while (!HasEnd(text) && text.size() <= TASK_REQUEST_MOST) {
        char piece[4096];
        const ssize_t got = recv(kChannel, piece, sizeof piece, MSG_DONTWAIT);
        if (got > 0) {
            text.append(piece, static_cast<std::size_t>(got));
            continue;
        }
        if (got == 0) return "the request is incomplete";
        if (errno != EINTR && errno != EAGAIN)
            return std::string("no channel for the request: ") + std::strerror(errno);
        if (!wanted()) return kUnwanted;
        if (std::chrono::steady_clock::now() >= until) return "the request did not come in time";
        WaitForMore();
    }
    return wanted() ? DecodeRequest(text, request) : kUnwanted;
}

bool ManagerGone() {
    char byte = 0;
    const ssize_t got = recv(kChannel, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    if (got < 1) return got == 0 || (errno != EAGAIN && errno != EINTR);
    // The end may stand behind bytes that nobody has read.
    pollfd channel{kChannel, 0, 0};
    return poll(&channel, 1, 0) == 1;
}

std::string AwaitTask(std::chrono::seconds patience, std::vector<Descriptor>& files,
                      std::string& request, void (*rest)()) {
    using std::chrono::milliseconds;
    Send(TASK_CHANNEL_IDLE);
    const auto since = std::chrono::steady_clock::now();
    for (bool rested = false;;) {
        const auto until = rested ? since + patience : since + kRestAfter;
        const auto left = std::chrono::ceil<milliseconds>(until - std::chrono::steady_clock::now());
        pollfd channel{kChannel, POLLIN, 0};
        const int count =
            poll(&channel, 1, static_cast<int>(std::max(left, milliseconds(0)).count()));
        if (count == 1) return ReceiveTask(files, request);
        if (count == 0 && !std::exchange(rested, true)) {
            rest();
            continue;
        }
        if (count == 0 || errno != EINTR) return {};
    }
}

void AnnounceEnd() {
    Send(TASK_CHANNEL_END);
}
