#include "Tarnwick/tarnwick.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "Tarnwick/channel.h"
#include "Tarnwick/download.h"
#include "Tarnwick/extended.h"
#include "Tarnwick/filesize.h"
#include "Tarnwick/jobstate.h"
#include "Tarnwick/nexttask.h"
#include "Tarnwick/pageresolution.h"
#include "Tarnwick/transfer.h"
#include "common/AutoLock.h"
#include "common/assertion.h"
#include "common/fieldtext.h"
#include "common/platform.h"
#include "common/sysutility.h"

namespace {

// The job thread signals its end here. These two are never destroyed, since it may still be
// leaving the mutex while the main thread is on its way out of the process.
pthread_mutex_t g_end_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_end = PTHREAD_COND_INITIALIZER;

// The job thread's last step: after it the main thread deletes the lock and releases libcurl.
void EndJob() {
    pthread_mutex_lock(&g_end_mutex);
    g_exit_download = true;
    g_Exit = true;
    pthread_mutex_unlock(&g_end_mutex);
    pthread_cond_signal(&g_end);
}

// Waits for the job's end. Looks at the flag once a second as well: another thread may set it
// without a signal. The job of a manager that is gone may wait for a lock that this one has taken
// to the grave: after some looks the process exits without it.
void WaitForJob(bool extended) {
    constexpr int kLookMilliseconds = 1000;
    constexpr int kMostLooks = 5;
    int looks = 0;
    pthread_mutex_lock(&g_end_mutex);
    while (!g_exit_download) {
        platform::WaitCondition(&g_end, &g_end_mutex, kLookMilliseconds);
        if (g_exit_download || !extended || !ManagerGone()) continue;
        g_Exit = true;
        if (++looks == kMostLooks) _exit(0);
    }
    pthread_mutex_unlock(&g_end_mutex);
}

void RequireInParseTask(bool holds, const char* expression, int line) {
    assertion::Require(holds, "ParseTask", kWorkerSource, expression, line);
}

// Attaches the manager's section. True when there was none and this process has created an empty
// one, which nobody else uses.
bool AttachSection() {
    if (g_VideoInfoSection.hPrt != nullptr) return false;
    const int made = shm_open(g_ShareName.c_str(), O_RDWR | O_CREAT | O_EXCL, 0644);
    if (made != -1) close(made);
    InitShareMem(&g_VideoInfoSection, g_ShareName.c_str());
    if (made != -1 && g_VideoInfoSection.hPrt == nullptr) shm_unlink(g_ShareName.c_str());
    return made != -1;
}

// Copies the common area and all slots, without a lock; for a task that was handed over its slot.
void ReadSection() {
    g_TaskCommData = g_VideoInfoSection.pCommDataPrt;
    g_DownloadConfigPath.assign(g_TaskCommData, strnlen(g_TaskCommData, TASK_COMMDATA_SIZE));
    RequireInParseTask(g_VideoInfoSection.hPrt != nullptr, "NULL != g_VideoInfoSection.hPrt", 1066);
    for (int i = 0; i < TASK_SLOT_COUNT; ++i) {
        if (!g_HandedOver.empty() && i != g_TaskIndex) continue;
        CopySlot(&g_TaskContext[i], SlotAt(g_VideoInfoSection, i));
    }
}

bool SomeSlotCarries(std::string_view id) {
    for (const tagTaskContext& slot : g_TaskContext) {
        if (FieldBeginsWith(slot.szTaskID, id)) return true;
    }
    return false;
}

// Copies the request, except nTaskKind, which the job reads from its copy of the slot.
void FillTaskInfo(tagTaskNode& info, const tagTaskContext& slot) {
    SetField(info.szTaskID, FieldView(slot.szTaskID));
    SetField(info.szOrgUrl, FieldView(slot.szOrgUrl));
    SetField(info.szDownloadUrl, FieldView(slot.szDownloadUrl));
    SetField(info.szFilePath, FieldView(slot.szFilePath));
    info.nCmd = slot.nCmd;
    info.nReserved1 = slot.nReserved1;
    info.nReserved2 = slot.nReserved2;
    info.bUseProxy = slot.bUseProxy;
    CopyProxy(info, slot);
    info.nBlockCount = slot.nBlockCount;
    info.nTryCount = ClampTries(slot.nTryCount);
    info.nTryInterval = ClampTries(slot.nTryInterval);
}

// The semaphore of the last extended task, which stays mapped: mostly the next one has the same.
sem_t* g_kept = nullptr;
struct stat g_kept_file {};

// Maps the semaphore, unless it is the one that is mapped. Null when it cannot be had.
sem_t* KeepSemaphore(int file) {
    struct stat status {};
    if (fstat(file, &status) != 0) return nullptr;
    if (g_kept == nullptr || !SameFile(status, g_kept_file)) {
        if (g_kept != nullptr) platform::UnmapSemaphore(g_kept);
        g_kept = platform::MapSemaphore(file);
        g_kept_file = status;
    }
    return g_kept;
}

// Opens the task's lock by its name, unless it is known from the task before. False when the one
// that was handed over is not.
bool OpenLock(bool extended) {
    const std::string id = g_TaskInfo.szTaskID;
    Threading::Mutex::Lent lent{nullptr};
    Descriptor file;
    if (!g_HandedOver.empty()) {
        lent.semaphore = KeepSemaphore(g_HandedOver.front().Get());
        if (lent.semaphore == nullptr) return false;
    } else if (extended && platform::SemaphoreFile(id, O_RDWR, file) == 0) {
        lent = {KeepSemaphore(file.Get()), id};
    }
    g_TaskInfo.mutexLock = lent.semaphore != nullptr ? new Threading::Mutex(std::move(lent))
                                                     : new Threading::Mutex(id.c_str());
    return true;
}

void CloseLock() {
    delete std::exchange(g_TaskInfo.mutexLock, nullptr);
}

// Claims the slot by writing this process's id into it.
void ClaimSlot(tagTaskContext& live, tagTaskContext& copy, Threading::Mutex* lock) {
    Threading::AutoLock hold(lock);
    CopySlot(&copy, &live);
    copy.nPid = sysutility::GetCurrentPid();
    CopySlot(&live, &copy);
    g_CurTaskContext_prt = &live;
}

// Starts the job thread, which runs run(data). False when there is none.
bool StartJobThread(void* (*run)(void*), void* data) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setscope(&attributes, PTHREAD_SCOPE_PROCESS);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    const int error = pthread_create(&g_pid, &attributes, run, data);
    pthread_attr_destroy(&attributes);
    return error == 0;
}

