// Small things that many tests need.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace test_support {

// Looks at `condition` again and again until it holds; false when it does not by the deadline,
// which is far beyond what it takes: only a hang meets it.
bool WaitUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds deadline = std::chrono::minutes(1));

// Calls run(0) to run(count - 1) on at most `width` threads at once and waits for all.
void InParallel(std::size_t count, const std::function<void(std::size_t)>& run,
                std::size_t width = 16);

// Runs `body` in a forked child of a program that has one thread. What fails there fails the test.
void InChild(const std::function<void()>& body);

// Gives this program, before it has a second thread, mounts of its own; false when it may not.
bool TakeOwnMounts();

// A name that nothing else on the machine has: letters, digits and "-".
std::string UniqueName(const std::string& stem = "test");

// Value of the named semaphore; -1 when there is none.
int SemaphoreValue(const std::string& name);

// Names in a directory, sorted, with a blank between them.
std::string NamesIn(const std::string& directory);

// A directory that is removed, with all that is in it, at the end of its scope.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    std::string Path(const std::string& name = "") const { return path_ + "/" + name; }
    std::string Names() const { return NamesIn(path_); }

  private:
    std::string path_;
};

// The whole file; an empty text when there is none.
std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& bytes);
bool FileExists(const std::string& path);

// Pattern of the line that a broken precondition prints.
std::string AssertionLine(const std::string& expression, const std::string& function,
                          const std::string& source);

bool Has(const std::string& text, const std::string& part);

// `text`, that many times.
std::string Repeated(int count, const std::string& text);

// `size` bytes without a pattern, the same with every call.
std::string TestBytes(std::size_t size);

}  // namespace test_support
