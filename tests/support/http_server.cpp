#include "support/http_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <list>
#include <stdexcept>
#include <utility>

namespace test_support {
namespace {

// Whether the client is still there after some time; -1: as long as it is.
bool ClientStays(int connection, std::int64_t milliseconds) {
    pollfd end{connection, POLLIN, 0};
    return poll(&end, 1, static_cast<int>(milliseconds)) == 0;
}

bool SendAll(int connection, const std::string& bytes, std::size_t bytesPerSecond) {
    const std::size_t portion =
        bytesPerSecond == 0 ? bytes.size() : std::max<std::size_t>(bytesPerSecond / 50, 1);
    for (std::size_t done = 0; done < bytes.size();) {
        const std::size_t count = std::min(portion, bytes.size() - done);
        const ssize_t sent = send(connection, &bytes[done], count, MSG_NOSIGNAL);
        if (sent <= 0) return false;
        done += static_cast<std::size_t>(sent);
        if (bytesPerSecond == 0) continue;
        if (!ClientStays(connection, 1000 * sent / bytesPerSecond)) return false;
    }
    return true;
}

}  // namespace

Reply Reply::Head(const std::string& length, const std::string& body, int code) {
    const std::string line = length.empty() ? "" : "Content-Length: " + length + "\r\n";
    return Reply().Send("HTTP/1.1 " + std::to_string(code) + " Scripted\r\n" + line +
                        "Connection: close\r\n\r\n" + body);
}

Reply& Reply::Send(const std::string& bytes, std::size_t bytesPerSecond) {
    return Do([=](int connection) { return SendAll(connection, bytes, bytesPerSecond); });
}

Reply& Reply::Stream(std::size_t bytesPerSecond, const std::string& piece) {
    return Do([=](int connection) {
        while (SendAll(connection, piece, bytesPerSecond)) {
        }
        return false;
    });
}

Reply& Reply::Pause(std::chrono::milliseconds time) {
    return Do([=](int connection) { return ClientStays(connection, time.count()); });
}

Reply& Reply::Reset() {
    return Do([](int connection) {
        const linger atOnce{1, 0};
        setsockopt(connection, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        return false;
    });
}

HttpServer::HttpServer(std::vector<Reply> replies)
    : HttpServer([replies = std::move(replies)](const std::string&, std::size_t number) {
          return replies.at(std::min(number, replies.size() - 1));
      }) {}

HttpServer::HttpServer(Script script) : script_(std::move(script)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    if (bind(listener, generic, size) != 0 || listen(listener, 64) != 0 ||
        getsockname(listener, generic, &size) != 0) {
        throw std::runtime_error("no server on the loopback");
    }
    port_ = ntohs(address.sin_port);
    acceptor_ = std::jthread([=, this](const std::stop_token& end) { Accept(listener, end); });
}

std::string HttpServer::Url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
}

std::vector<std::string> HttpServer::Requests() const {
    std::lock_guard hold(mutex_);
    return requests_;
}

void HttpServer::Accept(int listener, const std::stop_token& end) {
    std::list<std::jthread> servants;
    while (!end.stop_requested()) {
        pollfd arrival{listener, POLLIN, 0};
        if (poll(&arrival, 1, 50) != 1) continue;
        const int connection = accept(listener, nullptr, nullptr);
        if (connection == -1) continue;
        std::lock_guard hold(mutex_);
        connections_.insert(connection);
        servants.emplace_back([this, connection] { Serve(connection); });
    }
    close(listener);
    std::lock_guard hold(mutex_);
    for (int connection : connections_) shutdown(connection, SHUT_RDWR);
}

void HttpServer::Serve(int connection) {
    std::string text;
    char block[4096];
    for (ssize_t count = 1; count > 0 && text.find("\r\n\r\n") == std::string::npos;) {
        count = recv(connection, block, sizeof block, 0);
        if (count > 0) text.append(block, static_cast<std::size_t>(count));
    }
    std::unique_lock hold(mutex_);
    if (!text.empty()) {
        const std::size_t number = requests_.size();
        requests_.push_back(text);
        hold.unlock();
        for (const Reply::Step& step : script_(text, number).steps_) {
            if (!step(connection)) break;
        }
        hold.lock();
    }
    connections_.erase(connection);
    close(connection);
}

}  // namespace test_support
