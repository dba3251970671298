#include "common/file.h"

#include <sys/file.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

Descriptor::Descriptor(Descriptor&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)) {}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
}

void Descriptor::Close() {
    if (descriptor_ == -1) return;
    const int kept = errno;
    close(std::exchange(descriptor_, -1));
    errno = kept;
}

bool IsNamed(int descriptor, const std::string& path) {
    struct stat open {};
    struct stat named {};
    return fstat(descriptor, &open) == 0 && lstat(path.c_str(), &named) == 0 &&
           SameFile(open, named);
}

bool IsOwnRegular(const struct stat& status) {
    return S_ISREG(status.st_mode) && status.st_uid == geteuid();
}

int TryLock(int descriptor, std::chrono::milliseconds patience) {
    int error = 0;
    PollUntil(patience, [&] {
        error = flock(descriptor, LOCK_EX | LOCK_NB) == 0 ? 0 : errno;
        return error != EWOULDBLOCK;
    });
    return error;
}

bool WriteAt(int descriptor, std::string_view bytes, std::uint64_t offset) {
    while (!bytes.empty()) {
        const ssize_t written =
            pwrite(descriptor, bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (written == -1 && errno == EINTR) continue;
        if (written <= 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(written));
        offset += static_cast<std::uint64_t>(written);
    }
    return true;
}

bool LacksSpace(const std::string& path, double size) {
    constexpr double kBlock = 512;  // unit of st_blocks
    struct stat file {};
    double room = 0.0;
    if (stat(path.c_str(), &file) == 0) {
        if (!S_ISREG(file.st_mode)) return false;
        room = static_cast<double>(file.st_blocks) * kBlock;
    }
    struct statvfs disk {};
    const std::size_t slash = path.rfind('/');
    const std::string directory = slash == path.npos ? "." : path.substr(0, slash + 1);
    if (statvfs(directory.c_str(), &disk) != 0 || disk.f_blocks == 0) return false;
    // What is reserved for root is room for root only.
    const auto blocks = geteuid() == 0 ? disk.f_bfree : disk.f_bavail;
    return room + static_cast<double>(blocks) * static_cast<double>(disk.f_frsize) < size;
}
