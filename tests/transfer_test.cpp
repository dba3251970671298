// The size probe and the download, in the real worker: what the server does, what the request says,
// and what then stands in the slot and in the file.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <optional>

#include "common/fieldtext.h"
#include "support/http_server.h"
#include "support/worker_run.h"

namespace {

using namespace test_support;
using std::chrono::milliseconds;

constexpr std::uint32_t kDone = 1U << DOWNLOAD_STATE_DOWNLOAD_FINISH;
constexpr std::uint32_t kFailed = 1U << DOWNLOAD_STATE_DOWNLOAD_FAIL;
constexpr std::uint32_t kStopped = 1U << DOWNLOAD_STATE_STOPPED;
constexpr std::uint32_t kSize = 1U << DOWNLOAD_STATE_FILE_SIZE;
// Whether these come depends on how fast a transfer is.
constexpr std::uint32_t kTimed = 1U << DOWNLOAD_STATE_DOWNLOAD_START |
                                 1U << DOWNLOAD_STATE_PROGRESS | 1U << DOWNLOAD_STATE_SPEED;

// What stands at the end of a run.
struct End {
    std::uint32_t bits;  // without those of kTimed
    std::size_t requests;
    double size;  // in the slot
    std::optional<std::string> file;
};

End NoSize(std::size_t requests) {
    return {kFailed, requests, 0, std::nullopt};
}

End Finished(std::size_t requests, const std::string& file, double size = 20'000) {
    return {kSize | kDone, requests, size, file};
}

End Broken(std::size_t requests, std::optional<std::string> file) {
    return {kSize | kFailed, requests, 20'000, std::move(file)};
}

struct Situation {
    const char* name;
    std::vector<Reply> replies;
    End end;
    std::function<void(WorkerRun&)> prepare = {};
};

using Slot = tagTaskContext;

auto Set(std::int32_t Slot::*field, std::int32_t value) {
    return [=](WorkerRun& run) { run.Slot().*field = value; };
}

auto Tries(std::int32_t count) {
    return Set(&Slot::nTryCount, count);
}

auto Output(const std::string& path) {
    return [=](WorkerRun& run) { SetField(run.Slot().szFilePath, path); };
}

// Runs a situation and checks what is left.
void Check(const Situation& situation) {
    const auto& [name, replies, end, prepare] = situation;
    SCOPED_TRACE(name);
    HttpServer server(replies);
    WorkerRun run;
    run.Request(server.Url());
    if (prepare) prepare(run);
    const tagTaskContext& slot = run.Slot();
    tagTaskContext expected;
    CopySlot(&expected, &slot);
    run.EndWell();
    EXPECT_EQ(slot.nStateBits & ~kTimed, end.bits);
    EXPECT_EQ(slot.dFileSize, end.size);
    expected.nPid = run.Pid();
    expected.bStateChanged = 1;
    expected.nStateBits = slot.nStateBits;
    expected.dFileSize = slot.dFileSize;
    if ((slot.nStateBits & kTimed) != 0) {
        expected.dProgress = slot.dProgress;
        expected.dSpeed = slot.dSpeed;
    }
    EXPECT_EQ(Difference(slot, expected), "");
    EXPECT_EQ(server.RequestCount(), end.requests);
    EXPECT_EQ(FileExists(run.Output()), end.file.has_value());
    if (!std::filesystem::is_regular_file(run.Output())) return;
    EXPECT_TRUE(ReadFile(run.Output()) == *end.file);
}

TEST(Transfer, Situations) {
    const std::string body = TestBytes(20'000);
    const Reply good = Reply::Ok(body);
    const Reply gone = Reply::Status(404, "gone");
    const Reply partly = Reply::Status(206, "part");
    const Reply reset = Reply().Reset();
    const Reply moved = Reply::Redirect("/there");
    const auto part = [&](std::size_t count) {
        return Reply::Head("20000", body.substr(0, count));
    };
    const auto longer = [&](WorkerRun& run) { WriteFile(run.Output(), body); };
    const auto pipe = [](WorkerRun& run) { mkfifo(run.Output().c_str(), 0600); };
    const Situation situations[] = {
        // The probe.
        {"command 3", {good}, Finished(2, body), Set(&Slot::nCmd, 3)},
        {"404", {gone}, NoSize(3)},
        {"500, one try", {Reply::Status(500, "no")}, NoSize(1), Tries(1)},
        {"206", {partly}, NoSize(3)},
        {"0 tries", {good}, {kFailed, 0, 0, ""}, Tries(0)},
        {"7 tries", {gone}, NoSize(3), Tries(7)},
        {"redirects", {moved, good, moved, good}, Finished(4, body)},
        {"tries are shared with the download", {gone, good, reset}, Broken(4, "")},
        {"and may just suffice", {gone, good, reset, good}, Finished(4, body)},
        // The download.
        {"two resets", {good, reset, reset, good}, Finished(4, body)},
        {"404 behind it", {good, gone}, Broken(2, "gone")},
        {"206 behind it", {good, partly}, Broken(2, "part")},
        {"new bytes give back the tries",
         {good, part(500), part(1000), part(1500), part(2000), good},
         Finished(6, body),
         Tries(2)},
        {"a file that was there", {Reply::Ok("new")}, Finished(2, "new", 3), longer},
        {"a stop before the start",
         {good},
         {kSize | kStopped, 1, 20'000, ""},
         Set(&Slot::nControl, 2)},
        {"another control word", {good}, Finished(2, body), Set(&Slot::nControl, 3)},
        {"no path", {good}, Broken(1, std::nullopt), Output("")},
        {"a directory", {good}, Broken(1, std::nullopt), Output("/tmp")},
        {"no such directory", {good}, Broken(1, std::nullopt), Output("missing/file")},
        {"a pipe", {good}, Broken(1, ""), pipe},
        {"a device", {good}, {kSize | kDone, 2, 20'000, std::nullopt}, Output("/dev/null")},
    };
    InParallel(std::size(situations), [&](std::size_t i) { Check(situations[i]); });
}

TEST(Transfer, AsksInTheSameWayTwiceAndHeedsNoEnvironment) {
    HttpServer server({Reply::Ok("body")});
    WorkerRun run;
    run.Request(server.Url("/a%20file?x=1"));
    for (const char* name : {"http_proxy", "all_proxy", "ALL_PROXY", "HTTP_PROXY"}) {
        run.environment.push_back(std::string(name) + "=http://127.0.0.1:9");
    }
    EXPECT_EQ(run.Run(), "exit 0");
    const std::string expected =
        "GET /a%20file?x=1 HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(server.Port()) +
        "\r\nAccept: */*\r\n\r\n";
    const auto requests = server.Requests();
    ASSERT_EQ(requests.size(), 2u);
    for (const auto& request : requests) EXPECT_EQ(request.text, expected);
}

TEST(Transfer, GoesThroughTheProxyOfTheTask) {
    struct Row {
        std::string user, password, credentials;  // these as they are sent, in base64
    };
    const std::string longest(127, 'u');
    const Row rows[] = {
        {"", "ignored", ""},
        {"joe", "s:3 cret", "am9lOnM6MyBjcmV0"},
        {"joe", "", "am9lOg=="},
        // With the colon one byte more than the 254 that are taken.
        {longest, longest, Repeated(42, "dXV1") + "dTp1" + Repeated(41, "dXV1") + "dXU="},
    };
    InParallel(std::size(rows), [&](std::size_t i) {
        const auto& [user, password, credentials] = rows[i];
        HttpServer proxy({Reply::Ok("body")});
        WorkerRun run;
        run.Request("http://files.invalid/a");
        run.UseProxy(proxy.Port(), user, password);
        run.EndWell();
        EXPECT_EQ(run.Slot().nStateBits, kSize | kDone);
        std::string expected = "GET http://files.invalid/a HTTP/1.1\r\nHost: files.invalid\r\n";
        if (!user.empty()) expected += "Proxy-Authorization: Basic " + credentials + "\r\n";
        expected += "Accept: */*\r\n";
        EXPECT_EQ(proxy.RequestCount(), 2u);
        for (const auto& request : proxy.Requests()) {
            EXPECT_EQ(request.text.substr(0, expected.size()), expected);
        }
    });
}

TEST(Transfer, PausesBetweenTries) {
    const std::pair<int, int> rows[] = {{1, 1}, {60, 3}, {-1, 3}};
    InParallel(std::size(rows), [&](std::size_t i) {
        const auto& [interval, seconds] = rows[i];
        SCOPED_TRACE(interval);
        HttpServer server({Reply::Status(404, "gone")});
        WorkerRun run;
        run.Request(server.Url());
        run.Slot().nTryCount = 2;
        run.Slot().nTryInterval = interval;
        run.EndWell();
        const auto requests = server.Requests();
        ASSERT_EQ(requests.size(), 2u);
        // The clocks of the two processes agree to some milliseconds only.
        EXPECT_GE(requests[1].arrived - requests[0].arrived, milliseconds(seconds * 1000 - 20));
    });
}

TEST(Transfer, ASlotThatIsTakenAwayEndsTheWorker) {
    WorkerRun run;
    HttpServer server([&](const std::string&, std::size_t) {
        run.UnderLock([](auto& slot) { SetField(slot.szTaskID, "somebody-else"); });
        return Reply::Ok("body");
    });
    run.Request(server.Url());
    EXPECT_EQ(run.Run(), "signal 6");
    EXPECT_EQ(run.Errors().find("Assertion failed: (false), function GetFileSize, file Src/"), 0u);
    EXPECT_EQ(run.Slot().nStateBits, 0u);
    EXPECT_EQ(run.LockValue(), 1);
}

TEST(Transfer, ReportsWhileItRuns) {
    const std::string body = TestBytes(3'000'000);
    HttpServer server({Reply::Head("3000000").Send(body, 1'000'000)});
    WorkerRun run;
    run.Request(server.Url());
    run.Start();
    // Takes and clears the bits all the time, as a manager does. By code, what stood in the slot.
    std::map<int, std::vector<double>> percents;
    for (bool ended = false; !ended;) {
        ended = run.Wait(milliseconds(10));
        run.UnderLock([&](tagTaskContext& slot) {
            for (int code = 0; code < 32; ++code) {
                if ((slot.nStateBits >> code & 1) != 0) percents[code].push_back(slot.dProgress);
            }
            slot.nStateBits = 0;
        });
    }
    for (tagDownloadStateCode once : {DOWNLOAD_STATE_FILE_SIZE, DOWNLOAD_STATE_DOWNLOAD_START,
                                      DOWNLOAD_STATE_DOWNLOAD_FINISH}) {
        EXPECT_EQ(percents[once].size(), 1u) << once;
    }
    const std::vector<double>& steps = percents[DOWNLOAD_STATE_PROGRESS];
    EXPECT_FALSE(steps.empty());
    EXPECT_TRUE(std::is_sorted(steps.begin(), steps.end(), std::less_equal<>()));
    EXPECT_GT(run.Slot().dSpeed, 0.0);
    EXPECT_FALSE(percents[DOWNLOAD_STATE_SPEED].empty());
    EXPECT_TRUE(ReadFile(run.Output()) == body);
}

}  // namespace
