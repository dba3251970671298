// What the job reports: SendStateMSG, and the progress function, driven inside this process with a
// clock that the tests set. The worker's state lasts as long as its process, so every case has a
// process of its own.
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <sys/time.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "Tarnwick/download.h"
#include "Tarnwick/jobstate.h"
#include "Tarnwick/progress.h"
#include "Tarnwick/statereport.h"
#include "Tarnwick/transfer.h"
#include "common/fieldtext.h"
#include "support/helpers.h"
#include "support/http_server.h"
#include "support/job.h"

using test_support::InChild;
using test_support::Job;
using test_support::SemaphoreValue;

namespace {

// The clock of this program, milliseconds: what the tests set, and real time as often as they say.
std::int64_t g_clock = 0;
int g_clockFactor = 0;

}  // namespace

extern "C" int gettimeofday(timeval* now, void*) noexcept {
    const auto real = std::chrono::steady_clock::now().time_since_epoch();
    const std::int64_t time =
        g_clock +
        g_clockFactor * std::chrono::duration_cast<std::chrono::milliseconds>(real).count();
    now->tv_sec = time / 1000;
    now->tv_usec = time % 1000 * 1000;
    return 0;
}

namespace {

TEST(SendStateMSG, AddsBits) {
    InChild([] {
        Job job;
        EXPECT_EQ(SendStateMSG(DOWNLOAD_STATE_DOWNLOAD_START), 0);
        EXPECT_EQ(SendStateMSG(static_cast<tagDownloadStateCode>(31)), 0);
        EXPECT_EQ(job.Slot().nStateBits, 1U << 2 | 1U << 31);
        EXPECT_EQ(job.Slot().bStateChanged, 1);
        EXPECT_EQ(SemaphoreValue(job.id), 1);
    });
}

TEST(Reports, WaitForTheLock) {
    const auto value = [] { ReportValue(&tagTaskContext::dSpeed, 9.0, DOWNLOAD_STATE_SPEED); };
    const auto code = [] { SendStateMSG(DOWNLOAD_STATE_SPEED); };
    for (const std::function<void()>& report : {std::function(value), std::function(code)}) {
        InChild([&] {
            Job job;
            g_TaskInfo.mutexLock->Lock();
            std::thread reporter(report);
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            EXPECT_EQ(job.Slot().nStateBits, 0u);
            EXPECT_EQ(job.Slot().dSpeed, 0.0);
            g_TaskInfo.mutexLock->UnLock();
            reporter.join();
            EXPECT_EQ(job.Slot().nStateBits, 1U << 5);
        });
    }
}

TEST(SendStateMSG, RefusesCodesBeyondTheWord) {
    for (int code : {32, 33, 64, -1}) {
        SCOPED_TRACE(code);
        InChild([code] {
            Job job;
            try {
                SendStateMSG(static_cast<tagDownloadStateCode>(code));
                ADD_FAILURE() << "nothing thrown";
            } catch (const std::out_of_range& error) {
                EXPECT_STREQ(error.what(), "bitset::set");
            }
            EXPECT_EQ(job.Slot().nStateBits, 0u);
            EXPECT_EQ(job.Slot().bStateChanged, 0);
            EXPECT_EQ(SemaphoreValue(job.id), 1);
        });
    }
}

TEST(ReportDeath, ASlotOfAnotherTaskEndsTheProcessWithTheLockFree) {
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
    EXPECT_DEATH(step(),
                 "\\(false\\), function progress_callback, file Src/Tarnwick/tarnwick, line ");
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

void Play(const char* name, std::int32_t nCmd, std::int32_t nControl,
          const std::vector<Call>& calls) {
    SCOPED_TRACE(name);
    InChild([&] {
        Job job(nCmd);
        tagTaskContext& slot = job.Slot();
        slot.dProgress = slot.dSpeed = -1.0;
        slot.nControl = nControl;
        for (const Call& call : calls) {
            SCOPED_TRACE(call.time);
            g_clock = call.time;
            slot.nStateBits = 0;
            slot.bStateChanged = 0;
            g_TryCount = 2;
            EXPECT_EQ(progress_callback(nullptr, call.total, call.received, 0, 0), call.result);
            EXPECT_EQ(slot.nStateBits, call.bits);
            EXPECT_EQ(slot.bStateChanged, call.bits != 0 ? 1 : 0);
            EXPECT_EQ(slot.dProgress, call.progress);
            EXPECT_EQ(slot.dSpeed, call.speed);
            EXPECT_EQ(g_TryCount, call.tries);
        }
    });
}

TEST(Progress, ReportsAndBreaksOff) {
    Play("percentage and speed", 3, -1,
         {{1000, 0, 0, 0, 0, -1, -1},
          {1100, 1e7, 1000, 0, kFirst, -1, -1},
          {1200, 1e7, 2000, 0, 0, -1, -1, 0},
          {2300, 1e7, 2.5e6, 0, kPercent, 25, -1, 0},
          {2900, 1e7, 2.6e6, 0, 0, 25, -1, 0},
          {4300, 1e7, 3.5e6, 0, kPercent | kSpeed, 35, 500000, 0},
          {6300, 1e7, 4.5e6, 0, kPercent, 45, 500000, 0},
          {8300, 1e7, 1.0e6, 0, 0, 45, 500000, 0},
          {8310, 2e7, 9.0e6, 0, 0, 45, 500000},
          {9400, 2e7, 9.0e6, 0, kSpeed, 45, 7272727, 0},
          {10500, 2e7, 9.0e6, 0, kSpeed, 45, 0}});
    Play("20 seconds without bytes", 1, -1,
         {{1000, 100, 0, 0, 0, -1, -1},
          {20900, 100, 0, 0, 0, -1, -1},
          {20999, 100, 0, 0, 0, -1, -1},
          {21000, 100, 0, -1, 0, -1, -1},
          {21000, 100, 0, 0, 0, -1, -1},
          {30000, 100, 7, 0, kFirst, -1, -1},
          {41000, 100, 8, 0, kPercent, 8, -1, 0},
          {60999, 100, 8, 0, 0, 8, -1},
          {80998, 100, 8, 0, 0, 8, -1},
          {80999, 100, 8, -1, 0, 8, -1},
          {81000, 100, 8, 0, 0, 8, -1},
          {82000, 100, 8, 0, 0, 8, -1},
          {101500, 100, 8, 0, 0, 8, -1},
          {102000, 100, 8, -1, 0, 8, -1}});
    Play("a file that is there at once", 1, -1,
         {{1000, 5, 5, 0, 0, -1, -1}, {9000, 5, 5, 0, 0, -1, -1}});
    Play(
        "a page", 0, -1,
        {{1000, 9, 1, 0, 0, -1, -1}, {3000, 9, 2, 0, 0, -1, -1, 0}, {6000, 9, 3, 0, 0, -1, -1, 0}});
    Play("no length", 1, -1,
         {{1000, 0, 10, 0, kFirst, -1, -1},
          {2000, 0, 20, 0, 0, -1, -1, 0},
          {4000, 0, 40, 0, kSpeed, -1, 10, 0}});
    Play("a stop while nothing comes", 1, 2,
         {{1000, 0, 0, -1, 0, -1, -1}, {1001, 9, 1, -1, 0, -1, -1}});
}

TEST(Numbers, OfTriesAndLengthsAreBounded) {
    for (auto [number, tries] : {std::pair(0, 0), {3, 3}, {4, 3}, {-1, 3}, {INT32_MIN, 3}}) {
        EXPECT_EQ(ClampTries(number), tries) << number;
    }
    constexpr std::uint64_t kMost = UINT64_MAX;
    for (auto [length, bytes] : {std::pair(-1.0, std::uint64_t{0}),
                                 {0.0, 0},
                                 {1.9, 1},
                                 {0x1p63, 1ULL << 63},
                                 {0x1p64, kMost},
                                 {std::nan(""), 0}}) {
        EXPECT_EQ(ToLength(length), bytes) << length;
    }
}

TEST(Download, BlocksAreWrittenBeforeAStopIsHeeded) {
    for (bool stop : {false, true}) {
        for (bool exit : {false, true}) {
            InChild([=] {
                Job job;
                job.Slot().nControl = stop ? TASK_CONTROL_STOP : -1;
                g_Exit = exit;
                const test_support::TempDir directory;
                FILE* file = std::fopen(directory.Path("file").c_str(), "wb+");
                char block[] = "block";
                EXPECT_EQ(process_data(block, 1, 5, file), stop || exit ? SIZE_MAX : 5);
                EXPECT_EQ(test_support::ReadFile(directory.Path("file")),
                          stop || exit ? "block" : "");
                std::fclose(file);
            });
        }
    }
}

// With the clock going 40 times as fast, a stall costs half a second.
TEST(Download, AStalledTryIsFollowedByAnotherThatStartsAfresh) {
    using test_support::Reply;
    const std::string bytes = test_support::TestBytes(100'000);
    const auto half = Reply::Head("100000").Send(bytes.substr(0, 50'000), 250'000).Silence();
    for (const Reply& second : {Reply::Ok(bytes), Reply()}) {
        InChild([&] {
            g_clockFactor = 40;
            const test_support::TempDir directory;
            test_support::HttpServer server({half, second});
            Job job;
            SetField(g_TaskConData.szDownloadUrl, server.Url());
            SetField(g_TaskConData.szFilePath, directory.Path("output"));
            g_TaskConData.nTryCount = 2;
            g_TaskConData.nTryInterval = 0;
            CURL* curl = curl_easy_init();
            EXPECT_EQ(DownloadVideo(curl, &g_TaskConData), 0);
            curl_easy_cleanup(curl);
            const bool failed = (job.Slot().nStateBits >> DOWNLOAD_STATE_DOWNLOAD_FAIL & 1) != 0;
            const std::string file = test_support::ReadFile(directory.Path("output"));
            EXPECT_EQ(server.RequestCount(), 2u);
            EXPECT_TRUE(file == bytes.substr(0, failed ? 50'000 : 100'000));
            EXPECT_GT(job.Slot().dProgress, 0.0);
            EXPECT_EQ(g_Exit, failed);
            EXPECT_TRUE(!failed || g_Progress == 0.0) << g_Progress;
        });
    }
}

}  // namespace
