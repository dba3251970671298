// The local file of a download: a part that grows under a name of its own, and the final step that
// gives it its real one.
#pragma once

#include <string>

#include "Console/cli/outcome.h"
#include "common/file.h"
#include "common/uncopyable.h"

// What becomes of a file that has the final name already.
enum class Existing {
    kRefuse,   // it stays, the target cannot be opened
    kReplace,  // it gives way to the new one
    kSkip,     // it stays and is taken for the new one
};

// "PATH.part" belongs to one Target at a time, on the whole machine: it is locked with flock for as
// long as the object lives. The final name appears only with the complete file behind it.
class Target : private Uncopyable {
  public:
    // A path that is a link to a regular file stands for that file, and the link stays. `keep`: a
    // part that is not stored stays, unless it is empty.
    explicit Target(const std::string& path, Existing existing = Existing::kRefuse,
                    bool keep = false);

    // Removes the part unless it was stored or is kept.
    ~Target();

    // Whether a regular file of the final name is there, to be taken for the new one.
    bool Skips() const;

    // The end of a file that is skipped, with its size: a digest that is not empty is compared
    // first, which may take long. Any thread may call.
    Outcome Skip(const std::string& sha256) const;

    // Makes and locks the part; to be called once. A path that is in use, and not by a regular
    // file, is a fault, whatever is to become of an existing file. Returns the fault in one line;
    // empty when it is done.
    std::string Open();
    bool IsOpen() const { return file_.IsOpen(); }

    // The open part, which the object owns; -1 before.
    int Part() const { return file_.Get(); }

    // The final step: checks that the part holds `size` bytes (below 0: any) and has the digest
    // (empty: any), renames it, with `sync` not before it is on the disk. May take long; one other
    // thread may call it.
    Outcome Store(double size, const std::string& sha256, bool sync = true);

    // Why a part of `size` bytes could not be completed, as far as the local side explains it; a
    // finished outcome when it does not.
    Outcome LocalFault(double size) const;

    // Removes the part's name if it is still this object's and not to be kept. Any thread may call,
    // also while Store runs, which then fails.
    void RemovePart() const;

    // The final name: of the file itself, when a link to it was given.
    const std::string& Path() const { return path_; }
    const std::string& PartPath() const { return part_; }

  private:
    bool StillNamed() const;
    std::string OpenOnce();
    std::string Rename() const;

    const std::string path_;
    const std::string part_;
    const Existing existing_;
    const bool keep_;
    Descriptor file_{};
    bool stored_ = false;
};
