#include "support/helpers.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace test_support {

bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds deadline) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

void InParallel(std::size_t count, const std::function<void(std::size_t)>& run, std::size_t width) {
    std::atomic<std::size_t> next{0};
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < std::min(count, width); ++i) {
        threads.emplace_back([&] {
            for (std::size_t number; (number = next++) < count;) run(number);
        });
    }
    for (std::thread& thread : threads) thread.join();
}

void InChild(const std::function<void()>& body) {
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

bool TakeOwnMounts() {
    // As root there: what an ordinary user executes has none of its rights, and may not look at it.
    const std::string uid = std::to_string(getuid()), gid = std::to_string(getgid());
    if (unshare(CLONE_NEWNS) != 0 && unshare(CLONE_NEWNS | CLONE_NEWUSER) == 0) {
        WriteFile("/proc/self/setgroups", "deny");
        WriteFile("/proc/self/uid_map", "0 " + uid + " 1");
        WriteFile("/proc/self/gid_map", "0 " + gid + " 1");
    }
    return mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

std::string UniqueName(const std::string& stem) {
    return stem + '-' + std::to_string(std::random_device{}());
}

int SemaphoreValue(const std::string& name) {
    int value = -1;
    sem_t* semaphore = sem_open(name.c_str(), 0);
    if (semaphore == SEM_FAILED) return value;
    sem_getvalue(semaphore, &value);
    sem_close(semaphore);
    return value;
}

std::string NamesIn(const std::string& directory) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        names.insert(entry.path().filename());
    }
    std::string list;
    for (const std::string& name : names) list += (list.empty() ? "" : " ") + name;
    return list;
}

TempDir::TempDir() {
    path_ = (std::filesystem::temp_directory_path() / "taskman-XXXXXX").string();
    if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("no temporary directory");
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string ReadFile(const std::string& path) {
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    return bytes.str();
}

void WriteFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

bool FileExists(const std::string& path) {
    return std::filesystem::exists(path);
}

std::string AssertionLine(const std::string& expression, const std::string& function,
                          const std::string& source) {
    std::string line = "^Assertion failed: (" + expression + "), function " + function + ", file " +
                       source + ", line [0-9]+\\.\n$";
    std::replace_if(
        line.begin(), line.end(), [](char c) { return c == '(' || c == ')'; }, '.');
    return line;
}

bool Has(const std::string& text, const std::string& part) {
    return text.find(part) != text.npos;
}

std::string Repeated(int count, const std::string& text) {
    std::string all;
    for (int i = 0; i < count; ++i) all += text;
    return all;
}

std::string TestBytes(std::size_t size) {
    std::string bytes(size, '\0');
    std::minstd_rand random;
    for (char& byte : bytes) byte = static_cast<char>(random() >> 8);
    return bytes;
}

}  // namespace test_support
