// An HTTP server inside the test program, which does exactly what a test writes down: slow, silent,
// lying and breaking servers included.
#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <set>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

namespace test_support {

// What the server does on one connection once the request is there: the steps in their order, until
// the client goes.
class Reply {
  public:
    // A head that announces `length`, any text or "" for none; and in one piece with it the
    // beginning of a body, or all of it.
    static Reply Head(const std::string& length, const std::string& body = "", int code = 200);
    static Reply Status(int code, const std::string& body) {
        return Head(std::to_string(body.size()), body, code);
    }
    static Reply Ok(const std::string& body) { return Status(200, body); }
    static Reply Redirect(const std::string& location) {
        return Head("0\r\nLocation: " + location, "", 302);
    }

    // Sends `bytes` at once, or at about that many bytes per second.
    Reply& Send(const std::string& bytes, std::size_t bytesPerSecond = 0);
    // Sends `piece` again and again, at that rate.
    Reply& Stream(std::size_t bytesPerSecond, const std::string& piece = std::string(1000, ' '));
    Reply& Pause(std::chrono::milliseconds time);
    Reply& Silence() { return Pause(std::chrono::milliseconds(-1)); }
    // What was sent just before may be lost with it: pause first.
    Reply& Reset();
    Reply& Then(const Reply& other) {
        steps_.insert(steps_.end(), other.steps_.begin(), other.steps_.end());
        return *this;
    }

  private:
    friend class HttpServer;
    using Step = std::function<bool(int connection)>;
    Reply& Do(Step step) { return steps_.push_back(std::move(step)), *this; }
    std::vector<Step> steps_;
};

// Listens on 127.0.0.1, on a port the system picks. Each connection carries one request and has a
// thread of its own; all threads have ended when the destructor returns. Any thread may call.
class HttpServer {
  public:
    // Chooses the reply to a request from its text and its number, the first is 0. It is called on
    // the connection's thread.
    using Script = std::function<Reply(const std::string& request, std::size_t number)>;

    explicit HttpServer(Script script);
    // One reply per request; the last one repeats.
    explicit HttpServer(std::vector<Reply> replies);

    int Port() const { return port_; }
    // "http://127.0.0.1:PORT" and `path`.
    std::string Url(const std::string& path = "/file") const;
    // The requests, to the byte, each up to the empty line.
    std::vector<std::string> Requests() const;
    std::size_t RequestCount() const { return Requests().size(); }

  private:
    void Accept(int listener, const std::stop_token& end);
    void Serve(int connection);

    const Script script_;
    int port_ = 0;
    mutable std::mutex mutex_;  // guards the next two
    std::vector<std::string> requests_;
    std::set<int> connections_;
    std::jthread acceptor_;
};

}  // namespace test_support
