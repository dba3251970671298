#include "TaskMan/section/ownsection.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "TaskMan/taskman.h"
#include "common/file.h"
#include "common/platform.h"
#include "common/sysutility.h"

std::atomic<bool> g_section_opens{false};

namespace {

constexpr mode_t kPrivate = 0600;
constexpr std::chrono::seconds kOwnSectionPatience{2};

// Holds the section's lock, which shows others that this manager lives. It is not the descriptor
// that is mapped: a mapping, which forked children inherit, would keep the lock as well.
std::atomic<int> g_lock_descriptor{-1};

void CloseLock() {
    if (const int descriptor = g_lock_descriptor.exchange(-1); descriptor != -1) close(descriptor);
}

// A forked child that executes nothing would keep the lock beyond the manager's death, and make it
// look alive.
void GiveChildrenNoLock() {
    static const int registered = pthread_atfork(nullptr, nullptr, CloseLock);
    static_cast<void>(registered);
}

// Whether another process keeps the section of that name locked. A sweep holds the lock for moments
// only.
bool IsTaken(const std::string& name) {
    return !PollUntil(kOwnSectionPatience, [&] {
        const Descriptor section(shm_open(name.c_str(), O_RDONLY, 0));
        return !section.IsOpen() || TryLock(section.Get()) != EWOULDBLOCK;
    });
}

// Creates the section anew, private to this user, locked, with its memory reserved: on a full
// system the first write into it would kill the process otherwise. Returns an error number.
int CreateSection(const std::string& name) {
    shm_unlink(name.c_str());
    const int descriptor = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, kPrivate);
    if (descriptor == -1) return errno;
    g_lock_descriptor = descriptor;
    GiveChildrenNoLock();
    // Where the system cannot lock shared memory, the mapping alone shows that the manager lives.
    static_cast<void>(TryLock(descriptor));
    int error = ftruncate(descriptor, SHARE_MEM_SIZE) == 0 ? 0 : errno;
    if (error == 0) error = platform::ReserveSharedMemory(descriptor, SHARE_MEM_SIZE);
    if (error != 0) {
        shm_unlink(name.c_str());
        CloseLock();
    }
    return error;
}

int MakeSection(const std::string& directory, std::string& strReason) {
    const std::string name = SectionName(g_mainpid);
    // A manager in another process id namespace that shares this /dev/shm may have the same id.
    if (IsTaken(name)) {
        strReason = "another manager has the task section of this process id";
        return -1;
    }
    if (const int error = CreateSection(name); error != 0) {
        strReason = sysutility::SystemFault("cannot create the task section", error);
        return -1;
    }
    if (InitShareMem(&g_VideoInfoSection, name.c_str()) != 0) {
        strReason = "cannot map the task section";
        RemoveSection();
        return -1;
    }
    std::memcpy(g_VideoInfoSection.pCommDataPrt, directory.data(), directory.size());
    return 0;
}

}  // namespace

int OpenSection(const std::string& directory, std::string& strReason) {
    g_section_opens = true;
    const int result = MakeSection(directory, strReason);
    g_section_opens = false;
    return result;
}

void RemoveSection() {
    UnInitShareMem(&g_VideoInfoSection, SectionName(g_mainpid).c_str());
    if (g_VideoInfoSection.hShm != -1) close(g_VideoInfoSection.hShm);
    CloseLock();
    g_VideoInfoSection = tagVideoInfoSection{};
}

void RemoveSectionName() {
    shm_unlink(SectionName(g_mainpid).c_str());
}
