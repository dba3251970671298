// One connection of a transfer: a libcurl handle that carries out one request after the other.
//
// What comes is gathered and written into the partial file at the position that the map of blocks
// tells. One thread, that of the multi handle.
#pragma once

#include <curl/curl.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Tarnwick/engine/bucket.h"
#include "Tarnwick/engine/headerlist.h"
#include "Tarnwick/engine/judge.h"
#include "Tarnwick/engine/partfile.h"
#include "Tarnwick/engine/transfer.h"
#include "common/uncopyable.h"

namespace engine {

using Clock = std::chrono::steady_clock;

// How fast something comes: a mean in which the last half seconds count most.
class Rate {
  public:
    void Begin(Clock::time_point now) {
        since_ = now;
        bytes_ = 0;
        mean_ = 0.0;
    }
    void Add(std::uint64_t bytes) { bytes_ += bytes; }
    // Bytes per second; 0 as long as nothing has come.
    double Value(Clock::time_point now);

  private:
    Clock::time_point since_{};
    std::uint64_t bytes_ = 0;  // since then
    double mean_ = 0.0;        // of the time before; 0: none
};

struct Request {
    std::string url{};
    Asked asked{};
    bool foreign = false;                // the address has another origin than that of the task
    std::vector<std::string> headers{};  // lines "Name: value" of this one
};

class Connection : private Uncopyable {
  public:
    // What the connections of a transfer share.
    struct Shared {
        CURLM* multi;
        const Task& task;  // headers and login
        Blocks& blocks;
        PartFile& file;
        Bucket& bucket;  // in which each connection has its id
        // Sets what is the same for all requests.
        std::function<void(CURL*)> prepare;
        // Judges the answer, within curl_multi_perform, once its headers are complete. With a good
        // verdict the connection has a block, whose missing bytes are those of the body.
        std::function<Judgement(Connection&)> judge;
        std::size_t gather;  // most bytes of a write
    };

    // `id` is the owner's name in the map of blocks.
    Connection(int id, const Shared& shared);
    ~Connection();

    // Begins a request; none is under way. False when there is no memory.
    bool Ask(Request request);
    // Ends the request, whether libcurl is done with it or not. What was gathered and not written
    // is missing again in the map of blocks.
    void End();
    // Ends nothing yet, but what comes from now on does not count; what was gathered is lost. May
    // be called within curl_multi_perform.
    void Drop();
    // Goes on after a pause, as its turn has come in the bucket's row: takes what libcurl has kept,
    // as if that were coming now. A code other than CURLE_OK ends the request; libcurl reports it
    // nowhere else.
    CURLcode Resume();
    // Writes what was gathered. What cannot be written is missing again in the map of blocks.
    MaybeFault Flush();
    // The judgement; made now when there is an answer without a body.
    const Judgement& JudgeLate();

    int Id() const { return id_; }
    bool Busy() const { return busy_; }
    bool Dropped() const { return dropped_; }
    bool IsJudged() const { return judged_; }
    // Whether it waits in the bucket's row, with its body kept back.
    bool Paused() const { return paused_; }
    const Request& Current() const { return request_; }
    const Answer& Last() const { return answer_; }
    const MaybeFault& WriteFault() const { return fault_; }
    // Whether there was no memory for what came.
    bool Threw() const { return threw_; }
    const char* Message() const { return error_; }
    CURL* Handle() const { return curl_; }
    // Of the last request that libcurl has sent, behind redirects; without a login.
    std::string FinalUrl() const;
    // Whether the request, or one that a redirect led away from, had a connection.
    bool HadPeer() const;
    // Bytes of this request's body that went into the file; and of all bodies.
    std::uint64_t Got() const { return got_; }
    std::uint64_t Received() const { return received_; }
    Clock::time_point AskedAt() const { return asked_at_; }
    Clock::time_point ActiveAt() const { return active_at_; }
    // Of the request, or of the one before as long as nothing has come; 0: not known.
    double BytesPerSecond(Clock::time_point now) {
        return busy_ && got_ > 0 ? rate_.Value(now) : last_rate_;
    }

    Clock::time_point rest_until{};  // when it may ask again

  private:
    static std::size_t OnHeader(char* data, std::size_t size, std::size_t count,
                                void* self) noexcept;
    static std::size_t OnBody(char* data, std::size_t size, std::size_t count, void* self) noexcept;
    void TakeHeader(std::string_view line);
    std::size_t TakeBody(const char* data, std::size_t size);
    void Forget();
    MaybeFault Flush(const char* bytes);
    bool Gather(const char* data, std::size_t size, std::uint64_t position);
    void Judge();
    bool IsChallenge() const;

    const int id_;
    const Shared& shared_;
    CURL* const curl_;
    HeaderList headers_{};
    Request request_{};
    Answer answer_{};
    Judgement judgement_{};
    MaybeFault fault_{};
    bool threw_ = false;  // also while a callback of libcurl works
    char error_[CURL_ERROR_SIZE] = "";
    bool busy_ = false;
    bool judged_ = false;
    bool dropped_ = false;
    bool paused_ = false;
    std::unique_ptr<char[]> buffer_{};
    std::size_t filled_ = 0;
    std::uint64_t begin_ = 0;  // of the buffer's bytes in the file
    std::uint64_t got_ = 0;
    std::uint64_t received_ = 0;
    Clock::time_point asked_at_{};
    Clock::time_point active_at_{};
    Rate rate_{};
    double last_rate_ = 0.0;
};

}  // namespace engine
