#include "Console/get/get.h"

#include <memory>
#include <string>

#include "Console/base/events.h"
#include "Console/base/signals.h"
#include "Console/get/downloads.h"
#include "Console/get/inputlist.h"
#include "Console/get/session.h"
#include "Console/screen/display.h"
#include "TaskMan/manager.h"

namespace {

constexpr std::int32_t kIdleSeconds = 2;

}  // namespace

int RunGet(const GetOptions& options) {
    const WakePipe& wake = signals::Install();
    EventQueue events(wake);
    const std::unique_ptr<Display> display = MakeDisplay(options.display);
    const auto refuse = [&display](int status, const std::string& fault) {
        display->Fault(fault);
        return status;
    };
    InputList list;
    FailedList failed;
    std::string fault = options.input.empty() ? "" : list.Open(options.input);
    if (!fault.empty()) return refuse(EXIT_STATUS_USAGE, fault);
    if (!options.failed.empty()) fault = failed.Open(options.failed);
    if (!fault.empty()) return refuse(EXIT_STATUS_LOCAL, fault);
    if (options.request.bInsecure) display->Warn(INSECURE_WARNING);
    // With several files a worker waits for the next one: as long as the list may keep it waiting.
    const bool several = options.addresses.size() > 1 || !options.input.empty();
    tagTaskLimits limits;
    limits.nIdleSeconds = several && !options.freshWorkers ? kIdleSeconds : 0;
    SetTaskLimits(limits);
    Downloads downloads(options, list, failed, events, *display);
    return Session(downloads, "download", wake, events, *display).Run(options.worker);
}
