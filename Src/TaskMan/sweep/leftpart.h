// Half a file that a dead manager's download has left.
#pragma once

#include <string>

#include "common/uncopyable.h"

class LeftPart : private Uncopyable {
  public:
    // The path is another process's word: nothing is taken for a part but an absolute path with
    // the ending of parts, to a regular file of this user, without a link at its end.
    explicit LeftPart(const std::string& path);
    ~LeftPart();

    // Whether it is such a file, and nobody has it locked; this object has, from then on.
    bool IsLeft() const { return left_; }

    // Removes it; false when the system refuses. Wants IsLeft().
    bool Remove() const;

  private:
    const std::string path_;
    int file_ = -1;
    bool left_ = false;
};
