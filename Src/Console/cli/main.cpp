// The command `taskman`.
#include <fcntl.h>
#include <unistd.h>

#include <exception>
#include <new>

#include "Console/base/outcome.h"
#include "Console/cli/options.h"
#include "Console/get/get.h"
#include "Console/others/info.h"
#include "Console/screen/display.h"
#include "Console/screen/text.h"
#include "common/uncaught.h"

namespace {

// A standard descriptor that is closed would become the next file to be opened, and messages would
// be written into that.
void OpenStandardDescriptors() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) == -1) static_cast<void>(open("/dev/null", O_RDWR));
    }
}

// For memory that runs out, on whatever thread. The workers notice that their manager is gone.
[[noreturn]] void OnTerminate() {
    EndUncaught("taskman: not enough memory for the command\n", EXIT_STATUS_FAILED);
}

int RunVerb(const Command& command) {
    switch (command.verb) {
        case Verb::kGet:
            return RunGet(command.get);
        case Verb::kInfo:
            return RunInfo(command.info);
        case Verb::kTop:
            return RunTop(command.top);
        case Verb::kStop:
            return RunStop(command.stop);
        case Verb::kClean:
            return RunClean(command.clean);
    }
    return EXIT_STATUS_USAGE;
}

}  // namespace

int main(int argc, char** argv) {
    OpenStandardDescriptors();
    std::set_terminate(OnTerminate);
    text::UseUtf8();
    try {
        Command command;
        if (const auto status = ParseCommandLine(argc, argv, command)) return *status;
        return RunVerb(command);
    } catch (const std::bad_alloc&) {
        OnTerminate();
    } catch (const std::exception& error) {
        WriteAll(STDERR_FILENO, FaultLine(error.what()));
        return EXIT_STATUS_FAILED;
    }
}