// Makes the task with that id this worker's own. False when no slot carries the id, or its lock
// cannot be had.
bool TakeTask(const char* szTaskID) {
    ReadSection();
    tagTaskContext* live = SlotAt(g_VideoInfoSection, g_TaskIndex);
    if (live == nullptr || !SomeSlotCarries(szTaskID)) return false;
    tagTaskContext& copy = g_TaskContext[g_TaskIndex];
    FillTaskInfo(g_TaskInfo, copy);
    if (!OpenLock(IsExtended(copy))) return false;
    ClaimSlot(*live, copy, g_TaskInfo.mutexLock);
    CopySlot(&g_TaskConData, &copy);
    return true;
}

// Carries out the job, and those that come later if the worker is to stay.
void RunExtendedJobs(ExtendedJob job) {
    for (;;) {
        RunExtended(job);
        if (g_StaySeconds == 0) break;
        job = {};
        CloseLock();
        if (!NextTask() || !TakeTask(g_TaskID.c_str())) break;
        job = PrepareJob(&g_TaskConData);
    }
    EndJob();
}

// Thread function; takes over `data`, an ExtendedJob.
void* RunExtendedThread(void* data) {
    RunExtendedJobs(std::move(*std::unique_ptr<ExtendedJob>(static_cast<ExtendedJob*>(data))));
    return nullptr;
}

void StartExtendedJob() {
    // A file beyond the limit is a fault like any other, not the process's end.
    std::signal(SIGXFSZ, SIG_IGN);
    auto* const data = std::make_unique<ExtendedJob>(PrepareJob(&g_TaskConData)).release();
    // The main thread has nothing to do but to wait for the job.
    if (!StartJobThread(RunExtendedThread, data)) RunExtendedThread(data);
}

void RunJob(CURL* curl, tagTaskContext* task) {
    if (!IsDownloadCommand(task->nCmd) || FieldEmpty(task->szDownloadUrl)) {
        ParseDownloadUrl(curl, task);
        return;
    }
    if (task->nTaskKind != 0 || g_FileSize == 0) GetFileSize(curl, task);
    if (!g_Exit) DownloadVideo(curl, task);
}

}  // namespace

int ParseTask(const char* szTaskID) {
    RequireInParseTask(szTaskID != nullptr, "NULL != szTaskID", 1047);
    RequireInParseTask(*szTaskID != '\0', "0 < strlen(szTaskID)", 1048);
    const bool made = AttachSection();
    RequireInParseTask(g_VideoInfoSection.pCommDataPrt != nullptr,
                       "NULL != g_VideoInfoSection.pCommDataPrt", 1056);
    if (!TakeTask(szTaskID)) {
        if (made) UnInitShareMem(&g_VideoInfoSection, g_ShareName.c_str());
        return -1;
    }
    const bool extended = IsExtended(g_TaskConData);
    if (extended) {
        StartExtendedJob();
    } else if (!StartJobThread(ParseYoutube, &g_TaskConData)) {
        // Without a job thread nobody sets the flag that is waited for.
        g_exit_download = g_Exit = true;
    }
    WaitForJob(extended);
    CloseLock();
    return 0;
}

void* ParseYoutube(void* data) {
    assertion::Require(data != nullptr, "ParseYoutube", kWorkerSource, "NULL != data", 3047);
    if (CURL* curl = curl_easy_init()) {
        RunJob(curl, static_cast<tagTaskContext*>(data));
        curl_easy_cleanup(curl);
    } else {
        curl_global_cleanup();
    }
    EndJob();
    return nullptr;
}
