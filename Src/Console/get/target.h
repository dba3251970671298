// The local file of a download: a partial file with a name of its own (the part), and the final
// step that renames it.
#pragma once

#include <string>

#include "Console/cli/outcome.h"
#include "common/file.h"
#include "common/uncopyable.h"

// What becomes of an existing file with the final name.
enum class Existing {
    kRefuse,   // it stays, the target cannot be opened
    kReplace,  // the new one replaces it
    kSkip,     // it stays and counts as the new one
};

// "PATH.part" belongs to one Target on the whole machine: the object holds a lock (flock) on it.
// Only a complete file gets the final name.
class Target : private Uncopyable {
  public:
    // A path that is a link to a regular file stands for that file, and the link stays. `keep`: a
    // part that was not stored stays, unless it is empty.
    explicit Target(const std::string& path, Existing existing = Existing::kRefuse,
                    bool keep = false);

    // Removes the part unless it was stored or is kept.
    ~Target();

    // Whether the rule is kSkip and a regular file has the final name.
    bool Skips() const;

    // The outcome of a file that is skipped, with its size. Compares the digest, unless that is
    // empty, which may take long. Any thread may call.
    Outcome Skip(const std::string& sha256) const;

    // Creates and locks the part; to be called until it has succeeded once. Refuses a final name
    // that is anything but a regular file, whatever the rule says. Returns the fault in one line;
    // empty when the part is open.
    std::string Open();
    bool IsOpen() const { return file_.IsOpen(); }

    // Descriptor of the part, which the object owns; -1 until it is open.
    int Part() const { return file_.Get(); }

    // The final step, once Open has succeeded: checks that the part has `size` bytes (below 0: any)
    // and the digest (empty: any), waits with `sync` until it is on the disk, and renames it. May
    // take long; one thread, which may be another one than that of the object, may call it once.
    Outcome Store(double size, const std::string& sha256, bool sync = true);

    // Why the part could not grow to `size` bytes, when the cause is local; else a finished
    // outcome.
    Outcome LocalFault(double size) const;

    // Unlinks the part if the name is still this object's, unless it is to be kept. Any thread may
    // call, also while Store runs, which fails then.
    void RemovePart() const;

    // The final path: of the file itself, when a link to it was given.
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
