#include "TaskMan/sweep/leftpart.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "TaskMan/othermanagers.h"

LeftPart::LeftPart(const std::string& path) : path_(path) {
    if (!path.starts_with('/') || !path.ends_with(TASK_PART_ENDING)) return;
    file_ = open(path.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (file_ == -1) return;
    struct stat status {};
    struct stat named {};
    left_ = fstat(file_, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid() &&
            flock(file_, LOCK_EX | LOCK_NB) == 0 && lstat(path.c_str(), &named) == 0 &&
            status.st_dev == named.st_dev && status.st_ino == named.st_ino;
}

LeftPart::~LeftPart() {
    if (file_ != -1) close(file_);
}

bool LeftPart::Remove() const {
    return unlink(path_.c_str()) == 0;
}
