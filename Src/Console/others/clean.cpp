#include "Console/others/clean.h"

#include <string>

#include "Console/base/outcome.h"
#include "Console/screen/display.h"
#include "Console/screen/text.h"
#include "TaskMan/deadmanagers.h"

int RunClean(const CleanOptions& options) {
    const Remains remains = SweepDeadManagers(options.lookOnly, options.parts);
    const std::string done = options.lookOnly ? ": would be removed\n" : ": removed\n";
    std::string told;
    const auto tell = [&](const char* what, const std::string& name) {
        told += what + (" " + text::Printable(name)) + done;
    };
    for (const std::string& name : remains.sections) tell("section", name);
    for (const std::string& name : remains.locks) tell("lock", name);
    for (const WorkerProcess& worker : remains.workers) tell("worker", std::to_string(worker.pid));
    for (const std::string& path : remains.parts) tell("part", path);
    for (const std::string& path : remains.continuable) {
        told += "part " + text::Printable(path) + ": left, it can be continued\n";
    }
    std::string faults;
    for (const std::string& path : remains.stuck) {
        faults += FaultLine("cannot remove " + path);
    }
    if (told.empty() && faults.empty()) told = "nothing was left behind\n";
    const bool written = WriteResult(told, faults);
    if (!faults.empty()) return EXIT_STATUS_LOCAL;
    return written ? EXIT_STATUS_FINISHED : EXIT_STATUS_FAILED;
}
