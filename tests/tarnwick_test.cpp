// The worker's operations inside the test program: reports and progress, download info files and
// ranges.
#include <curl/curl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cmath>
#include <cstdio>
#include <memory>
#include <stdexcept>

#include "Tarnwick/download.h"
#include "Tarnwick/downloadinfo.h"
#include "Tarnwick/jobstate.h"
#include "Tarnwick/nexttask.h"
#include "Tarnwick/progress.h"
#include "Tarnwick/statereport.h"
#include "Tarnwick/transfer.h"
#include "common/fieldtext.h"
#include "support/http_server.h"

using namespace test_support;

// What the progress function remembers lasts as long as its process, and the clock is the tests'.
static std::int64_t g_clock = 0;  // milliseconds

extern "C" int gettimeofday(timeval* now, void*) noexcept {
    now->tv_sec = g_clock / 1000;
    now->tv_usec = g_clock % 1000 * 1000;
    return 0;
}

namespace {

// What a worker's intake leaves to its job: a task in slot 5 of a section, and its lock. The slot's
// id has an end that the task's lacks.
class Job {
  public:
    explicit Job(std::int32_t nCmd = TASK_CMD_DOWNLOAD) {
        g_VideoInfoSection.hPrt = reinterpret_cast<char*>(memory_.data());
        g_TaskIndex = 5;
        SetField(Slot().szTaskID, id + "-and-more");
        SetField(g_TaskInfo.szTaskID, id);
        g_TaskInfo.mutexLock = new Threading::Mutex(id.c_str());
        g_CurTaskContext_prt = &Slot();
        g_TaskConData.nCmd = nCmd;
        g_TryCount = 0;
        g_Exit = false;
    }
    ~Job() { delete std::exchange(g_TaskInfo.mutexLock, nullptr); }
    tagTaskContext& Slot() { return *SlotAt(g_VideoInfoSection, g_TaskIndex); }

    const std::string id = UniqueName();

