// Requests of any content: what the manager accepts, and what workers take in from such slots.
// Semaphores and transfers are this program's own; no job comes as far as a file.
#include <curl/curl.h>
#include <semaphore.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "Tarnwick/jobstate.h"
#include "Tarnwick/tarnwick.h"
#include "TaskMan/section/taskid.h"
#include "TaskMan/task/admission.h"
#include "common/fieldtext.h"
#include "fuzz.h"

extern "C" sem_t* sem_open(const char*, int, ...) {
    static sem_t semaphore;
    sem_init(&semaphore, 0, 1);
    return &semaphore;
}
extern "C" int sem_close(sem_t* semaphore) {
    Expect(sem_trywait(semaphore) == 0, "the lock is free at the end");
    return 0;
}
extern "C" int sem_unlink(const char*) {
    return 0;
}
extern "C" unsigned sleep(unsigned) {
    return static_cast<unsigned>(usleep(20));
}
extern "C" CURLcode curl_easy_perform(CURL*) {
    g_FileSize = 100;
    return CURLE_COULDNT_CONNECT;
}

void Fuzz(Input input) {
    // The section of a manager, with nothing behind it.
    static std::vector<char> section;
    section.assign(SHARE_MEM_SIZE, input.Take<char>());
    g_VideoInfoSection.hPrt = section.data();
    g_VideoInfoSection.pCommDataPrt = section.data() + TASK_COMMDATA_OFFSET;
    g_TaskIndex = input.Take<std::int8_t>();
    const std::string id = input.Text(input.Take<std::uint8_t>()).c_str();
    tagTaskInfo info("A_z-09");
    SetField(info.szDownloadUrl, "HTTP://h");
    info.nCmd = TASK_CMD_DOWNLOAD;
    info.nTaskKind = 0;
    while (!input.Empty()) {
        tagTaskContext* slot = SlotAt(g_VideoInfoSection, input.Take<std::uint8_t>() % 9);
        slot != nullptr ? input.Scribble(*slot) : input.Scribble(info);
    }
    Expect(!RefusalOf(info).empty() ||
               (IsTaskID(FieldText(info.szTaskID)) &&
                FieldText(SlotOf(info).szFilePath) == FieldText(info.szFilePath)),
           "a request is refused or held by its slot");
    tagTaskContext* slot = SlotAt(g_VideoInfoSection, g_TaskIndex);
    const auto carries = [&id](const tagTaskContext& other) {
        return FieldBeginsWith(other.szTaskID, id);
    };
    auto* slots = SlotAt(g_VideoInfoSection, 0);
    const bool taken = slot != nullptr && std::any_of(slots, slots + TASK_SLOT_COUNT, carries);
    // Without an id of its own, or without a name for its lock, a worker ends itself.
    if (id.empty() || (taken && FieldEmpty(slot->szTaskID))) return;
    // The job ends before its download or its first page.
    g_Exit = true;
    g_exit_download = false;
    g_FileSize = 0;
    std::vector<char> before = section;
    Expect(ParseTask(id.c_str()) == (taken ? 0 : -1), "a slot that is there is taken");
    if (taken) {
        Expect(slot->nPid == getpid(), "the slot is claimed");
        Expect(static_cast<unsigned>(g_TaskInfo.nTryCount) <= 3 &&
                   static_cast<unsigned>(g_TaskInfo.nTryInterval) <= 3,
               "tries are bounded");
        // All that a worker may change: process id, states and file size.
        const auto at =
            static_cast<std::size_t>(reinterpret_cast<char*>(&slot->nPid) - section.data());
        std::copy_n(&section[at], 20, &before[at]);
    }
    Expect(section == before, "the section is as it was");
}
