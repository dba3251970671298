#include "TaskMan/section/othersection.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <ctime>
#include <memory>

#include "TaskMan/section/ownsection.h"
#include "TaskMan/section/taskid.h"
#include "TaskMan/taskcontext.h"
#include "common/fieldtext.h"
#include "common/platform.h"

namespace {

// A manager maps and locks its section within moments after making it.
constexpr std::time_t kYoungSeconds = 10;
// Other processes hold the lock for moments while they check whether the manager lives.
constexpr std::chrono::milliseconds kOtherSectionPatience{10};
// Above every process id.
constexpr int kNumberLimit = 1 << 24;

// The process id in the name of a section; -1 when it is not exactly one.
int NumberOf(const std::string& name) {
    const std::string prefix = SHARE_MEM_NAME + std::string("_");
    if (!name.starts_with(prefix)) return -1;
    int number = -1;
    std::from_chars(name.data() + prefix.size(), name.data() + name.size(), number);
    return number > 0 && number < kNumberLimit && name == SectionName(number) ? number : -1;
}

OtherTask TaskIn(const tagTaskContext& slot) {
    OtherTask task;
    task.id = FieldText(slot.szTaskID);
    task.address =
        IsDownloadCommand(slot.nCmd) ? FieldText(slot.szDownloadUrl) : FieldText(slot.szOrgUrl);
    task.path = FieldText(slot.szFilePath);
    task.nCmd = slot.nCmd;
    task.nPid = slot.nPid;
    task.nControl = slot.nControl;
    task.nStateBits = slot.nStateBits;
    task.dFileSize = slot.dFileSize;
    task.dProgress = slot.dProgress;
    task.dSpeed = slot.dSpeed;
    return task;
}

}  // namespace

OtherSection::OtherSection(int nManagerPid, int access)
    : pid_(nManagerPid),
      name_(SectionName(nManagerPid)),
      file_(shm_open(name_.c_str(), access, 0)) {
    struct stat status {};
    if (fstat(file_.Get(), &status) != 0 || !IsOwnRegular(status)) file_.Close();
}

bool OtherSection::Lives() const {
    const bool own = pid_ == getpid();
    if (own && g_section_opens) return true;
    if (platform::MapsSharedMemory(pid_, name_)) return true;
    // A process with the manager's id need not be the manager: ids are reused. In this very process
    // no manager runs that has not mapped its section.
    const bool exists = !own && !platform::ProcessWatch(pid_).Gone();
    struct stat status {};
    if (exists && fstat(file_.Get(), &status) == 0 &&
        std::time(nullptr) - status.st_mtime < kYoungSeconds) {
        return true;
    }
    const int error = TryLock(file_.Get(), kOtherSectionPatience);
    return error == EWOULDBLOCK || (error != 0 && exists);
}

std::vector<OtherTask> OtherSection::Tasks() const {
    std::vector<OtherTask> tasks;
    const auto slot = std::make_unique<tagTaskContext>();
    for (int i = 0; i < TASK_SLOT_COUNT; ++i) {
        const auto offset = static_cast<off_t>(TASK_SLOT_SIZE) * i;
        if (!platform::ReadSharedMemory(file_.Get(), slot.get(), TASK_SLOT_SIZE, offset)) break;
        if (!IsTaskID(FieldView(slot->szTaskID))) continue;
        tasks.push_back(TaskIn(*slot));
        tasks.back().nManagerPid = pid_;
        tasks.back().nTaskIndex = i;
    }
    return tasks;
}

bool OtherSection::StoreStop(int nTaskIndex, const std::string& id) const {
    struct stat status {};
    if (fstat(file_.Get(), &status) != 0 || status.st_size < off_t{SHARE_MEM_SIZE} ||
        platform::ReserveSharedMemory(file_.Get(), SHARE_MEM_SIZE) != 0) {
        return false;
    }
    void* mapping =
        mmap(nullptr, SHARE_MEM_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, file_.Get(), 0);
    if (mapping == MAP_FAILED) return false;
    tagVideoInfoSection section{file_.Get(), static_cast<char*>(mapping), nullptr};
    tagTaskContext& slot = *SlotAt(section, nTaskIndex);
    bool stored = FieldView(slot.szTaskID) == id;
    if (stored) {
        StoreControl(slot, TASK_CONTROL_STOP);
        stored = FieldView(slot.szTaskID) == id;
    }
    munmap(mapping, SHARE_MEM_SIZE);
    return stored;
}

void OtherSection::Remove() const {
    const OtherSection named(pid_, O_RDONLY);
    struct stat mine {};
    struct stat other {};
    if (fstat(file_.Get(), &mine) == 0 && fstat(named.file_.Get(), &other) == 0 &&
        SameFile(mine, other)) {
        shm_unlink(name_.c_str());
    }
}

std::vector<int> SectionNumbers() {
    std::vector<int> numbers;
    for (const std::string& name : platform::SharedMemoryNames()) {
        if (const int number = NumberOf(name); number != -1) numbers.push_back(number);
    }
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}
