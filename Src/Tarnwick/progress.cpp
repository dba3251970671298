#include "Tarnwick/progress.h"

#include <algorithm>
#include <cstdint>
#include <limits>

#include "Tarnwick/jobstate.h"
#include "Tarnwick/statereport.h"
#include "Tarnwick/transfer.h"
#include "common/assertion.h"
#include "common/sysutility.h"

namespace {

constexpr int kGoOn = 0;
constexpr int kStopTransfer = -1;
constexpr std::uint64_t kStallSeconds = 20;

// What the callback remembers from call to call, across tries and transfers.
struct Memory {
    std::uint64_t uTotal = 0;             // total seen last, bytes
    std::uint64_t uPrevRecvSize = 0;      // received count seen last, bytes; 0: none
    bool bHasDownload = false;            // the first bytes have been seen
    std::uint64_t uLastProgressTime = 0;  // time of the last percentage, ms; 0: not started
    bool bStartCheckNetState = false;     // the stall timer runs
    std::uint64_t uStartTime = 0;         // since when, ms
};

Memory g_memory;

std::uint64_t Now() {
    return static_cast<std::uint64_t>(sysutility::GetTickCounts());
}

// Whole seconds since `then`, unsigned: a clock that is set back makes it a very long time.
std::uint64_t SecondsSince(std::uint64_t then, std::uint64_t now) {
    return (now - then) / 1000;
}

void Report(double tagTaskContext::*field, double value, tagDownloadStateCode code,
            int line = __builtin_LINE()) {
    assertion::Require(OwnsSlot(), "progress_callback", kWorkerSource, "false", line);
    ReportValue(field, value, code);
}

void NoteFirstBytes(std::uint64_t received) {
    if (g_memory.bHasDownload || g_Progress != 0.0 || received == 0) return;
    g_memory.bHasDownload = true;
    if (IsDownloadCommand(g_TaskConData.nCmd)) SendStateMSG(DOWNLOAD_STATE_DOWNLOAD_START);
}

// Runs the stall timer while no bytes arrive. True when it has expired: timer and received count
// are reset then.
bool Stalled() {
    const std::uint64_t now = Now();
    if (!g_memory.bStartCheckNetState) {
        g_memory.bStartCheckNetState = true;
        g_memory.uStartTime = now;
        return false;
    }
    if (SecondsSince(g_memory.uStartTime, now) < kStallSeconds) return false;
    g_memory.bStartCheckNetState = false;
    g_memory.uStartTime = 0;
    g_memory.uPrevRecvSize = 0;
    return true;
}

enum class Arrival { kFirst, kMore, kStalled, kNothing };

// Compares the received count with that of the previous call.
Arrival TrackReceived(std::uint64_t received) {
    if (g_memory.uPrevRecvSize == 0 && received != 0) {
        g_memory.uPrevRecvSize = received;
        return Arrival::kFirst;
    }
    if (received != g_memory.uPrevRecvSize) {
        g_memory.uPrevRecvSize = received;
        g_memory.bStartCheckNetState = false;
        g_memory.uStartTime = 0;
        g_TryCount = 0;
        return Arrival::kMore;
    }
    return Stalled() ? Arrival::kStalled : Arrival::kNothing;
}

// Reports the percentage, at most once a second and only when it grows. False for the first call,
// which only notes the time.
bool StepPercentage(std::uint64_t received) {
    const std::uint64_t now = Now();
    if (g_memory.uLastProgressTime == 0) {
        g_memory.uLastProgressTime = now;
        return false;
    }
    if (SecondsSince(g_memory.uLastProgressTime, now) < 1) return true;
    g_memory.uLastProgressTime = now;
    const auto percentage = static_cast<double>(100 * received / g_memory.uTotal);
    if (percentage > g_Progress) {
        g_Progress = percentage;
        Report(&tagTaskContext::dProgress, percentage, DOWNLOAD_STATE_PROGRESS);
    }
    return true;
}

std::uint32_t BytesPerSecond(std::uint64_t bytes, std::uint64_t milliseconds) {
    const double speed = static_cast<double>(bytes * 1000) / static_cast<double>(milliseconds);
    constexpr double kMost = std::numeric_limits<std::uint32_t>::max();
    return static_cast<std::uint32_t>(std::clamp(speed, 0.0, kMost));
}

// Reports the speed since the last computation, a second or more ago, if it has changed.
void StepSpeed(std::uint64_t received) {
    const std::uint64_t now = Now();
    if (g_LastCalcTime == 0 || received < g_LastDownloadSize) {
        g_LastBPS = 0;
        g_LastCalcTime = now;
        g_LastDownloadSize = received;
        return;
    }
    const std::uint64_t elapsed = now - g_LastCalcTime;
    if (elapsed / 1000 == 0) return;
    const std::uint32_t speed = BytesPerSecond(received - g_LastDownloadSize, elapsed);
    g_LastCalcTime = now;
    g_LastDownloadSize = received;
    if (speed == g_LastBPS) return;
    g_LastBPS = speed;
    Report(&tagTaskContext::dSpeed, speed, DOWNLOAD_STATE_SPEED);
}

}  // namespace

int progress_callback(void* /*clientp*/, double dltotal, double dlnow, double /*ultotal*/,
                      double /*ulnow*/) {
    const std::uint64_t total = ToLength(dltotal);
    const std::uint64_t received = ToLength(dlnow);
    if (g_memory.uTotal == 0) g_memory.uTotal = total;
    if (g_memory.uTotal != total) {
        g_memory.uTotal = total;
        return kGoOn;
    }
    // Checked before the return below: while a server that has accepted is silent, the counts are 0
    // of 0.
    if (StopRequested() || g_Exit) return kStopTransfer;
    if (received == total && g_Progress == 0.0) return kGoOn;
    NoteFirstBytes(received);
    switch (TrackReceived(received)) {
        case Arrival::kFirst:
            return kGoOn;
        case Arrival::kStalled:
            return kStopTransfer;
        case Arrival::kMore:
        case Arrival::kNothing:
            break;
    }
    if (!IsDownloadCommand(g_TaskConData.nCmd)) return kGoOn;
    // Without an announced length there is no percentage.
    if (total != 0 && !StepPercentage(received)) return kGoOn;
    StepSpeed(received);
    return kGoOn;
}

int OnProgress(void* clientp, double dltotal, double dlnow, double ultotal, double ulnow) noexcept {
    return KeepExceptions(
        kStopTransfer, [&] { return progress_callback(clientp, dltotal, dlnow, ultotal, ulnow); });
}
