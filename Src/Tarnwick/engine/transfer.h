// The transfer of one file: requests, connections, retries, and the partial file, from the first
// request to the complete file or the reason why not.
//
// It has no state beyond its objects: several transfers in one process, each on a thread of its
// own, do not disturb each other. libcurl has to be prepared for the process before.
#pragma once

#include <curl/curl.h>

#include <functional>
#include <string>
#include <vector>

#include "Tarnwick/engine/blocks.h"
#include "Tarnwick/engine/partfile.h"
#include "TaskMan/tasktext.h"
#include "common/uncopyable.h"

namespace engine {

// Connections that outlive a transfer, with the names that were looked up for them and their TLS
// sessions: the next one to the same server finds them open, or needs no whole handshake. One
// transfer at a time uses it.
class Pool : private Uncopyable {
  public:
    Pool();
    ~Pool();
    CURLM* Multi() const { return multi_; }  // null: there was no memory

    // Has the pool know the connections that the handle opens, and share its TLS sessions with the
    // handle, which is cleaned up before the pool.
    void Watch(CURL* curl);

    // Ends those connections on which something has come since the transfers before: their end, or
    // bytes beyond an answer, which libcurl (up to 7.88 at least) would take for the next one. To
    // be called while no transfer is under way.
    void EndUnsound() const;
    // Ends all of them; names and TLS sessions stay, the latter from TLS 1.3 on: OpenSSL drops
    // those of before with a connection that was cut.
    void EndAll() const;

  private:
    static curl_socket_t Open(void* self, curlsocktype purpose, curl_sockaddr* address) noexcept;
    static int Close(void* self, curl_socket_t socket) noexcept;

    CURLM* const multi_;
    CURLSH* const sessions_;  // null: there was no memory, and each handle keeps its own sessions
    std::vector<curl_socket_t> sockets_{};
};

// What is to be fetched, and how.
struct Task {
    std::string url{};   // http or https
    std::string path{};  // of the partial file
    std::string userAgent{};
    std::vector<std::string> headers{};  // of each request, see tagTaskRequest
    std::string user{};                  // for a login at the origin of `url`; empty: none
    std::string password{};
    std::string sha256{};    // of the file when it is known: then only this proves it
    bool keeps = false;      // go on with what is there, keep a record (TaskMan/partrecord.h)
    int connections = 1;     // most of them, 1 to 10
    int answerSeconds = 30;  // to the end of an answer's headers; 0: for ever
    int stallSeconds = 20;   // without a byte; 0: for ever
    int tries = 5;           // in a row, without progress
    int waitSeconds = 10;    // longest pause between two
    bool proxied = false;    // `prepare` sets a proxy
    // Sets on each new handle what the task asks for beyond this; may be empty.
    std::function<void(CURL*)> prepare{};
    // Conditions, values of these headers, for as long as nothing of the file has come; empty:
    // none. An answer that names them ends the transfer with the reason kUnchanged.
    std::string ifNoneMatch{};
    std::string ifModifiedSince{};
    int retryAfter = 120;       // longest Retry-After in seconds that is waited for
    bool endsWhenBusy = false;  // the status 429 or 503 ends the transfer, unless others go on
    bool remoteTime = false;    // the complete file gets the time that Last-Modified tells
};

// Who wants to know how the transfer is going. Called on the transfer's thread.
class Watcher {
  public:
    virtual ~Watcher() = default;
    // Whether the transfer is to end now; asked at least ten times a second.
    virtual bool EndAsked() = 0;
    // The limit on what comes, in bytes per second; 0: none. Asked as often. What waits because of
    // it counts neither as silence nor as slow.
    virtual std::uint64_t MostPerSecond() { return 0; }
    // An answer was judged good: the size of the file, or kUnknown, and what is known so far. Once,
    // and again each time the file begins anew.
    virtual void Known(std::uint64_t size, const tagTaskAnswer& answer) = 0;
    // At least ten times a second from then on: bytes of the file that are there, which is less
    // than before when it has begun anew, and bytes of bodies that came, which never is.
    virtual void Progress(std::uint64_t there, std::uint64_t size, std::uint64_t received) = 0;
};

enum class End {
    kFinished,  // the file is complete: its size is the announced one, if one was
    kFailed,    // the answer tells why
    kStopped,   // the watcher has asked
};

struct Result {
    End end = End::kFailed;
    tagTaskAnswer answer{};
};

// Fetches the file. Always returns: after success, the last try, or within 200 ms of a stop (a file
// system that does not answer is waited for). A file that is not complete stays; when the task
// keeps it and it can be continued, with a record. `file` is the task's, open already. The
// connections come from `pool` and stay there.
Result Fetch(const Task& task, PartFile& file, Watcher& watcher, Pool& pool);

// The same with connections of its own; opens the file as well.
Result Fetch(const Task& task, Watcher& watcher);

// How a transfer ends that the fault keeps from beginning.
Result Failed(const Fault& fault);

}  // namespace engine
