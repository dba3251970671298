#include "Console/get/standardoutput.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "Console/base/signals.h"
#include "Console/screen/display.h"
#include "TaskMan/manager.h"
#include "common/sysutility.h"

std::string PrivatePath(const std::string& directory) {
    const char* given = std::getenv("TMPDIR");
    const std::string temporary = given == nullptr || *given == '\0' ? "/tmp" : given;
    return (directory.empty() ? temporary : directory) + "/taskman-" + MakeTaskID();
}

Outcome WriteToOutput(int file) {
    constexpr std::size_t kBlock = 64 * 1024;
    std::string block(kBlock, '\0');
    for (off_t at = 0;;) {
        const ssize_t count = pread(file, block.data(), kBlock, at);
        if (count == 0) {
            return {EndResult::kFinished, EXIT_STATUS_FINISHED, "", static_cast<double>(at)};
        }
        const char* what = "cannot read the partial file";
        bool written = false;
        if (count > 0) {
            what = "cannot write standard output";
            written = WriteAll(STDOUT_FILENO, {block.data(), static_cast<std::size_t>(count)});
        }
        if (signals::StopCount() > 0) return {EndResult::kStopped, EXIT_STATUS_STOPPED};
        if (!written) {
            return {EndResult::kFailed, EXIT_STATUS_LOCAL, sysutility::SystemFault(what, errno)};
        }
        at += count;
    }
}
