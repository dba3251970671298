// The limit on the bytes of a transfer: a bucket that fills at the rate of the limit and that every
// byte is taken out of, whichever connection brings it.
//
// What finds too little in it waits in a row, and goes on in that order: no connection starves. The
// bucket knows no clock: times are given. One thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>

namespace engine {

class Bucket {
  public:
    using Time = std::chrono::steady_clock::time_point;

    // Sets the limit, in bytes per second; 0: none. A bucket has none, and is empty, at first.
    void SetRate(std::uint64_t rate, Time now);

    // Whether `owner`, who does not wait, may have so many bytes now. They are taken out then;
    // otherwise it waits in the row.
    bool Take(int owner, std::uint64_t bytes, Time now);

    // Takes the first of the row off it when there is enough for what it wanted: it is to take that
    // before the next call. -1 when nobody is to go on.
    int Next(Time now);

    // How long until Next has somebody, if nothing changes; the longest there is when nobody waits.
    std::chrono::steady_clock::duration Until(Time now) const;

    // `owner` waits no longer, if it did.
    void Leave(int owner);

    // Whether somebody waits, or had to at `since` or later.
    bool HeldBack(Time since) const { return !row_.empty() || (refused_ && last_ >= since); }

  private:
    struct Waiting {
        int owner;
        std::uint64_t bytes;
    };

    // What is in the bucket at that time, for somebody who wants `bytes`.
    double LevelAt(Time now, std::uint64_t bytes) const;

    double rate_ = 0.0;   // bytes per second; 0: no limit
    double level_ = 0.0;  // bytes
    Time filled_{};       // when it held these
    std::deque<Waiting> row_{};
    int turn_ = -1;  // who was taken off the row and may go before the others
    bool refused_ = false;
    Time last_{};  // time of the last refusal
};

}  // namespace engine
