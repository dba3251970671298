// A worker's intake of slots that hold anything, and the beginning of their jobs. Semaphores, the
// wait for the job's end and transfers are this program's own; no job comes as far as a file.
#include <curl/curl.h>
#include <sched.h>
#include <semaphore.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "Tarnwick/jobstate.h"
#include "Tarnwick/tarnwick.h"
#include "Tarnwick/videoinfo.h"
#include "common/fieldtext.h"
#include "fuzz.h"

using fuzz::Expect;

namespace {

std::string g_lock_name;
std::uint64_t g_announced = 0;
thread_local bool t_isIntake = false;

}  // namespace

extern "C" sem_t* sem_open(const char* name, int, ...) {
    static sem_t semaphore;
    g_lock_name = name;
    sem_init(&semaphore, 0, 1);
    return &semaphore;
}
extern "C" int sem_close(sem_t* semaphore) {
    int value = 0;
    sem_getvalue(semaphore, &value);
    Expect(value == 1, "the lock is free at the end");
    return 0;
}
extern "C" int sem_unlink(const char* name) {
    Expect(name == g_lock_name, "the lock that was opened is removed");
    return 0;
}

extern "C" unsigned sleep(unsigned seconds) {
    if (t_isIntake) {
        sched_yield();
    } else {
        std::this_thread::sleep_for(std::chrono::seconds(seconds));
    }
    return 0;
}

extern "C" CURLcode curl_easy_perform(CURL*) {
    g_FileSize = g_announced;
    return CURLE_COULDNT_CONNECT;
}

namespace {

// The section of a manager, with nothing behind it, and its former contents.
std::vector<char> g_section(SHARE_MEM_SIZE);
std::vector<char> g_before;

void FillSection(fuzz::Input& input) {
    t_isIntake = true;
    g_VideoInfoSection.hPrt = g_section.data();
    g_VideoInfoSection.pCommDataPrt = g_section.data() + TASK_COMMDATA_OFFSET;
    g_section.assign(SHARE_MEM_SIZE, input.Take<char>());
    input.Fill(reinterpret_cast<char(&)[TASK_COMMDATA_SIZE]>(*g_VideoInfoSection.pCommDataPrt));
    while (!input.Empty()) {
        tagTaskContext* slot = SlotAt(g_VideoInfoSection, input.Take<std::uint8_t>() % 8);
        input.FillRequest(*slot);
        slot->nControl = input.Take<std::int32_t>();
    }
}

bool SomeSlotCarries(const std::string& id) {
    for (int i = 0; i < TASK_SLOT_COUNT; ++i) {
        const auto& field = SlotAt(g_VideoInfoSection, i)->szTaskID;
        if (std::string(field, sizeof field).starts_with(id)) return true;
    }
    return false;
}

template <std::size_t Width>
void ExpectSameText(const char (&info)[Width], const char (&slot)[Width]) {
    Expect(info == FieldText(slot).substr(0, Width - 1), "the record holds the text, terminated");
}

void CheckRecord(const tagTaskContext& slot) {
    ExpectSameText(g_TaskInfo.szTaskID, slot.szTaskID);
    ExpectSameText(g_TaskInfo.szOrgUrl, slot.szOrgUrl);
    ExpectSameText(g_TaskInfo.szDownloadUrl, slot.szDownloadUrl);
    ExpectSameText(g_TaskInfo.szFilePath, slot.szFilePath);
    Expect(g_TaskInfo.nCmd == slot.nCmd && g_TaskInfo.nBlockCount == slot.nBlockCount,
           "the record holds the numbers");
    Expect(static_cast<unsigned>(g_TaskInfo.nTryCount) <= 3 &&
               static_cast<unsigned>(g_TaskInfo.nTryInterval) <= 3,
           "tries are bounded");
    Expect(g_lock_name == g_TaskInfo.szTaskID, "the lock has the task's name");
    Expect(g_TaskInfo.mutexLock == nullptr, "the lock is gone");
    Expect(g_DefaultTitle.size() <= 511 && g_DefaultThumbnail.size() <= 254, "ids are bounded");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    g_TaskIndex = input.Take<std::int8_t>();
    g_announced = input.Take<std::uint64_t>();
    const std::string id = input.Text(input.Take<std::uint8_t>()).c_str();
    FillSection(input);
    tagTaskContext* slot = SlotAt(g_VideoInfoSection, g_TaskIndex);
    const bool taken = slot != nullptr && SomeSlotCarries(id);
    // Without an id of its own, or without a name for its lock, a worker ends itself.
    if (id.empty() || (taken && FieldEmpty(slot->szTaskID))) return 0;

    // The job ends before its download or its first page.
    g_Exit = true;
    g_exit_download = false;
    g_FileSize = 0;
    g_TryCount = 0;
    g_before = g_section;
    const std::uint32_t bits = taken ? slot->nStateBits : 0;
    Expect(ParseTask(id.c_str()) == (taken ? 0 : -1), "a slot that is there is taken");
    Expect(g_DownloadConfigPath == FieldText(reinterpret_cast<char(&)[TASK_COMMDATA_SIZE]>(
                                       *g_VideoInfoSection.pCommDataPrt)),
           "the directory is the common area's text");
    if (taken) {
        Expect(slot->nPid == getpid(), "the slot is claimed");
        Expect((slot->nStateBits & bits) == bits, "no report is lost");
        CheckRecord(*slot);
        // All that a worker may change.
        auto* was = reinterpret_cast<tagTaskContext*>(
            g_before.data() + static_cast<std::size_t>(g_TaskIndex) * TASK_SLOT_SIZE);
        was->nPid = slot->nPid;
        was->bStateChanged = slot->bStateChanged;
        was->nStateBits = slot->nStateBits;
        std::memcpy(&was->dFileSize, &slot->dFileSize, sizeof was->dFileSize);
    }
    Expect(g_section == g_before, "the section is as it was");
    return 0;
}
