// The names that the files of one command write to.
#pragma once

#include <string>
#include <unordered_set>
#include <vector>

#include "Console/get/fetch.h"

// One thread at a time.
class Names {
  public:
    // What stands in the way of the file's names, in one line; empty when nothing does. This
    // command has written the path already, or one of the others writes it, or one file's final
    // name is another file's part or the record of that.
    std::string Collision(const Fetch& file, const std::vector<const Fetch*>& others) const;

    // Remembers the path of a finished file.
    void NoteWritten(const std::string& path);

  private:
    bool Wrote(const std::string& path) const;

    std::unordered_set<std::size_t> written_{};  // hashes of the paths of the last finished files
};
