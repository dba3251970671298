// The partial file of a download, and the record beside it that lets a later run go on.
//
// With a record, the file has a companion PATH.info (TaskMan/partrecord.h). That is never the
// reason of a failure: where it cannot be replaced, what an earlier one says stays true. The file's
// lock is the application's business; where locks are only pretended, the writer in the record
// counts. One thread at a time; all that needs a right to files happens in Open.
#pragma once

#include <sys/stat.h>

#include <chrono>
#include <ctime>
#include <functional>
#include <optional>
#include <string>

#include "Tarnwick/engine/recordfile.h"
#include "TaskMan/partrecord.h"
#include "TaskMan/tasktext.h"
#include "common/file.h"
#include "common/uncopyable.h"

namespace engine {

// Why the file cannot be had or written.
struct Fault {
    TaskReason reason = TaskReason::kLocal;
    int number = 0;         // errno; 0: none
    std::string message{};  // one line for people
};
using MaybeFault = std::optional<Fault>;

class PartFile : private Uncopyable {
  public:
    // `keeps`: with a record.
    PartFile(const std::string& path, bool keeps);

    // Opens or makes the file and, with a record, that, or removes it; to be called once, first.
    // When another process writes it that is about to end, waits for that, at most three seconds
    // and as long as `patient` returns true.
    MaybeFault Open(const std::function<bool()>& patient);

    // Takes over the file, and with a record an empty one, instead: both are open.
    MaybeFault Take(Descriptor file, Descriptor record);

    // The record that was found, when it is sound and the file can be what it tells; with what can
    // be relied on in `have`. Null without one. Valid until the first of the operations below.
    const PartRecord* Found() const { return found_ ? &*found_ : nullptr; }
    // Why a record that was there does not count, in one line; empty otherwise.
    const std::string& Disregarded() const { return disregarded_; }

    // The file begins anew: the record goes first, then what is in the file.
    MaybeFault Restart();

    // The size is known: looks for room, of which `missing` bytes are needed still, and reserves
    // it; from now on there is a record, with what `about` says but for writer, `have` and time.
    MaybeFault Describe(const PartRecord& about, std::uint64_t missing);

    MaybeFault Write(const char* bytes, std::size_t size, std::uint64_t offset);

    // To be called about once a second, when all that has come is written: notes what is there, and
    // every five seconds brings it to the disk first. A fault when somebody has taken the file
    // away.
    MaybeFault Tick(const std::vector<ByteRange>& have);

    // The file is complete: it gets exactly `size` bytes, and `modified`, seconds since 1970, as
    // the time of its last modification; below 0: it keeps that of the last write. A record that
    // was written stays, for the time in which the file has not got its name yet; to be removed by
    // whoever gives it that.
    MaybeFault Finish(const std::vector<ByteRange>& have, std::uint64_t size, std::time_t modified);

    // The end of a file that is not complete: brings it to the disk and records it, if a record can
    // be kept, and gives back what was reserved.
    void Leave(const std::vector<ByteRange>& have);

  private:
    using Clock = std::chrono::steady_clock;

    MaybeFault OpenFile();
    MaybeFault Begin();
    MaybeFault WaitForWriter(const PartWriter& writer, std::int64_t time,
                             const std::function<bool()>& patient);
    MaybeFault StillThere() const;
    void ReplaceRecord(const std::vector<ByteRange>& have);
    void NoteHave(const std::vector<ByteRange>& have);
    void DropRecord();
    Fault LocalFault(const char* what, int number) const;

    const std::string path_;
    const bool keeps_;
    Descriptor file_{};
    struct stat opened_ {};  // of the file, when it was opened
    RecordFile record_file_{};
    PartRecord record_{};  // as it is to be written
    PartWriter self_{};
    bool described_ = false;
    bool reserved_ = false;
    std::optional<PartRecord> found_{};
    std::string disregarded_{};
    std::uint64_t unpushed_ = 0;  // bytes written since the system was last told to begin
    Clock::time_point started_{};
    Clock::time_point synced_{};
};

// This process as a writer.
PartWriter ThisWriter();

}  // namespace engine
