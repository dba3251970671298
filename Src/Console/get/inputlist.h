// Lists of files that are asked for: one that is read, and one that is written of those that did
// not finish. One form serves both: a line has an address and, each behind a TAB, the name and the
// SHA-256 digest of its file, which may be missing or empty; lines that begin with "#" and empty
// ones say nothing.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "Console/get/target.h"
#include "common/file.h"
#include "common/uncopyable.h"

// One file that is asked for.
struct Request {
    std::string address{};  // empty: reading the list failed
    std::string name{};     // of the file; empty: taken from the address
    std::string sha256{};   // digest; empty: not known
    std::string fault{};    // why the line is no request, in one line; empty: it is one
    std::string line{};     // with a fault: as it stands in the list
};

// Reads a list as its lines are wanted and never waits, so a pipe or a terminal may be one. Holds
// no more than one block and one line of it.
class InputList : private Uncopyable {
  public:
    // Opens the list; "-" is standard input. Returns the fault in one line; empty when it is done.
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

    // Whether all requests have been taken. So it is with a list that was not opened.
    bool Ended() const { return !file_.IsOpen() && begin_ == rest_.size(); }

    // What can be read, or is at its end, when there may be more to take; -1 when the list is read.
    int Descriptor() const { return file_.Get(); }

    // From now on only what needs no waiting is read: the rest of a regular file.
    void StopWaiting();

  private:
    bool Read(Request& failure);

    ::Descriptor file_{};
    std::string path_{};
    std::string rest_{};  // what was read last; taken up to begin_
    std::size_t begin_ = 0;
    std::size_t searched_ = 0;  // from begin_ to here there is no line end
    bool at_begin_ = true;      // no line has been taken
    bool skipping_ = false;     // up to the end of a line that was too long
};

// The list of what did not finish. Its lines are written at once into "PATH.part", which goes when
// the command is killed, like every part; the list that was there before gives way with Finish
// only, so it may be the one that is being read.
class FailedList {
  public:
    // Returns the fault in one line; empty when it is done.
    std::string Open(const std::string& path);
    bool IsOpen() const { return target_ != nullptr; }

    // Adds what the form can express; a line that was refused as it stood, so that it is again; one
    // that was too long is cut. Does nothing while no list is open. `more`: others follow at
    // once, so the line may wait for them.
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
    bool written_ = true;  // all others
};

// The request of one line; one without an address and a fault for lines that say nothing.
Request ReadListLine(std::string_view line);
