// The system tells little of other processes, and lists no names of shared memory.
#include <sys/sysctl.h>

#include "common/platform.h"

namespace platform {

std::vector<std::string> SharedMemoryNames() {
    return {};
}

std::vector<std::string> OwnSemaphoreNames() {
    return {};
}

std::vector<Process> OwnProcesses() {
    return {};
}

std::vector<std::string> ProcessArguments(pid_t) {
    return {};
}

double ProcessAge(pid_t) {
    return -1;
}

bool MapsSharedMemory(pid_t, const std::string&) {
    return false;
}

OpenFile LookAtOpenFile(pid_t, const std::string&, int) {
    return {};
}

std::string BootId() {
    char id[64] = "";
    std::size_t size = sizeof id;
    return sysctlbyname("kern.bootsessionuuid", id, &size, nullptr, 0) == 0 ? id : "";
}

}  // namespace platform
