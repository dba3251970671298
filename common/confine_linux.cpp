// Landlock (Documentation/userspace-api/landlock.rst of the kernel): a thread takes rights from
// itself and from all that it starts later, and nothing gives them back.
#include <fcntl.h>
#include <linux/landlock.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "common/platform.h"

namespace platform {
namespace {

// What the headers of some systems lack, with the version that brought it.
constexpr std::uint64_t kTruncate = 1U << 14;        // 3
constexpr std::uint64_t kControlDevice = 1U << 15;   // 5
constexpr std::uint64_t kAbstractSockets = 1U << 0;  // 6, a scope
constexpr std::uint64_t kSignals = 1U << 1;          // 6, a scope

// As the kernel reads it; one that knows less wants zeros in the rest.
struct Ruleset {
    std::uint64_t files = 0;
    std::uint64_t net = 0;  // 4
    std::uint64_t scopes = 0;
};

// The version of what the kernel offers; 0: nothing.
int Version() {
    const long version =
        syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
    return version < 1 ? 0 : static_cast<int>(version);
}

// All rights that this version can take. The right to move files between directories is taken by
// each.
Ruleset Everything(int version) {
    Ruleset all{LANDLOCK_ACCESS_FS_REFER - 1};
    if (version >= 2) all.files |= LANDLOCK_ACCESS_FS_REFER;
    if (version >= 3) all.files |= kTruncate;
    if (version >= 5) all.files |= kControlDevice;
    if (version >= 6) all.scopes = kAbstractSockets | kSignals;
    return all;
}

// Leaves the rights on the path, those of a directory only if it is one. Returns 0, also for a path
// that cannot be opened, or an error number.
int Leave(int ruleset, const std::string& path, std::uint64_t rights, std::uint64_t ofDirectory) {
    const Descriptor file(open(path.c_str(), O_PATH | O_CLOEXEC));
    struct stat status {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0) return 0;
    if (S_ISDIR(status.st_mode)) rights |= ofDirectory;
    const landlock_path_beneath_attr rule{rights, file.Get()};
    return syscall(SYS_landlock_add_rule, ruleset, LANDLOCK_RULE_PATH_BENEATH, &rule, 0) == 0
               ? 0
               : errno;
}

}  // namespace

std::vector<std::string> Confines() {
    std::vector<std::string> words;
    const int version = Version();
    if (version >= 1) words.emplace_back("files");
    if (version >= 3) words.emplace_back("truncate");
    if (version >= 5) words.emplace_back("devices");
    if (version >= 6) words.emplace_back("signals");
    return words;
}

int Confine(const Confinement& left) {
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return errno;
    const int version = Version();
    if (version == 0) return ENOTSUP;
    const Ruleset all = Everything(version);
    const Descriptor ruleset(
        static_cast<int>(syscall(SYS_landlock_create_ruleset, &all, sizeof all, 0)));
    if (!ruleset.IsOpen()) return errno;
    constexpr std::uint64_t kRead = LANDLOCK_ACCESS_FS_READ_FILE;
    constexpr std::uint64_t kList = LANDLOCK_ACCESS_FS_READ_DIR;
    const std::uint64_t write = LANDLOCK_ACCESS_FS_WRITE_FILE | (all.files & kTruncate);
    int error = 0;
    for (const std::string& path : left.readable) {
        if (error == 0) error = Leave(ruleset.Get(), path, kRead, kList);
    }
    for (const std::string& path : left.writable) {
        if (error == 0) {
            error = Leave(ruleset.Get(), path, kRead | write, kList | LANDLOCK_ACCESS_FS_MAKE_REG);
        }
    }
    if (error == 0 && syscall(SYS_landlock_restrict_self, ruleset.Get(), 0) != 0) error = errno;
    return error;
}

}  // namespace platform
