// Files and descriptors: what several places ask of them.
//
// Nothing here keeps state; any thread may call.
#pragma once

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

// Owns a descriptor and closes it. One thread at a time.
class Descriptor {
  public:
    // -1, which the system's calls return for a failure: nothing is open.
    explicit Descriptor(int descriptor = -1) : descriptor_(descriptor) {}
    ~Descriptor() { Close(); }
    Descriptor(Descriptor&& other) noexcept;
    Descriptor& operator=(Descriptor&& other) noexcept;

    bool IsOpen() const { return descriptor_ != -1; }
    int Get() const { return descriptor_; }

    // Closes it if it is open; errno is as before.
    void Close();

    // Hands it over: it is the caller's to close.
    int Release() { return std::exchange(descriptor_, -1); }

  private:
    int descriptor_;
};

// Whether both are the same file.
inline bool SameFile(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// Whether the path, when it is no link, names the open file. False also when the system does not
// tell.
bool IsNamed(int descriptor, const std::string& path);

// Whether it is a regular file of this process's user.
bool IsOwnRegular(const struct stat& status);

// Locks the open file for this process (flock, exclusive), trying for at most `patience`. Returns
// 0; EWOULDBLOCK when somebody else has it locked; or another error number.
int TryLock(int descriptor, std::chrono::milliseconds patience = std::chrono::milliseconds(0));

// Writes all bytes at the offset, from the file's beginning. False when an error, which errno
// tells, comes before the last one.
bool WriteAt(int descriptor, std::string_view bytes, std::uint64_t offset);

// Whether the file system of `path` has too little room for a file of `size` bytes there, of which
// some may be there already. False when that cannot be said. May wait for the file system.
bool LacksSpace(const std::string& path, double size);

// Calls `condition` every few milliseconds until it returns true or `patience` has passed; returns
// what it returned last. For what the system offers no wait for.
template <class Condition>
bool PollUntil(std::chrono::milliseconds patience, Condition condition) {
    constexpr std::chrono::milliseconds pause(5);
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (!condition()) {
        const auto left = deadline - std::chrono::steady_clock::now();
        if (left <= left.zero()) return false;
        std::this_thread::sleep_for(std::min<std::chrono::nanoseconds>(left, pause));
    }
    return true;
}
