#include "support/http_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace test_support {

using std::chrono::milliseconds;

Reply Reply::Status(int code, const std::string& body, const std::string& headers) {
    return Reply().Send("HTTP/1.1 " + std::to_string(code) +
                        " Scripted\r\nContent-Length: " + std::to_string(body.size()) +
                        "\r\nConnection: close\r\n" + headers + "\r\n" + body);
}

Reply Reply::Redirect(const std::string& location) {
    return Status(302, "elsewhere", "Location: " + location + "\r\n");
}

Reply Reply::Head(const std::string& length, const std::string& body) {
    const std::string line = length.empty() ? "" : "Content-Length: " + length + "\r\n";
    return Reply().Send("HTTP/1.1 200 OK\r\n" + line + "Connection: close\r\n\r\n" + body);
}

Reply& Reply::Add(Step step) {
    steps_.push_back(std::move(step));
    return *this;
}

Reply& Reply::Send(const std::string& bytes, std::size_t bytesPerSecond) {
    return Add([=](HttpServer& server, int connection) {
        return server.Send(connection, bytes, bytesPerSecond);
    });
}

Reply& Reply::Stream(std::size_t bytesPerSecond, const std::string& piece) {
    return Add([=](HttpServer& server, int connection) {
        while (server.Send(connection, piece, bytesPerSecond)) {
        }
        return false;
    });
}

Reply& Reply::Pause(milliseconds time) {
    return Add([=](HttpServer& server, int) { return server.Wait(time); });
}

Reply& Reply::Silence() {
    return Add([](HttpServer&, int connection) {
        char byte;
        while (recv(connection, &byte, 1, 0) > 0) {
        }
        return false;
    });
}

Reply& Reply::Reset() {
    return Add([](HttpServer&, int connection) {
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
    listener_ = socket(AF_INET, SOCK_STREAM, 0);
    if (listener_ == -1 || bind(listener_, generic, size) != 0 || listen(listener_, 64) != 0 ||
        getsockname(listener_, generic, &size) != 0) {
        throw std::runtime_error("no server on the loopback");
    }
    port_ = ntohs(address.sin_port);
    acceptor_ = std::thread([this] { Accept(); });
}

HttpServer::~HttpServer() {
    {
        std::lock_guard hold(mutex_);
        stop_ = true;
        for (int connection : connections_) shutdown(connection, SHUT_RDWR);
    }
    ending_.notify_all();
    acceptor_.join();
    for (std::thread& servant : servants_) servant.join();
    close(listener_);
}

std::string HttpServer::Url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
}

std::vector<HttpServer::Request> HttpServer::Requests() const {
    std::lock_guard hold(mutex_);
    return requests_;
}

std::size_t HttpServer::ConnectionCount() const {
    std::lock_guard hold(mutex_);
    return servants_.size();
}

void HttpServer::Accept() {
    while (Wait(milliseconds(0))) {
        pollfd arrival{listener_, POLLIN, 0};
        if (poll(&arrival, 1, 50) != 1) continue;
        const int connection = accept(listener_, nullptr, nullptr);
        if (connection == -1) continue;
        std::lock_guard hold(mutex_);
        connections_.push_back(connection);
        if (stop_) shutdown(connection, SHUT_RDWR);
        servants_.emplace_back([this, connection] { Serve(connection); });
    }
}

void HttpServer::Serve(int connection) {
    std::string text;
    char block[4096];
    while (text.find("\r\n\r\n") == std::string::npos) {
        const ssize_t count = recv(connection, block, sizeof block, 0);
        if (count <= 0) break;
        text.append(block, static_cast<std::size_t>(count));
    }
    if (!text.empty()) {
        std::unique_lock hold(mutex_);
        const std::size_t number = requests_.size();
        requests_.push_back({text, std::chrono::steady_clock::now()});
        hold.unlock();
        for (const Reply::Step& step : script_(text, number).steps_) {
            if (!step(*this, connection)) break;
        }
    }
    std::lock_guard hold(mutex_);
    connections_.remove(connection);
    close(connection);
}

bool HttpServer::Send(int connection, const std::string& bytes, std::size_t bytesPerSecond) {
    const std::size_t portion =
        bytesPerSecond == 0 ? bytes.size() : std::max<std::size_t>(bytesPerSecond / 50, 1);
    for (std::size_t done = 0; done < bytes.size();) {
        const std::size_t count = std::min(portion, bytes.size() - done);
        const ssize_t sent = send(connection, &bytes[done], count, MSG_NOSIGNAL);
        if (sent <= 0) return false;
        done += static_cast<std::size_t>(sent);
        if (bytesPerSecond != 0 && !Wait(milliseconds(1000 * count / bytesPerSecond))) return false;
    }
    return true;
}

bool HttpServer::Wait(milliseconds time) {
    std::unique_lock hold(mutex_);
    return !ending_.wait_for(hold, time, [this] { return stop_; });
}

}  // namespace test_support
