#include "TaskMan/task/delivery.h"

#include <bit>
#include <string>

#include "TaskMan/task/extended.h"
#include "TaskMan/task/idleworkers.h"
#include "TaskMan/task/supervisor.h"
#include "common/AutoLock.h"
#include "common/fieldtext.h"

namespace {

void NoteReport(Watch& watch, std::int32_t nCode) {
    Threading::AutoLock hold(&g_watch_mutex);
    if (IsDownloadCommand(watch.nCmd) &&
        (nCode == DOWNLOAD_STATE_FILE_SIZE || nCode == DOWNLOAD_STATE_DOWNLOAD_START)) {
        watch.stage.Advance(Stage::kAnswered, Clock::now());
    }
    if (IsFinalCode(nCode)) watch.nFinalCode = nCode;
    // A task that finished all the same has nothing remarkable about its end.
    if (nCode == DOWNLOAD_STATE_DOWNLOAD_FINISH || nCode == DOWNLOAD_STATE_PARSE_FINISH) {
        watch.remark.clear();
    }
}

void NoteDelivery(Watch& watch) {
    bool freed = false;
    {
        Threading::AutoLock hold(&g_watch_mutex);
        const Clock::time_point now = Clock::now();
        watch.stage.Advance(Stage::kDelivered, now);
        // A slot whose worker is idle is free without the supervisor.
        freed = KeepIfIdle(watch, now);
        if (freed) g_slot_freed = false;
    }
    g_end_event.Set();
    freed ? TellOfFreeSlot() : WakeSupervisor();
}

}  // namespace

void DeliverState(void* param, const char* szTaskID, std::int32_t nCode, double dValue,
                  std::int32_t nTaskKind) {
    Watch& watch = *static_cast<Watch*>(param);
    NoteReport(watch, nCode);
    if (watch.pfnStateCallback != nullptr) {
        watch.pfnStateCallback(watch.pCallbackParam, szTaskID, nCode, dValue, nTaskKind);
    }
    if (IsFinalCode(nCode)) NoteDelivery(watch);
}

void DeliverResult(void* param, const char* szTaskID, std::int32_t nCode, const char* szText,
                   std::uint32_t nLength) {
    Watch& watch = *static_cast<Watch*>(param);
    NoteReport(watch, nCode);
    if (watch.pfnResultCallback != nullptr) {
        watch.pfnResultCallback(watch.pCallbackParam, szTaskID, nCode, szText, nLength);
    }
    NoteDelivery(watch);
}

void DeliverLast(Watch& watch) {
    const tagTaskContext& slot = *SlotAt(g_VideoInfoSection, watch.nTaskIndex);
    const bool own = FieldView(slot.szTaskID) == watch.id;
    if (own) KeepAnswer(watch.nTaskIndex, slot);
    const std::uint32_t finals = own ? slot.nStateBits & FINAL_STATE_BITS : 0;
    const int code = finals == 0 ? DOWNLOAD_STATE_STOPPED : std::countr_zero(finals);
    if (code == DOWNLOAD_STATE_PARSE_FINISH) {
        const std::string text = FieldText(slot.szVideoInfo) + std::string(2, '\0');
        DeliverResult(&watch, watch.id.c_str(), code, text.data(),
                      static_cast<std::uint32_t>(text.size() - 2));
        return;
    }
    const bool marked = code == DOWNLOAD_STATE_DOWNLOAD_FINISH && watch.nTaskKind == 1;
    DeliverState(&watch, watch.id.c_str(), code, marked ? -1.0 : 0.0, watch.nTaskKind);
}