  private:
    std::vector<std::uint64_t> memory_ = std::vector<std::uint64_t>(SHARE_MEM_SIZE / 8 + 1);
};

TEST(Reports, AreBitsOfTheTasksOwnSlot) {
    Job job;
    EXPECT_EQ(SendStateMSG(DOWNLOAD_STATE_DOWNLOAD_START), 0);
    SendStateMSG(static_cast<tagDownloadStateCode>(31));
    EXPECT_EQ(job.Slot().bStateChanged, 1);
    EXPECT_THROW(SendStateMSG(static_cast<tagDownloadStateCode>(32)), std::out_of_range);
    job.Slot().szTaskID[job.id.size() - 1] ^= 1;
    EXPECT_DEATH(SendStateMSG(DOWNLOAD_STATE_SPEED),
                 "^Assertion failed: \\(false\\), function SendStateMSG, file "
                 "Src/Tarnwick/tarnwick, line 990\\.\n$");
    EXPECT_EQ(SemaphoreValue(job.id), 1);
    EXPECT_EQ(job.Slot().nStateBits, 1U << 2 | 1U << 31);
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
    Play(0, -1, {{1000, 900, 1, 0, 0, -1, -1}, {3000, 900, 2, 0, 0, -1, -1, 0}});
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
    EXPECT_TRUE(ToLength(1.9) == 1 && ToLength(0x1p64) == UINT64_MAX && ToLength(NAN) == 0);
}

// A field of the record: a text, or numbers of 32 bits, with zeros behind.
std::string Field(std::string text, std::size_t width) {
    text.resize(width);
    return text;
}

std::string Numbers(const std::vector<std::uint32_t>& numbers, std::size_t width) {
    const auto* bytes = reinterpret_cast<const char*>(numbers.data());
    return Field({bytes, 4 * numbers.size()}, width);
}

TEST(InfoFile, IsMadeKeptAndBroughtUpToDate) {
    const Job job;
    const TempDir directory;
    const std::string name = directory.Path(job.id + ".config");
    g_DownloadConfigPath = directory.Path();
    HttpServer server({Reply::Head("10000000", "x")});
    tagTaskContext task;
    SetField(task.szTaskID, job.id);
    SetField(task.szOrgUrl, "http://page");
    SetField(task.szFilePath, "/out/file");
    task.nDownloadInfoTag = 77;
    const auto make = [&](const std::string& path) {
        return Field(job.id, 64) + Numbers({3, 10'000'000, 0, 77}, 16) +
               Field("http://page", 1024) + Field(server.Url(path), 1024) +
               Field("/out/file", 512) + Numbers({0, 3'333'334, 6'666'668}, 40) +
               Numbers({4294967295, 3'333'333, 6'666'667}, 40) +
               Numbers({3'333'333, 6'666'667, 9'999'999}, 40);
    };
    const std::string record = make("/long"), texts = record.substr(0, 2640);
    const struct {
        const char* name;
        std::string path, stored;
        bool done;
        std::size_t requests;
        std::int32_t nCmd = TASK_CMD_DOWNLOAD, nBlockCount = 3;
    } rows[] = {
        {"none yet", "/long", "", true, 1},
        {"none yet, too many blocks", "/long", "", false, 1, TASK_CMD_DOWNLOAD, 11},
        {"the same address", "/long", record + "junk", true, 0},
        {"another one", "/short", texts + std::string(120, '7'), true, 1},
        {"too many blocks", "/short", record, false, 1, TASK_CMD_DOWNLOAD, 11},
        {"a text without an end", "/short", std::string(texts).replace(80, 1024, 1024, 'u'), true,
         1},
        {"short of a byte", "/long", record.substr(0, 2639), false, 0},
        {"another's", "/long", std::string(record).replace(0, 1, "x"), false, 0},
        {"another's, command 3", "/long", std::string(2760, 'x'), true, 1,
         TASK_CMD_DOWNLOAD_SECOND},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::remove(name.c_str());
        if (!row.stored.empty()) WriteFile(name, row.stored);
        const std::size_t before = server.RequestCount();
        g_FileSize = 0;
        SetField(task.szDownloadUrl, server.Url(row.path));
        task.nCmd = row.nCmd;
        task.nBlockCount = row.nBlockCount;
        EXPECT_EQ(InitDownloadInfofile(&task), row.done);
        EXPECT_EQ(ReadFile(name), row.done ? make(row.path) : row.stored);
        EXPECT_EQ(server.RequestCount() - before, row.requests);
        EXPECT_EQ(g_FileSize, row.done || row.requests > 0 ? 10'000'000u : 0u);
        const std::unique_ptr<tagDownloadInfo> info(GetDownloadMapInfoFormDownloadInfoFile(&task));
        EXPECT_TRUE(!row.done || std::memcmp(info.get(), make(row.path).data(), sizeof *info) == 0);
    }
}

TEST(Range, IsAHeaderOfItsHandle) {
    HttpServer server({Reply::Ok("")});
    CURL* handles[2] = {curl_easy_init(), curl_easy_init()};
    EXPECT_EQ(Curl_SetHttpHead_Range(handles[0], 1000, 499), 0);
    EXPECT_EQ(Curl_SetHttpHead_Range(handles[1], 0, 2147483647), 0);
    const auto expect = [&](int handle, const char* line) {
        curl_easy_setopt(handles[handle], CURLOPT_URL, server.Url().c_str());
        EXPECT_EQ(curl_easy_perform(handles[handle]), CURLE_OK);
        const std::string request = server.Requests().back();
        EXPECT_EQ(Has(request, "Range"), *line != '\0') << request;
        EXPECT_TRUE(Has(request, line)) << request;
    };
    expect(0, "Range: bytes=1000-1499\r\n");
    expect(1, "Range: bytes=0-2147483647\r\n");
    for (const auto& [start, count] : {std::pair(2147483648UL, 0UL), {2147483647, 1}, {1, ~0UL}}) {
        EXPECT_EQ(Curl_SetHttpHead_Range(handles[1], 1, 1), 0);
        EXPECT_EQ(Curl_SetHttpHead_Range(handles[1], start, count), -1) << start << " + " << count;
        expect(1, "");
    }
    Curl_ReleaseHttpHead_Range(handles[0]);
    expect(0, "");
    for (CURL* handle : handles) curl_easy_cleanup(handle);
}

// A manager that is gone; what comes over the channel is told.
std::string SaidBeforeTheNextTask() {
    int ends[2];
    socketpair(AF_UNIX, SOCK_STREAM, 0, ends);
    dup2(ends[1], STDIN_FILENO);
    close(ends[1]);
    shutdown(ends[0], SHUT_WR);
    g_StaySeconds = 10;
    EXPECT_FALSE(NextTask());
    char said[16] = "";
    recv(ends[0], said, sizeof said - 1, MSG_DONTWAIT);
    close(ends[0]);
    return said;
}

TEST(NextTask, IsNotForAWorkerThatHasGrown) {
    if (WORKER_MEMORY_MOST > 8 << 20) GTEST_SKIP() << "sanitizers take more";
    EXPECT_EQ(SaidBeforeTheNextTask(), TASK_CHANNEL_IDLE);
    const std::vector<char> memory(WORKER_MEMORY_MOST, 'x');
    EXPECT_EQ(SaidBeforeTheNextTask(), "");
}

}  // namespace
