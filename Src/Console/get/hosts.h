// Which hosts may be asked for one more file. A host is what the address of a file names: the name
// in lower case and the port, unless that is the usual one of the scheme. Where redirects lead does
// not count.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>

#include "Console/screen/display.h"

// One thread at a time. An empty host is none, and may always be asked.
class Hosts {
  public:
    // `most`: files of one host at a time; 0: any number. `longest`: of the pauses that a busy host
    // does not name itself, seconds.
    Hosts(int most, int longest) : most_(most), longest_(longest) {}

    // Whether the host may be asked for one more file, in addition to those that are under way.
    bool MayBeAsked(const std::string& host, std::size_t underWay) const;

    // The host is busy: it rests for as many seconds as it asks for, or, with 0, after each time in
    // a row for longer. Returns the seconds from now on; 0 when it was resting already, and for no
    // shorter time.
    double Rest(const std::string& host, int seconds);

    // A task that the host has served has ended: it may serve another one. A rest that the host has
    // asked for goes on.
    void NoteServed(const std::string& host);

    // A task has reached the host, or has used up its tries without reaching it.
    void NoteReached(const std::string& host) { reached_[host] = true; }
    void NoteUnreached(const std::string& host) { reached_.try_emplace(host, false); }

    // Whether tasks have only failed to reach the host. One that was reached may come back: it is
    // worth all tries.
    bool IsUnreached(const std::string& host) const;

  private:
    struct Resting {
        Clock::time_point until{};
        int times = 0;        // in a row
        bool wished = false;  // by the host itself
    };

    const int most_;
    const int longest_;
    std::map<std::string, Resting> rests_{};
    std::map<std::string, bool> reached_{};  // where that is known
};

// The host of an http or https address.
std::string HostOf(std::string_view address);
