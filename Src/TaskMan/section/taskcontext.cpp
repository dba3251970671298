#include "TaskMan/taskcontext.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <stdexcept>

#include "common/fieldtext.h"
#include "common/keepstores.h"
#include "common/platform.h"
#include "common/stringutility.h"

tagVideoInfoSection g_VideoInfoSection;
char* g_TaskCommData = nullptr;
tagTaskContext g_TaskContext[TASK_SLOT_COUNT];
std::atomic<bool> g_Exit{false};

TraceLog::TraceLog LogOut("LOG");

namespace {

void SetDefaults(tagTaskContext& slot) {
    // The whole record, so that the padding behind bReserved carries nothing into the section.
    std::memset(static_cast<void*>(&slot), 0, sizeof slot);
    slot.nCmd = slot.nTaskKind = slot.nReserved1 = slot.nReserved2 = -1;
    slot.nBlockCount = slot.nTryCount = slot.nTryInterval = 3;
    slot.nPid = -1;
    slot.dProgress = slot.dSpeed = -1.0;
    slot.nDownloadInfoTag = slot.nControl = slot.nReserved3 = -1;
    KeepStores(&slot);
}

void SetDefaults(tagTaskInfo& info, const char* id) {
    // The padding at the end may belong to a record that this one is the base of.
    std::memset(static_cast<void*>(&info), 0,
                offsetof(tagTaskInfo, pfnStateCallback) + sizeof info.pfnStateCallback);
    SetField(info.szTaskID, id);
    info.nCmd = info.nTaskKind = info.nReserved1 = info.nReserved2 = -1;
    info.nTryCount = info.nTryInterval = -1;
    KeepStores(&info);
}

constexpr unsigned kNameLimit = 63;

std::array<char, 64> CutName(const char* name) {
    std::array<char, 64> buffer{};
    strutil::vsnpf(buffer.data(), kNameLimit, "%s", name == nullptr ? SHARE_MEM_NAME : name);
    return buffer;
}

}  // namespace

tagTaskContext::tagTaskContext() {
    SetDefaults(*this);
}

tagTaskContext::~tagTaskContext() {
    SetDefaults(*this);
}

tagTaskInfo::tagTaskInfo(const char* id) {
    SetDefaults(*this, id);
}

tagTaskInfo::~tagTaskInfo() {
    SetDefaults(*this, "");
}

tagTaskNode::tagTaskNode(const char* id)
    : tagTaskInfo(id), nTaskIndex(-1), mutexLock(nullptr), nNodeReserved(0) {}

tagTaskNode::~tagTaskNode() {
    nNodeReserved = 0;
    nTaskIndex = -1;
    delete mutexLock;
    mutexLock = nullptr;
    KeepStores(this);
}

std::string SectionName(int nManagerPid) {
    char name[64]{};
    strutil::vsnpf(name, kNameLimit, "%s_%d", SHARE_MEM_NAME, nManagerPid);
    return name;
}

int InitShareMem(tagVideoInfoSection* section, const char* name) {
    section->hShm = shm_open(CutName(name).data(), O_RDWR | O_CREAT, 0644);
    if (section->hShm == -1) return -1;
    // An existing section has its size already, and some systems refuse to set it again.
    static_cast<void>(ftruncate(section->hShm, SHARE_MEM_SIZE) == 0);
    // Mapping more than the section has, or than the system has memory for, succeeds; the first use
    // kills the process with SIGBUS.
    struct stat status {};
    if (fstat(section->hShm, &status) != 0 || status.st_size < off_t{SHARE_MEM_SIZE}) return -1;
    if (platform::ReserveSharedMemory(section->hShm, SHARE_MEM_SIZE) != 0) return -1;
    void* mapping =
        mmap(nullptr, SHARE_MEM_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, section->hShm, 0);
    if (mapping == MAP_FAILED) return -1;
    section->hPrt = static_cast<char*>(mapping);
    section->pCommDataPrt = section->hPrt + TASK_COMMDATA_OFFSET;
    return 0;
}

int UnInitShareMem(tagVideoInfoSection* section, const char* name) {
    section->pCommDataPrt = nullptr;
    if (section->hPrt != nullptr) munmap(section->hPrt, SHARE_MEM_SIZE);
    shm_unlink(CutName(name).data());
    return 0;
}

tagTaskContext* SlotAt(const tagVideoInfoSection& section, int nIndex) {
    if (section.hPrt == nullptr || nIndex < 0 || nIndex >= TASK_SLOT_COUNT) return nullptr;
    return reinterpret_cast<tagTaskContext*>(section.hPrt +
                                             static_cast<std::size_t>(nIndex) * TASK_SLOT_SIZE);
}

void CopySlot(void* to, const void* from) {
    std::memcpy(to, from, TASK_SLOT_SIZE);
}

void SetStateBit(tagTaskContext& slot, tagDownloadStateCode code) {
    if (static_cast<std::uint32_t>(code) >= 32) throw std::out_of_range("bitset::set");
    slot.bStateChanged = 1;
    slot.nStateBits |= 1U << code;
}

// The compiler's own operations: the C++ library of macOS has no std::atomic_ref.
std::int32_t LoadControl(const tagTaskContext& slot) {
    return __atomic_load_n(&slot.nControl, __ATOMIC_ACQUIRE);
}

void StoreControl(tagTaskContext& slot, std::int32_t nControl) {
    __atomic_store_n(&slot.nControl, nControl, __ATOMIC_RELEASE);
}

std::int32_t LoadRate(const tagTaskContext& slot) {
    return __atomic_load_n(&slot.nReserved3, __ATOMIC_RELAXED);
}

void StoreRate(tagTaskContext& slot, std::int32_t nRate) {
    __atomic_store_n(&slot.nReserved3, nRate, __ATOMIC_RELAXED);
}
