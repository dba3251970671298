// The local file of a download: a part that grows under a name of its own, and the final step that
// gives it its real one.
#pragma once

#include <string>

#include "Console/outcome.h"
#include "common/uncopyable.h"

// "PATH.part" belongs to one Target at a time, on the whole machine: it is locked with flock for as
// long as the object lives. The final name appears only with the complete file behind it.
class Target : private Uncopyable {
  public:
    // `replace`: an existing file of the final name gives way to the new one.
    Target(std::string path, bool replace);

    // Removes the part unless it was stored.
    ~Target();

    // Makes and locks the part. Returns the fault in one line; empty when it is done.
    std::string Open();
    bool IsOpen() const { return file_ != -1; }

    // The final step: checks that the part holds `size` bytes (below 0: any), brings it to the disk
    // and renames it. May take long; one other thread may call it.
    Outcome Store(double size);

    // Why a part of `size` bytes could not be completed, as far as the local side explains it; a
    // finished outcome when it does not.
    Outcome LocalFault(double size) const;

    // Removes the part's name if it is still this object's. Any thread may call, also while Store
    // runs, which then fails.
    void RemovePart() const;

    const std::string& Path() const { return path_; }
    const std::string& PartPath() const { return part_; }

  private:
    bool StillNamed() const;
    std::string OpenOnce();
    std::string Rename() const;

    const std::string path_;
    const std::string part_;
    const bool replace_;
    int file_ = -1;
    bool stored_ = false;
};
