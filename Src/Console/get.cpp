#include "Console/get.h"

#include <memory>
#include <string>

#include "Console/display.h"
#include "Console/downloads.h"
#include "Console/events.h"
#include "Console/inputlist.h"
#include "Console/secondlook.h"
#include "Console/session.h"
#include "Console/text.h"
#include "TaskMan/taskman.h"

int RunGet(const GetOptions& options) {
    PrepareSecondLooks();
    const WakePipe& wake = InstallSignals();
    EventQueue events(wake);
    const std::unique_ptr<Display> display = MakeDisplay(options.display);
    const auto refuse = [&display](int status, const std::string& fault) {
        display->Note("taskman: " + text::Printable(fault));
        return status;
    };
    InputList list;
    FailedList failed;
    std::string fault = options.input.empty() ? "" : list.Open(options.input);
    if (!fault.empty()) return refuse(EXIT_STATUS_USAGE, fault);
    if (!options.failed.empty()) fault = failed.Open(options.failed);
    if (!fault.empty()) return refuse(EXIT_STATUS_LOCAL, fault);
    tagTaskLimits limits;
    limits.nAnswerSeconds = options.timeout;
    SetTaskLimits(limits);
    Downloads downloads(options, list, failed, events, *display);
    return Session(downloads, "download", wake, events, *display).Run(options.worker);
}
