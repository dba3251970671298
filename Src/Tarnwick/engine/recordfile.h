// The record beside a partial file (TaskMan/partrecord.h) as its writer has it: open from before
// the first connection on, since a confined worker can make, rename and remove nothing.
//
// It is written in place: first a copy behind it, which reaches the disk, then the record itself.
// So one of the two is whole whenever the machine fails. Faults are never the transfer's: what
// cannot be written leaves what was there. One thread.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "TaskMan/partrecord.h"
#include "common/file.h"

namespace engine {

class RecordFile {
  public:
    // Opens the record of the partial file `path`, or makes an empty one, which counts as none.
    // What is no regular file of this user's, or has other names, is replaced. To be called once,
    // first; without it, the others do nothing.
    void Open(const std::string& path);

    // Takes over an empty one that is open, instead.
    void Take(Descriptor file) { file_ = std::move(file); }

    // Writes both parts, and brings them to the disk.
    void Replace(const PartRecord& record);

    // Whether Replace has been successful since it was empty.
    bool Written() const { return !first_.empty(); }

    // Writes the second part over that behind the first part that Replace has written.
    void Note(const PartRecord& record);

    // Leaves no record; should be done before the file that it tells of becomes another one.
    void Empty();

    // Removes the record of the partial file `path`, if there is one.
    static void Remove(const std::string& path);

  private:
    Descriptor file_{};
    std::string first_{};  // the first part as it was written
};

}  // namespace engine
