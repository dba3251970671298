// Semaphores that are lent to a process which may open no files, and the memory of this process.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "common/platform.h"

namespace platform {

namespace {

// Where the C library keeps it: sem_overview(7).
std::string PathOf(const std::string& semaphore) {
    return "/dev/shm/sem." + semaphore;
}

}  // namespace

int LinkSemaphore(const std::string& name, const std::string& further) {
    return link(PathOf(name).c_str(), PathOf(further).c_str()) == 0 ? 0 : errno;
}

int SemaphoreFile(const std::string& name, int access, Descriptor& file) {
    file = Descriptor(open(PathOf(name).c_str(), access | O_NOFOLLOW | O_CLOEXEC));
    return file.IsOpen() ? 0 : errno;
}

sem_t* MapSemaphore(int file) {
    struct stat status {};
    if (fstat(file, &status) != 0 || status.st_size < off_t{sizeof(sem_t)}) return nullptr;
    void* mapped = mmap(nullptr, sizeof(sem_t), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    return mapped == MAP_FAILED ? nullptr : static_cast<sem_t*>(mapped);
}

void UnmapSemaphore(sem_t* semaphore) {
    munmap(semaphore, sizeof(sem_t));
}

std::size_t PrivateMemory() {
    static const Descriptor file(open("/proc/self/statm", O_RDONLY | O_CLOEXEC));
    char text[256] = "";
    long resident = 0;
    long shared = 0;
    // In pages; what is mapped from files counts as shared.
    if (pread(file.Get(), text, sizeof text - 1, 0) < 1 ||
        std::sscanf(text, "%*d %ld %ld", &resident, &shared) != 2) {
        return 0;
    }
    return static_cast<std::size_t>(std::max(resident - shared, 0L) * sysconf(_SC_PAGESIZE));
}

}  // namespace platform
