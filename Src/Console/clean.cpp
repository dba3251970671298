#include "Console/clean.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <utility>
#include <vector>

#include "Console/display.h"
#include "Console/outcome.h"
#include "Console/text.h"
#include "TaskMan/othermanagers.h"
#include "TaskMan/taskcontext.h"

namespace {

constexpr std::size_t kLongestPath = sizeof(tagTaskInfo::szFilePath) - 1;
constexpr const char* kPartEnding = ".part";

enum class Part { kNone, kLeft, kStuck };

// Whether the open file is a part of this user's that nobody writes: whoever does has it locked.
bool IsLeft(int file, const std::string& path) {
    struct stat status {};
    struct stat named {};
    return fstat(file, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid() &&
           flock(file, LOCK_EX | LOCK_NB) == 0 && lstat(path.c_str(), &named) == 0 &&
           status.st_dev == named.st_dev && status.st_ino == named.st_ino;
}

// Removes a part that a dead manager left. The path is another process's word: nothing but the
// part of a download is touched.
Part RemovePart(const std::string& path, bool lookOnly) {
    if (!path.starts_with('/') || !path.ends_with(kPartEnding)) return Part::kNone;
    const int file = open(path.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (file == -1) return Part::kNone;
    Part part = Part::kNone;
    if (IsLeft(file, path)) {
        part = lookOnly || unlink(path.c_str()) == 0 ? Part::kLeft : Part::kStuck;
    }
    close(file);
    return part;
}

// What was found, a line each; and what could not be removed.
struct Report {
    std::string done{};
    std::string faults{};
};

Report Clean(bool lookOnly) {
    const Remains remains = SweepDeadManagers(lookOnly);
    // The parts may be theirs.
    if (!lookOnly) KillOrphans(remains.orphans);
    Report report;
    const auto tell = [&](const char* what, const std::string& name) {
        const std::string done = lookOnly ? "would be removed" : "removed";
        report.done += what + (" " + text::Printable(name)) + ": " + done + "\n";
    };
    for (const std::string& name : remains.sections) tell("section", name);
    for (const std::string& name : remains.locks) tell("lock", name);
    for (const Orphan& orphan : remains.orphans) {
        tell("worker", std::to_string(orphan.worker.pid));
    }
    for (const std::string& path : remains.paths) {
        const Part part = RemovePart(path, lookOnly);
        if (part == Part::kLeft) tell("part", path);
        if (part == Part::kStuck) {
            report.faults += "taskman: cannot remove " + text::Printable(path) + ": " +
                             std::strerror(errno) + "\n";
        }
    }
    return report;
}

}  // namespace

int RunClean(const CleanOptions& options) {
    const Report report = Clean(options.lookOnly);
    const bool nothing = report.done.empty() && report.faults.empty();
    const bool told =
        WriteAll(STDOUT_FILENO, nothing ? "nothing was left behind\n" : report.done) &&
        WriteAll(STDERR_FILENO, report.faults);
    if (!report.faults.empty()) return EXIT_STATUS_LOCAL;
    return told ? EXIT_STATUS_FINISHED : EXIT_STATUS_FAILED;
}

void CleanUp() {
    Clean(false);
}

std::string FindablePath(const std::string& path) {
    std::error_code error;
    std::string absolute = std::filesystem::absolute(path, error);
    const bool usable =
        !error && absolute.size() <= kLongestPath && absolute.find('\\') == std::string::npos;
    return usable ? absolute : path;
}
