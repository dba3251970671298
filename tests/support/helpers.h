// Small things that many tests need.
#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace test_support {

// Looks at `condition` again and again until it holds; false when it does not by the deadline,
// which is far beyond what it takes: only a hang meets it.
inline bool WaitUntil(const std::function<bool()>& condition,
                      std::chrono::milliseconds deadline = std::chrono::minutes(1)) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// Calls run(0) to run(count - 1) on at most `width` threads at once and waits for all.
inline void InParallel(std::size_t count, const std::function<void(std::size_t)>& run,
                       std::size_t width = 16) {
    std::atomic<std::size_t> next{0};
    std::vector<std::jthread> threads;
    for (std::size_t i = 0; i < std::min(count, width); ++i) {
        threads.emplace_back([&] {
            for (std::size_t number; (number = next++) < count;) run(number);
        });
    }
}

// Runs `body` in a forked child of a program that has one thread. What fails there fails the test.
inline void InChild(const std::function<void()>& body) {
    const auto* result = testing::UnitTest::GetInstance()->current_test_info()->result();
    const int before = result->total_part_count();
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        body();
        std::fflush(nullptr);
        _exit(result->total_part_count() == before ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0) << "as waitpid tells of the child";
}

// The whole file; an empty text when there is none.
inline std::string ReadFile(const std::string& path) {
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    return bytes.str();
}

inline void WriteFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

inline bool FileExists(const std::string& path) {
    return std::filesystem::exists(path);
}

// Names in a directory, sorted, with a blank between them.
inline std::string NamesIn(const std::string& directory) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        names.insert(entry.path().filename());
    }
    std::string list;
    for (const std::string& name : names) list += (list.empty() ? "" : " ") + name;
    return list;
}

// A directory that is removed, with all that is in it, at the end of its scope.
class TempDir {
  public:
    TempDir() {
        path_ = (std::filesystem::temp_directory_path() / "taskman-XXXXXX").string();
        if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("no temporary directory");
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    std::string Path(const std::string& name = "") const { return path_ + "/" + name; }
    std::string Names() const { return NamesIn(path_); }

  private:
    std::string path_;
};

// Gives this program, before it has a second thread, mounts of its own; false when it may not.
inline bool TakeOwnMounts() {
    // As root there: what an ordinary user executes has none of its rights, and may not look at it.
    const std::string uid = std::to_string(getuid()), gid = std::to_string(getgid());
    if (unshare(CLONE_NEWNS) != 0 && unshare(CLONE_NEWNS | CLONE_NEWUSER) == 0) {
        WriteFile("/proc/self/setgroups", "deny");
        WriteFile("/proc/self/uid_map", "0 " + uid + " 1");
        WriteFile("/proc/self/gid_map", "0 " + gid + " 1");
    }
    return mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

// The same, and no shared memory of others in sight: for what means all managers of the user.
inline bool TakeOwnSharedMemory() {
    return TakeOwnMounts() && mount("none", "/dev/shm", "tmpfs", 0, "mode=1777") == 0;
}

// A name that nothing else on the machine has: letters, digits and "-".
inline std::string UniqueName(const std::string& stem = "test") {
    return stem + '-' + std::to_string(std::random_device{}());
}

// Value of the named semaphore; -1 when there is none.
inline int SemaphoreValue(const std::string& name) {
    int value = -1;
    sem_t* semaphore = sem_open(name.c_str(), 0);
    if (semaphore == SEM_FAILED) return value;
    sem_getvalue(semaphore, &value);
    sem_close(semaphore);
    return value;
}

// Pattern of the line that a broken precondition prints.
inline std::string AssertionLine(const std::string& expression, const std::string& function,
                                 const std::string& source) {
    return "^Assertion failed: ." + expression + "., function " + function + ", file " + source +
           ", line [0-9]+\\.\n$";
}

inline bool Has(const std::string& text, const std::string& part) {
    return text.find(part) != text.npos;
}

inline std::string Repeated(int count, const std::string& text) {
    std::string all;
    for (int i = 0; i < count; ++i) all += text;
    return all;
}

// `size` bytes without a pattern, the same with every call.
inline std::string TestBytes(std::size_t size) {
    std::string bytes(size, '\0');
    std::minstd_rand random;
    for (char& byte : bytes) byte = static_cast<char>(random() >> 8);
    return bytes;
}

}  // namespace test_support
