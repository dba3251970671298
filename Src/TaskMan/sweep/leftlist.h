// A list of open parts (TaskMan/openparts.h) that a dead process has left, and the form of such
// lists: records of one size, each an absolute path, or empty.
#pragma once

#include <cstddef>
#include <set>
#include <string>

#include "common/uncopyable.h"

// First part of every list's name; an id that is not used twice follows.
constexpr const char* PART_LIST_NAME = "taskman-parts_";

// A path with its terminator. A page of memory holds whole records, so none is half written.
constexpr std::size_t PART_RECORD_SIZE = 1024;
constexpr std::size_t PART_RECORD_COUNT = 1024;  // at most

class LeftList : private Uncopyable {
  public:
    // `name` is that of any shared-memory object.
    explicit LeftList(const std::string& name);
    ~LeftList();

    // Whether it is a list of this user, and nobody has it locked; this object has, from then on.
    bool IsLeft() const { return left_; }

    // What stands in it: another process's word. Wants IsLeft().
    std::set<std::string> Parts() const;

    // Removes it; false when the system refuses. Wants IsLeft().
    bool Remove() const;

    const std::string& Name() const { return name_; }

  private:
    const std::string name_;
    int descriptor_ = -1;
    bool left_ = false;
};
