#include "TaskMan/sweep/leftlist.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/fieldtext.h"
#include "common/platform.h"

LeftList::LeftList(const std::string& name) : name_(name) {
    if (!name.starts_with(PART_LIST_NAME)) return;
    descriptor_ = shm_open(name.c_str(), O_RDONLY, 0);
    if (descriptor_ == -1) return;
    struct stat status {};
    // One that has lost its name was removed by its process, in order.
    left_ = flock(descriptor_, LOCK_EX | LOCK_NB) == 0 && fstat(descriptor_, &status) == 0 &&
            S_ISREG(status.st_mode) && status.st_uid == geteuid() && status.st_nlink == 1;
}

LeftList::~LeftList() {
    if (descriptor_ != -1) close(descriptor_);
}

std::set<std::string> LeftList::Parts() const {
    std::set<std::string> parts;
    char record[PART_RECORD_SIZE];
    for (std::size_t i = 0; i < PART_RECORD_COUNT; ++i) {
        const auto offset = static_cast<off_t>(i * sizeof record);
        if (!platform::ReadSharedMemory(descriptor_, record, sizeof record, offset)) break;
        if (!FieldEmpty(record)) parts.insert(FieldText(record));
    }
    return parts;
}

bool LeftList::Remove() const {
    return shm_unlink(name_.c_str()) == 0;
}
