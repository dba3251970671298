// Lists of requested files: one to read, and one to write of those that did not finish. Both have
// the same format: a line has an address and, each after a TAB, the name and the SHA-256 digest of
// the file, which may be missing or empty. Blank lines and lines that begin with "#" are skipped.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "Console/get/target.h"
#include "common/file.h"
#include "common/uncopyable.h"

// One requested file.
struct Request {
    std::string address{};  // empty: reading the list failed
    std::string name{};     // of the file; empty: taken from the address
    std::string sha256{};   // digest; empty: not known
    std::string fault{};    // what is wrong with the line, in one line; empty: nothing
    std::string line{};     // with a fault: the line itself
};

// Reads a list on demand and never blocks, so a pipe or a terminal may be one. Holds at most a
// block and a line of it in memory.
class InputList : private Uncopyable {
  public:
    // Opens the list; "-" is standard input. Returns the fault in one line; empty when it is open.
    std::string Open(const std::string& path);

    enum class Taken {
        kRequest,  // `request` is set
        kNothing,  // nothing to read at present; Ended tells whether more can come
        kMore,     // a bounded amount was read and held no request: call again
    };

    // Takes the next request. Reads a bounded amount, so that a list without a single request (a
    // disk image, /dev/zero) cannot keep the caller. A read error is the last request, without an
    // address.
    Taken Take(Request& request);

    // Whether all requests have been taken; true for a list that was not opened.
    bool Ended() const { return !file_.IsOpen() && begin_ == rest_.size(); }

    // The descriptor that becomes readable when there may be more to take; -1: all is read.
    int Source() const { return file_.Get(); }

    // Closes the list unless it is a regular file: what a pipe or a terminal has not delivered
    // yet is not waited for.
    void StopWaiting();

  private:
    bool Read(Request& failure);

    Descriptor file_{};
    std::string path_{};
    std::string rest_{};  // the last bytes read, of which those before begin_ have been taken
    std::size_t begin_ = 0;
    std::size_t searched_ = 0;  // there is no newline between begin_ and this
    bool at_begin_ = true;      // no line has been taken
    bool skipping_ = false;     // the rest of an overlong line
};

// The list of what did not finish. Lines are written at once to "PATH.part"; only Finish replaces
// the list that was there before, so it may be the one that is being read.
class FailedList {
  public:
    // Creates "PATH.part". Returns the fault in one line; empty when the list is open.
    std::string Open(const std::string& path);
    bool IsOpen() const { return target_ != nullptr; }

    // Appends the request. A line with a fault is written back as it was, so that it has the fault
    // again; an overlong one is truncated; what the format cannot express is dropped. From the
    // first address with a password on, the list is readable for its owner only. Does nothing while
    // no list is open. `more`: others follow at once, so the line may wait for them.
    void Add(const Request& request, bool more = false);

    // Some requests could not be added: Finish leaves "PATH.part" and the list that was there.
    void Break() { written_ = false; }

    // Completes the list; `sync`: waits until it is on the disk, which may take long. Returns the
    // fault in one line; empty when it is done or none is open.
    std::string Finish(bool sync);

  private:
    void Write();

    std::unique_ptr<Target> target_{};
    std::string lines_{};  // not written yet
    bool written_ = true;  // everything else is written
};

// The request of one line; without an address and a fault when the line is to be skipped.
Request ReadListLine(std::string_view line);
