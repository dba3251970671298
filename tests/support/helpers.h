// Small things that many tests need.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace test_support {

// Waits until `condition` holds; false when it does not by the deadline, which is far beyond what
// it takes: only a hang meets it.
bool WaitUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds deadline = std::chrono::minutes(1));

// Calls run(0) to run(count - 1) on at most `width` threads at once and waits for all.
void InParallel(std::size_t count, const std::function<void(std::size_t)>& run,
                std::size_t width = 16);

// Runs `body` in a forked child of a program that has one thread. What fails in the child is
// printed there and fails the calling test, as does a child that does not end normally.
void InChild(const std::function<void()>& body);

// What a program is to be run with has to be ready before the fork: a child of a program with
// threads may wait for ever for a lock that one of them had, that of the memory among them.

// `settings`, each "NAME=value", and behind them, where they count no more, those of the test; not
// its proxies.
std::vector<std::string> Environment(std::vector<std::string> settings);

// `texts`, which must outlive them, as `execve` takes them.
std::vector<char*> Pointers(std::vector<std::string>& texts);

// Gives this program, before it has a second thread, mounts that nobody else sees. False when the
// kernel lets this user mount nothing.
bool TakeOwnMounts();

// A name that nothing else on the machine has: letters, digits and "-", at most 11 more than
// `stem`.
std::string UniqueName(const std::string& stem = "test");

// Value of the named semaphore; -1 when there is none.
int SemaphoreValue(const std::string& name);

// A directory that is removed, with all that is in it, at the end of its scope.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    std::string Path(const std::string& name = "") const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// The whole file; an empty text when there is none.
std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& bytes);
bool FileExists(const std::string& path);

// `text`, that many times.
std::string Repeated(int count, const std::string& text);

// `size` bytes without a pattern, the same with every call.
std::string TestBytes(std::size_t size);

}  // namespace test_support
