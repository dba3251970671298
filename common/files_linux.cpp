#include <fcntl.h>
#include <linux/magic.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <utility>

#include "common/platform.h"

namespace platform {

int RenameToNew(const char* from, const char* to) {
    constexpr unsigned kNoReplace = 1;
    return syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, kNoReplace) == 0 ? 0 : errno;
}

int ReserveRoom(int descriptor, off_t size) {
    struct statfs system {};
    if (fstatfs(descriptor, &system) == 0 &&
        (system.f_type == TMPFS_MAGIC || system.f_type == RAMFS_MAGIC)) {
        return ENOTSUP;
    }
    return fallocate(descriptor, FALLOC_FL_KEEP_SIZE, 0, size) == 0 ? 0 : errno;
}

void StartWriting(int descriptor) {
    sync_file_range(descriptor, 0, 0, SYNC_FILE_RANGE_WRITE);
}

int SyncFileSystem(int descriptor) {
    // Before Linux 5.8 syncfs(2) is silent about what could not be written.
    utsname system{};
    int major = 0;
    int minor = 0;
    if (uname(&system) != 0 || std::sscanf(system.release, "%d.%d", &major, &minor) != 2 ||
        std::pair(major, minor) < std::pair(5, 8)) {
        return ENOTSUP;
    }
    return syncfs(descriptor) == 0 ? 0 : errno;
}

int WriteFault(int descriptor) {
    return sync_file_range(descriptor, 0, 0, SYNC_FILE_RANGE_WAIT_BEFORE) == 0 ? 0 : errno;
}

int SyncData(int descriptor) {
    return fdatasync(descriptor) == 0 ? 0 : errno;
}

int SetAttribute(int descriptor, const char* name, std::string_view value) {
    return fsetxattr(descriptor, name, value.data(), value.size(), 0) == 0 ? 0 : errno;
}

std::string Attribute(int descriptor, const char* name) {
    char value[ATTRIBUTE_MOST];
    const ssize_t size = fgetxattr(descriptor, name, value, sizeof value);
    return {value, static_cast<std::size_t>(std::max<ssize_t>(size, 0))};
}

std::int64_t Modified(const struct stat& status) {
    return std::int64_t{status.st_mtim.tv_sec} * 1'000'000'000 + status.st_mtim.tv_nsec;
}

}  // namespace platform
