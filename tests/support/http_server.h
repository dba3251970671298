// An HTTP server inside the test program, which does exactly what a test writes down: slow, silent,
// lying and breaking servers included.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <list>
#include <mutex>

#include "support/helpers.h"

namespace test_support {

// What the server does on one connection once the request is there: the steps in their order, until
// the client is gone.
class Reply {
  public:
    // A head that announces `length`, any text or "" for none; and in one piece with it the
    // beginning of a body, or all of it.
    static Reply Head(const std::string& length, const std::string& body = "", int code = 200) {
        const std::string line = length.empty() ? "" : "Content-Length: " + length + "\r\n";
        return Reply().Send("HTTP/1.1 " + std::to_string(code) + " Scripted\r\n" + line +
                            "Connection: close\r\n\r\n" + body);
    }
    static Reply Status(int code, const std::string& body) {
        return Head(std::to_string(body.size()), body, code);
    }
    static Reply Ok(const std::string& body) { return Status(200, body); }
    static Reply Redirect(const std::string& location) {
        return Head("0\r\nLocation: " + location, "", 302);
    }

    // Sends `bytes` at once, or at about that many bytes per second.
    Reply& Send(const std::string& bytes, std::size_t bytesPerSecond = 0) {
        return Do([=](int connection) { return SendAll(connection, bytes, bytesPerSecond); });
    }
    // Sends `piece` again and again, at that rate.
    Reply& Stream(std::size_t bytesPerSecond, const std::string& piece = std::string(1000, ' ')) {
        return Do([=](int connection) {
            while (SendAll(connection, piece, bytesPerSecond)) {
            }
            return false;
        });
    }
    Reply& Pause(std::chrono::milliseconds time) {
        return Do([=](int connection) { return ClientStays(connection, time.count()); });
    }
    // Waits for a further request.
    Reply& Receive() {
        return Do([](int connection) {
            char block[4096];
            return recv(connection, block, sizeof block, 0) > 0;
        });
    }
    Reply& Silence() { return Pause(std::chrono::milliseconds(-1)); }
    // Once the client's system has what was sent; the client itself may be behind: pause first
    // when that matters.
    Reply& Reset() {
        return Do([](int connection) {
            int left = 0;
            WaitUntil([&] {
                return ioctl(connection, TIOCOUTQ, &left) != 0 || left == 0 ||
                       !ClientStays(connection, 0);
            });
            const linger atOnce{1, 0};
            setsockopt(connection, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
            return false;
        });
    }
    Reply& Then(const Reply& other) {
        steps_.insert(steps_.end(), other.steps_.begin(), other.steps_.end());
        return *this;
    }

  private:
    friend class HttpServer;
    using Step = std::function<bool(int connection)>;
    Reply& Do(Step step) { return steps_.push_back(std::move(step)), *this; }

    // Whether the client is still there after some milliseconds; -1: as long as it is.
    static bool ClientStays(int connection, std::int64_t time) {
        pollfd end{connection, POLLIN, 0};
        return poll(&end, 1, static_cast<int>(time)) == 0;
    }

    static bool SendAll(int connection, const std::string& bytes, std::size_t bytesPerSecond) {
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

    std::vector<Step> steps_;
};

// A socket on 127.0.0.1, on a port the system picks; it refuses connections until it listens.
inline int Bind(int& port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    if (bind(listener, generic, size) != 0 || getsockname(listener, generic, &size) != 0) {
        throw std::runtime_error("no server on the loopback");
    }
    port = ntohs(address.sin_port);
    return listener;
}

inline int Listen(int& port, int queue = 64) {
    const int listener = Bind(port);
    if (listen(listener, queue) != 0) throw std::runtime_error("no server on the loopback");
    return listener;
}

// Each connection carries one request and has a thread of its own; all threads have ended when the
// destructor returns. Any thread may call.
class HttpServer {
  public:
    // Chooses the reply to a request from its text and its number, the first is 0. It is called on
    // the connection's thread.
    using Script = std::function<Reply(const std::string& request, std::size_t number)>;

    explicit HttpServer(Script script) : script_(std::move(script)) {
        const int listener = Listen(port_);
        acceptor_ = std::jthread([=, this](const std::stop_token& end) { Accept(listener, end); });
    }
    // One reply per request; the last one repeats.
    explicit HttpServer(std::vector<Reply> replies)
        : HttpServer([replies = std::move(replies)](const std::string&, std::size_t number) {
              return replies.at(std::min(number, replies.size() - 1));
          }) {}

    int Port() const { return port_; }
    std::string Url(const std::string& path = "/file") const {
        return "http://127.0.0.1:" + std::to_string(port_) + path;
    }
    // The requests, to the byte, each up to the empty line.
    std::vector<std::string> Requests() const {
        std::lock_guard hold(mutex_);
        return requests_;
    }
    std::size_t RequestCount() const { return Requests().size(); }

  private:
    void Accept(int listener, const std::stop_token& end) {
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

    void Serve(int connection) {
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

    const Script script_;
    int port_ = 0;
    mutable std::mutex mutex_;  // guards the next two
    std::vector<std::string> requests_;
    std::set<int> connections_;
    std::jthread acceptor_;
};

}  // namespace test_support
