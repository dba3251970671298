#include "Tarnwick/statereport.h"

#include <algorithm>
#include <cstring>

#include "Tarnwick/jobstate.h"
#include "common/AutoLock.h"
#include "common/assertion.h"
#include "common/fieldtext.h"

namespace {

tagTaskContext& LiveSlot() {
    return *SlotAt(g_VideoInfoSection, g_TaskIndex);
}

// Stores into the slot and sets the bit of `code`, under the lock.
template <class Store>
void LockedUpdate(tagDownloadStateCode code, Store store) {
    Threading::AutoLock hold(g_TaskInfo.mutexLock);
    store(LiveSlot());
    SetStateBit(LiveSlot(), code);
}

void StoreText(tagTaskContext& slot, const std::string& text) {
    std::memset(slot.szVideoInfo, 0, sizeof slot.szVideoInfo);
    std::memcpy(slot.szVideoInfo, text.data(), std::min(text.size(), sizeof slot.szVideoInfo));
}

}  // namespace

bool OwnsSlot() {
    return FieldBeginsWith(LiveSlot().szTaskID, FieldView(g_TaskInfo.szTaskID));
}

int SendStateMSG(tagDownloadStateCode code) {
    Threading::AutoLock hold(g_TaskInfo.mutexLock);
    if (!OwnsSlot()) {
        // A semaphore whose holder has died would block the manager.
        hold.UnLock();
        assertion::Fail("SendStateMSG", kWorkerSource, "false", 990);
    }
    SetStateBit(LiveSlot(), code);
    return 0;
}

void ReportValue(double tagTaskContext::*field, double value, tagDownloadStateCode code) {
    LockedUpdate(code, [&](tagTaskContext& slot) { slot.*field = value; });
}

void ReportInfoText(const std::string& text) {
    LockedUpdate(DOWNLOAD_STATE_PARSE_FINISH, [&](tagTaskContext& slot) { StoreText(slot, text); });
}

void ReportAnswer(const std::string& text, tagDownloadStateCode code, double size) {
    LockedUpdate(code, [&](tagTaskContext& slot) {
        // Nobody reads what stands behind the end.
        slot.szVideoInfo[text.copy(slot.szVideoInfo, sizeof slot.szVideoInfo - 1)] = '\0';
        if (code == DOWNLOAD_STATE_FILE_SIZE) slot.dFileSize = size;
    });
}
