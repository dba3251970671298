#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "common/platform.h"

namespace platform {

int RenameToNew(const char* from, const char* to) {
    return renamex_np(from, to, RENAME_EXCL) == 0 ? 0 : errno;
}

int ReserveRoom(int descriptor, off_t size) {
    fstore_t room{F_ALLOCATEALL, F_PEOFPOSMODE, 0, size, 0};
    struct stat status {};
    if (fstat(descriptor, &status) == 0)
        room.fst_length = std::max<off_t>(size - status.st_size, 0);
    return fcntl(descriptor, F_PREALLOCATE, &room) == 0 ? 0 : errno;
}

void StartWriting(int /*descriptor*/) {}

int SyncFileSystem(int /*descriptor*/) {
    return ENOTSUP;
}

// Each file is brought to the disk for itself here, and is told so then.
int WriteFault(int /*descriptor*/) {
    return 0;
}

int SyncData(int descriptor) {
    return fcntl(descriptor, F_FULLFSYNC) == 0 ? 0 : errno;
}

int SetAttribute(int descriptor, const char* name, std::string_view value) {
    return fsetxattr(descriptor, name, value.data(), value.size(), 0, 0) == 0 ? 0 : errno;
}

std::string Attribute(int descriptor, const char* name) {
    char value[ATTRIBUTE_MOST];
    const ssize_t size = fgetxattr(descriptor, name, value, sizeof value, 0, 0);
    return {value, static_cast<std::size_t>(std::max<ssize_t>(size, 0))};
}

std::int64_t Modified(const struct stat& status) {
    return std::int64_t{status.st_mtimespec.tv_sec} * 1'000'000'000 + status.st_mtimespec.tv_nsec;
}

}  // namespace platform
