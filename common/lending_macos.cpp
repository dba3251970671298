#include <mach/mach.h>

#include <cerrno>

#include "common/platform.h"

namespace platform {

int LinkSemaphore(const std::string&, const std::string&) {
    return ENOTSUP;
}

int SemaphoreFile(const std::string&, int, Descriptor&) {
    return ENOTSUP;
}

sem_t* MapSemaphore(int) {
    return nullptr;
}

void UnmapSemaphore(sem_t*) {}

std::size_t PrivateMemory() {
    task_vm_info_data_t memory{};
    mach_msg_type_number_t count = TASK_VM_INFO_COUNT;
    if (task_info(mach_task_self(), TASK_VM_INFO, reinterpret_cast<task_info_t>(&memory), &count) !=
        KERN_SUCCESS) {
        return 0;
    }
    return static_cast<std::size_t>(memory.phys_footprint);
}

}  // namespace platform
