#include "Console/get.h"

#include <memory>

#include "Console/display.h"
#include "Console/downloads.h"
#include "Console/events.h"
#include "Console/secondlook.h"
#include "Console/session.h"

int RunGet(const GetOptions& options) {
    PrepareSecondLooks();
    const WakePipe& wake = InstallSignals();
    EventQueue events(wake);
    const std::unique_ptr<Display> display = MakeDisplay(options.display);
    Downloads downloads(options, events, *display);
    return Session(downloads, "download", wake, events, *display).Run(options.worker);
}
