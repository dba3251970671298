// The local file of a download: a partial file with a name of its own (the part), and the final
// step that renames it.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <functional>
#include <string>

#include "Console/base/outcome.h"
#include "common/file.h"
#include "common/uncopyable.h"

// Waits until the file is on the disk. Returns 0 or an error number.
int SyncFile(int descriptor);

// What becomes of an existing file with the final name.
enum class Existing {
    kRefuse,   // it stays, the target cannot be opened
    kReplace,  // the new one replaces it, if this user may write to it, and takes over its rights
    kSkip,     // it stays and counts as the new one
    kNumber,   // it stays, the new one gets a number (numbering.h)
};

// When the final name of a target is known.
enum class Naming {
    kNow,    // from the first
    kLater,  // Name tells it before the file is stored
    kNever,  // there is none: Store writes the file to standard output
};

// What becomes of a part that was not stored.
enum class PartRule {
    kRemove,    // it is removed, its record too
    kContinue,  // it stays when a later run can continue it; a part that is found is continued
    kKeep,      // it stays, unless it is empty
};

// "PATH.part" belongs to one Target on the whole machine: the object holds a lock (flock) on it.
// Only a complete file gets the final name. What a worker notes about the part for a later run
// stands beside it (TaskMan/partrecord.h).
class Target : private Uncopyable {
  public:
    // A path that is a link to a regular file stands for that file, and the link stays. With kLater
    // and kNever the part alone has its name from the path, with a number when that part is taken;
    // with kNever it is private.
    explicit Target(const std::string& path, Existing existing = Existing::kRefuse,
                    PartRule rule = PartRule::kRemove, Naming naming = Naming::kNow);

    // Gives the part up.
    ~Target() { GiveUp(); }

    // Tells the final path, of a file in the same directory.
    void Name(const std::string& path);

    // Turns to the next number, that of the part as long as there is no final name. False when
    // there is to be none, or when Open has failed for another reason than a name that is taken.
    bool NextName();

    // Why the final name cannot be used, in one line; empty when it is free, may be replaced or is
    // not known.
    std::string Obstacle() const;

    // Whether the rule is kSkip and a regular file has the final name.
    bool Skips() const;

    // The outcome of a file that is skipped, with its size. Compares the digest, unless that is
    // empty, which may take long. Any thread may call.
    Outcome Skip(const std::string& sha256) const;

    // Creates and locks the part, and the directories that are missing; to be called until it has
    // succeeded once. Refuses a final name that is anything but a regular file, whatever the rule
    // says. Returns the fault in one line; empty when the part is open.
    std::string Open();
    bool IsOpen() const { return file_.IsOpen(); }

    // Descriptor of the part, which the object owns; -1 until it is open.
    int Part() const { return file_.Get(); }

    // Lets nobody but the owner read or write the part, which is open; where the file system has
    // modes. What it gets its name with stays so.
    void MakePrivate() const;

    // Has the part removed, whatever the rule says: it is not what is wanted.
    void Spoil() { spoiled_ = true; }

    // Whether Open has found a part with a record, of whatever quality, and left both in place.
    bool FoundPart() const { return found_; }

    // The final step, once Open has succeeded and the final name is known: checks that the part has
    // `size` bytes (below 0: any) and the digest (empty: any), waits with `sync` until it is on the
    // disk, and renames it; or removes it first and writes it out. May take long; one thread, which
    // may be another one than that of the object, may call it once.
    Outcome Store(double size, const std::string& sha256,
                  const std::function<int(int)>& sync = SyncFile);

    // Unlinks the part and its record if the name is still this object's, unless the rule has it
    // stay. Returns how much of the file a later run can continue with, 0 to 100 percent; -1 when
    // it cannot. Any thread may call, also while Store runs, which fails then.
    double GiveUp() const;

    // The final path, empty as long as it is not known: of the file itself, when a link to it was
    // given. Store may give it another number.
    const std::string& Path() const { return path_; }
    const std::string& PartPath() const { return part_; }

  private:
    bool StillNamed() const;
    bool Replaces(struct stat& old) const;
    std::string OpenOnce();
    std::string Rename();
    void RemoveRecord() const;

    std::string base_;     // the path without a number
    unsigned number_ = 0;  // in the final name; in that of the part as long as there is none
    std::string path_;
    std::string part_;
    const Naming naming_;
    const Existing existing_;
    const PartRule rule_;
    Descriptor file_{};
    bool found_ = false;
    bool hopeless_ = false;  // another number would be of no use
    std::atomic<bool> stored_{false};
    std::atomic<bool> spoiled_{false};  // the part is not the file that was announced
};
