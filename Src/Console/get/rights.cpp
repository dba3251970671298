#include "Console/get/rights.h"

#include <unistd.h>

#include <cerrno>

namespace {

constexpr mode_t kAll = 0777;

// The permissions without the group they were meant for: its members are others, and the members of
// another group were.
mode_t WithoutGroup(mode_t mode) {
    const mode_t both = mode >> 3 & mode & 07;
    return (mode & 0700) | both << 3 | both;
}

}  // namespace

mode_t RightsToReplace(const struct stat& old) {
    return (WithoutGroup(old.st_mode & kAll) | 0600) & 0666;
}

int TakeRights(int file, const struct stat& old) {
    struct stat now {};
    if (fstat(file, &now) != 0) return errno;
    mode_t mode = old.st_mode & kAll;
    const bool same = now.st_uid == old.st_uid && now.st_gid == old.st_gid;
    if (!same && fchown(file, old.st_uid, old.st_gid) != 0 && now.st_gid != old.st_gid &&
        fchown(file, static_cast<uid_t>(-1), old.st_gid) != 0) {
        mode = WithoutGroup(mode);
    }
    if (fchmod(file, mode) == 0) return 0;
    const int error = errno;
    // Some file systems have the same permissions for all files.
    return (now.st_mode & kAll & ~mode) == 0 ? 0 : error;
}
