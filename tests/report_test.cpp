// What the job reports: SendStateMSG, and the progress function, driven inside this process with a
// clock that the tests set. What the progress function remembers lasts as long as its process.
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <sys/time.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <utility>
#include <vector>

#include "Tarnwick/download.h"
#include "Tarnwick/progress.h"
#include "Tarnwick/statereport.h"
#include "Tarnwick/transfer.h"
#include "support/http_server.h"
#include "support/job.h"

using namespace test_support;

static std::int64_t g_clock = 0;  // milliseconds

extern "C" int gettimeofday(timeval* now, void*) noexcept {
    now->tv_sec = g_clock / 1000;
    now->tv_usec = g_clock % 1000 * 1000;
    return 0;
}

namespace {

TEST(Reports, AreBitsOfTheWord) {
    Job job;
    EXPECT_EQ(SendStateMSG(DOWNLOAD_STATE_DOWNLOAD_START), 0);
    SendStateMSG(static_cast<tagDownloadStateCode>(31));
    EXPECT_EQ(job.Slot().bStateChanged, 1);
    EXPECT_THROW(SendStateMSG(static_cast<tagDownloadStateCode>(32)), std::out_of_range);
    EXPECT_EQ(job.Slot().nStateBits, 1U << 2 | 1U << 31);
    EXPECT_EQ(SemaphoreValue(job.id), 1);
}

TEST(ReportsDeath, ASlotOfAnotherTaskEndsTheProcessWithTheLockFree) {
    Job job;
    job.Slot().szTaskID[job.id.size() - 1] ^= 1;
    EXPECT_DEATH(SendStateMSG(DOWNLOAD_STATE_SPEED),
                 "^Assertion failed: \\(false\\), function SendStateMSG, file "
                 "Src/Tarnwick/tarnwick, line 990\\.\n$");
    const auto step = [] {
        g_Progress = 1.0;
        for (g_clock = 1000; g_clock < 4000; g_clock += 1000) {
            progress_callback(nullptr, 1e4, static_cast<double>(g_clock), 0.0, 0.0);
        }
    };
    EXPECT_DEATH(step(), "\\(false\\), function progress_callback, file Src/Tarnwick/tarnwick, ");
    EXPECT_EQ(SemaphoreValue(job.id), 1);
    EXPECT_EQ(job.Slot().nStateBits, 0u);
}

constexpr std::uint32_t kFirst = 1U << 2, kPercent = 1U << 4, kSpeed = 1U << 5;

// A call of the progress function and what it leaves; `bits` are those set by this call.
struct Call {
    std::int64_t time;
    double total, received;
    int result;
    std::uint32_t bits;
    double progress, speed;
    int tries = 2;  // left of two failed ones
};

void Play(std::int32_t nCmd, std::int32_t nControl, const std::vector<Call>& calls) {
    InChild([&] {
        Job job(nCmd);
        tagTaskContext& slot = job.Slot();
        slot.dProgress = slot.dSpeed = -1.0;
        slot.nControl = nControl;
        for (const Call& call : calls) {
            SCOPED_TRACE("command " + std::to_string(nCmd) + ", " + std::to_string(call.time));
            g_clock = call.time;
            slot.nStateBits = 0;
            g_TryCount = 2;
            EXPECT_EQ(progress_callback(nullptr, call.total, call.received, 0, 0), call.result);
            EXPECT_EQ(slot.nStateBits, call.bits);
            EXPECT_EQ(slot.dProgress, call.progress);
            EXPECT_EQ(slot.dSpeed, call.speed);
            EXPECT_EQ(g_TryCount, call.tries);
        }
    });
}

TEST(Progress, TellsPercentageAndSpeed) {
    Play(3, -1,
         {{1050, 1e7, 1e7, 0, 0, -1, -1},
          {1100, 1e7, 1000, 0, kFirst, -1, -1},
          {1200, 1e7, 2000, 0, 0, -1, -1, 0},
          {2300, 1e7, 2.5e6, 0, kPercent, 25, -1, 0},
          {2900, 1e7, 2.6e6, 0, 0, 25, -1, 0},
          {4300, 1e7, 3.55e6, 0, kPercent | kSpeed, 35, 525000, 0},
          {6300, 1e7, 4.6e6, 0, kPercent, 46, 525000, 0},
          // Another try, which starts over and then learns of another length.
          {8300, 1e7, 1.0e6, 0, 0, 46, 525000, 0},
          {8310, 2e7, 9.0e6, 0, 0, 46, 525000},
          {9400, 2e7, 1.5775e6, 0, kSpeed, 46, 525000, 0},
          {10500, 2e7, 9.2e6, 0, kSpeed, 46, 6929545, 0},
          {12700, 2e7, 2e7, 0, kPercent | kSpeed, 100, 4909090, 0}});
    // No length is announced: no percentage.
    Play(1, -1,
         {{1000, 0, 10, 0, kFirst, -1, -1},
          {2000, 0, 20, 0, 0, -1, -1, 0},
          {4000, 0, 40, 0, kSpeed, -1, 10, 0}});
    // A page: neither.
    Play(0, -1,
         {{1000, 900, 1, 0, 0, -1, -1},
          {3000, 900, 2, 0, 0, -1, -1, 0},
          {6000, 900, 300, 0, 0, -1, -1, 0}});
}

TEST(Progress, BreaksOffOnAStopAndAfter20SecondsWithoutBytes) {
    Play(1, TASK_CONTROL_STOP, {{1000, 0, 0, -1, 0, -1, -1}});
    Play(1, -1,
         {{1000, 100, 0, 0, 0, -1, -1},
          {20999, 100, 0, 0, 0, -1, -1},
          {21000, 100, 0, -1, 0, -1, -1},
          {21000, 100, 0, 0, 0, -1, -1},
          {30000, 100, 7, 0, kFirst, -1, -1},
          {41000, 100, 8, 0, kPercent, 8, -1, 0},
          {60999, 100, 8, 0, 0, 8, -1},
          {80999, 100, 8, -1, 0, 8, -1},
          {81000, 100, 8, 0, 0, 8, -1},
          {101500, 100, 8, 0, 0, 8, -1}});
}

TEST(Download, BlocksAreWrittenBeforeAStopIsHeeded) {
    Job job;
    const TempDir directory;
    for (const bool exit : {true, false}) {
        g_Exit = exit;
        job.Slot().nControl = exit ? -1 : TASK_CONTROL_STOP;
        FILE* file = std::fopen(directory.Path("file").c_str(), "wb+");
        char block[] = "block";
        EXPECT_EQ(process_data(block, 1, 5, file), SIZE_MAX);
        EXPECT_EQ(ReadFile(directory.Path("file")), "block");
        std::fclose(file);
    }
}

TEST(Download, EveryTryStartsAfresh) {
    double before = 0.0;
    HttpServer server([&before](const std::string&, std::size_t) {
        before += std::exchange(g_Progress, 50.0);
        return Reply();
    });
    const TempDir directory;
    Job job;
    SetField(g_TaskConData.szDownloadUrl, server.Url());
    SetField(g_TaskConData.szFilePath, directory.Path("output"));
    g_TaskConData.nTryInterval = 0;
    CURL* curl = curl_easy_init();
    EXPECT_EQ(DownloadVideo(curl, &g_TaskConData), 0);
    curl_easy_cleanup(curl);
    EXPECT_EQ(server.RequestCount(), 3u);
    EXPECT_EQ(before, 0.0);
    EXPECT_TRUE(g_Exit);
    EXPECT_EQ(ClampTries(4) + ClampTries(-1) + ClampTries(0), 6);
    EXPECT_TRUE(ToLength(1.9) == 1 && ToLength(0x1p64) == UINT64_MAX && ToLength(NAN) == 0);
}

}  // namespace
