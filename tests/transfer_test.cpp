// The size probe and the download, in the real worker: what the server does, what the request says,
// and what then stands in the slot and in the file.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
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

End Finished(std::size_t requests, const std::string& file, double size) {
    return {kSize | kDone, requests, size, file};
}

End Broken(std::size_t requests, std::optional<std::string> file, double size = 20'000) {
    return {kSize | kFailed, requests, size, std::move(file)};
}

struct Situation {
    const char* name;
    std::vector<Reply> replies;
    End end;
    std::function<void(WorkerRun&)> prepare = {};
};

auto Tries(std::int32_t count, std::int32_t interval = 0) {
    return [=](WorkerRun& run) {
        run.Slot().nTryCount = count;
        run.Slot().nTryInterval = interval;
    };
}

auto Output(const std::string& path) {
    return [=](WorkerRun& run) { SetField(run.Slot().szFilePath, path); };
}

auto Control(std::int32_t nControl) {
    return [=](WorkerRun& run) { run.Slot().nControl = nControl; };
}

// What one worker did with its situation.
struct Trial {
    std::unique_ptr<HttpServer> server;
    std::unique_ptr<WorkerRun> run;
    tagTaskContext before;
};

// Runs all situations, many at a time, and then checks each.
void RunAll(const std::vector<Situation>& situations) {
    std::vector<Trial> trials(situations.size());
    InParallel(trials.size(), [&](std::size_t i) {
        Trial& trial = trials[i];
        trial.server = std::make_unique<HttpServer>(situations[i].replies);
        trial.run = std::make_unique<WorkerRun>();
        trial.run->Request(trial.server->Url());
        if (situations[i].prepare) situations[i].prepare(*trial.run);
        CopySlot(&trial.before, &trial.run->Slot());
        trial.run->Run();
    });
    for (std::size_t i = 0; i < trials.size(); ++i) {
        const auto& [name, replies, end, prepare] = situations[i];
        const WorkerRun& run = *trials[i].run;
        const tagTaskContext& slot = run.Slot();
        SCOPED_TRACE(name);
        EXPECT_EQ(run.End(), "exit 0");
        EXPECT_EQ(run.Errors(), "");
        EXPECT_EQ(slot.nStateBits & ~kTimed, end.bits);
        EXPECT_EQ(slot.dFileSize, end.size);
        tagTaskContext expected;
        CopySlot(&expected, &trials[i].before);
        expected.nPid = run.Pid();
        expected.bStateChanged = 1;
        expected.nStateBits = slot.nStateBits;
        expected.dFileSize = slot.dFileSize;
        if ((slot.nStateBits & kTimed) != 0) {
            expected.dProgress = slot.dProgress;
            expected.dSpeed = slot.dSpeed;
        }
        EXPECT_EQ(Difference(slot, expected), "");
        EXPECT_TRUE(run.RestIntact());
        EXPECT_EQ(SemaphoreValue(run.arguments[0]), -1);
        EXPECT_EQ(run.LockValue(), 1);
        EXPECT_EQ(trials[i].server->RequestCount(), end.requests);
        EXPECT_EQ(FileExists(run.Output()), end.file.has_value());
        if (!std::filesystem::is_regular_file(run.Output())) continue;
        EXPECT_TRUE(ReadFile(run.Output()) == *end.file);
    }
}

TEST(Probe, Situations) {
    const std::string body = TestBytes(1000);
    const Reply good = Reply::Ok(body);
    const Reply gone = Reply::Status(404, "gone");
    const Reply reset = Reply().Reset();
    const Reply moved = Reply::Redirect("/there");
    const std::string greatest = "9223372036854775807";
    RunAll({
        {"a good server", {good}, Finished(2, body, 1000)},
        {"command 3", {good}, Finished(2, body, 1000), [](auto& run) { run.Slot().nCmd = 3; }},
        {"no length", {Reply::Head("", "abc")}, NoSize(2), Tries(2)},
        {"length 0", {Reply::Ok("")}, NoSize(3)},
        {"length -5", {Reply::Head("-5", "abc")}, NoSize(3)},
        {"length of 20 digits", {Reply::Head("12345678901234567890", "abc")}, NoSize(3)},
        {"greatest length", {Reply::Head(greatest, "x")}, Broken(2, "x", 0x1p63), Tries(1)},
        {"404", {gone}, NoSize(3)},
        {"500, one try", {Reply::Status(500, "no")}, NoSize(1), Tries(1)},
        {"206", {Reply::Status(206, "part")}, NoSize(3)},
        {"closes at once", {Reply()}, NoSize(3)},
        {"no HTTP", {Reply().Send("220 welcome\r\n\r\n")}, NoSize(3)},
        {"0 tries", {good}, {kFailed, 0, 0, ""}, Tries(0)},
        {"7 tries", {gone}, NoSize(3), Tries(7)},
        {"-1 tries", {gone}, NoSize(3), Tries(-1)},
        {"second try", {reset, good}, Finished(3, body, 1000)},
        {"redirects", {moved, good, moved, good}, Finished(4, body, 1000)},
        {"redirects for ever", {Reply::Redirect("/again")}, NoSize(31), Tries(1)},
        {"redirect to a local file", {Reply::Redirect("file:///etc/passwd")}, NoSize(3)},
        {"redirect to ftp", {Reply::Redirect("ftp://127.0.0.1/x")}, NoSize(3)},
        {"tries are shared with the download", {gone, good, reset}, Broken(4, "", 1000)},
        {"and may just suffice", {gone, good, reset, good}, Finished(4, body, 1000)},
    });
}

TEST(Download, Situations) {
    const std::string body = TestBytes(20'000);
    const std::string large = TestBytes(5'000'000);
    const Reply good = Reply::Ok(body);
    const Reply reset = Reply().Reset();
    const auto part = [&](std::size_t count) {
        return Reply::Head("20000", body.substr(0, count));
    };
    const Reply torn = part(15'000).Pause(milliseconds(500)).Reset();
    const std::string shorter(8000, 'b');
    RunAll({
        {"5 MB", {Reply::Ok(large)}, Finished(2, large, 5e6)},
        {"two resets", {good, reset, reset, good}, Finished(4, body, 20'000)},
        {"only resets", {good, reset}, Broken(4, "")},
        {"404", {good, Reply::Status(404, "gone")}, Broken(2, "gone")},
        {"206", {good, Reply::Status(206, "part")}, Broken(2, "part")},
        {"announces too much", {part(5)}, Broken(4, body.substr(0, 5))},
        {"announces too little", {Reply::Head("3", "abcdef")}, Finished(2, "abc", 3)},
        {"announces nothing", {good, Reply::Head("", "abc")}, Finished(2, "abc", 20'000)},
        {"new bytes give back the tries",
         {good, part(500), part(1000), part(1500), part(2000), good},
         Finished(6, body, 20'000),
         Tries(2)},
        {"a short second answer leaves the tail of the first",
         {good, torn, Reply::Ok(shorter)},
         Finished(3, shorter + body.substr(8000, 7000), 20'000)},
        {"a file that was there",
         {Reply::Ok("new")},
         Finished(2, "new", 3),
         [&](auto& run) { WriteFile(run.Output(), body); }},
        {"a stop before the start", {good}, {kSize | kStopped, 1, 20'000, ""}, Control(2)},
        {"another control word", {good}, Finished(2, body, 20'000), Control(3)},
        {"no path", {good}, Broken(1, std::nullopt), Output("")},
        {"a directory", {good}, Broken(1, std::nullopt), Output("/tmp")},
        {"no such directory", {good}, Broken(1, std::nullopt), Output("missing/file")},
        {"a pipe", {good}, Broken(1, ""), [](auto& run) { mkfifo(run.Output().c_str(), 0600); }},
        {"a device", {good}, {kSize | kDone, 2, 20'000, std::nullopt}, Output("/dev/null")},
        {"a full disk", {good}, Broken(4, std::nullopt), Output("/dev/full")},
        {"a full disk, found late",
         {Reply::Ok("x")},
         Broken(2, std::nullopt, 1),
         Output("/dev/full")},
    });
}

TEST(Transfer, AsksInTheSameWayTwiceAndHeedsNoEnvironment) {
    HttpServer server({Reply::Ok("body")});
    WorkerRun run;
    run.Request(server.Url("/a%20file?x=1"));
    const std::string nowhere = "=http://127.0.0.1:9";
    for (const char* name : {"http_proxy", "all_proxy", "ALL_PROXY", "HTTP_PROXY"}) {
        run.environment.push_back(name + nowhere);
    }
    EXPECT_EQ(run.Run(), "exit 0");
    const std::string expected =
        "GET /a%20file?x=1 HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(server.Port()) +
        "\r\nAccept: */*\r\n\r\n";
    const auto requests = server.Requests();
    ASSERT_EQ(requests.size(), 2u);
    for (const auto& request : requests) EXPECT_EQ(request.text, expected);
}

std::string Repeated(int count, const std::string& text) {
    std::string all;
    for (int i = 0; i < count; ++i) all += text;
    return all;
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
        run.Slot().bUseProxy = 1;
        SetField(run.Slot().szProxyHost, "127.0.0.1");
        run.Slot().nProxyPort = proxy.Port();
        SetField(run.Slot().szProxyUser, user);
        SetField(run.Slot().szProxyPassword, password);
        EXPECT_EQ(run.Run(), "exit 0");
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
    struct Row {
        std::int32_t interval, seconds;
    };
    const Row rows[] = {{1, 1}, {60, 3}, {-1, 3}};
    InParallel(std::size(rows), [&](std::size_t i) {
        HttpServer server({Reply::Status(404, "gone")});
        WorkerRun run;
        run.Request(server.Url());
        Tries(2, rows[i].interval)(run);
        EXPECT_EQ(run.Run(), "exit 0") << rows[i].interval;
        const auto requests = server.Requests();
        ASSERT_EQ(requests.size(), 2u) << rows[i].interval;
        // The clocks of the two processes agree to some milliseconds only.
        EXPECT_GE(requests[1].arrived - requests[0].arrived,
                  milliseconds(rows[i].seconds * 1000 - 20));
    });
}

TEST(Transfer, StopsWhereverItIs) {
    struct Row {
        const char* name;
        std::function<Reply(WorkerRun&, std::size_t)> reply;
        std::uint32_t bits;
        std::size_t requests;
    };
    const auto at = [](std::size_t when, Reply then) {
        return [=](WorkerRun& run, std::size_t number) {
            if (number == when) run.Stop();
            return number == when ? then : Reply::Ok("body");
        };
    };
    const Reply endless = Reply::Head("1000000000").Stream(2'000'000);
    const Row rows[] = {
        {"after a failed try", at(0, Reply::Status(404, "gone")), kStopped, 1},
        {"the server stays silent", at(1, Reply().Silence()), kSize | kStopped, 2},
        {"bytes are coming", at(1, endless), kSize | kStopped, 2},
        {"bytes have stopped coming", at(1, Reply::Head("100", "x").Silence()), kSize | kStopped,
         2},
    };
    InParallel(std::size(rows), [&](std::size_t i) {
        WorkerRun run;
        HttpServer server(
            [&](const std::string&, std::size_t number) { return rows[i].reply(run, number); });
        run.Request(server.Url());
        EXPECT_EQ(run.Run(), "exit 0") << rows[i].name;
        EXPECT_EQ(run.Slot().nStateBits & ~kTimed, rows[i].bits) << rows[i].name;
        EXPECT_EQ(server.RequestCount(), rows[i].requests) << rows[i].name;
    });
}

TEST(Transfer, ASlotThatIsTakenAwayEndsTheWorker) {
    const char* const functions[] = {"GetFileSize, file Src/Tarnwick/tarnwick, line ",
                                     "SendStateMSG, file Src/Tarnwick/tarnwick, line 990.\n"};
    for (std::size_t when : {0, 1}) {
        WorkerRun run;
        HttpServer server([&](const std::string&, std::size_t number) {
            if (number == when) {
                run.UnderLock([](auto& slot) { SetField(slot.szTaskID, "somebody-else"); });
            }
            return Reply::Ok("body");
        });
        run.Request(server.Url());
        EXPECT_EQ(run.Run(), "signal 6");
        const std::string expected =
            std::string("Assertion failed: (false), function ") + functions[when];
        EXPECT_EQ(run.Errors().substr(0, expected.size()), expected);
        EXPECT_EQ(run.Slot().nStateBits, when == 0 ? 0 : kSize);
        EXPECT_EQ(run.LockValue(), 1);
    }
}

TEST(Transfer, ReportsWhileItRuns) {
    const std::string body = TestBytes(3'000'000);
    HttpServer server({Reply::Head("3000000").Send(body, 1'000'000)});
    WorkerRun run;
    run.Request(server.Url());
    run.Start();
    // Takes and clears the bits all the time, as a manager does. By code, what stood in the slot.
    std::map<int, std::vector<double>> percents;
    bool ended = false;
    do {
        ended = run.Wait(milliseconds(10));
        run.UnderLock([&](tagTaskContext& slot) {
            for (int code = 0; code < 32; ++code) {
                if ((slot.nStateBits >> code & 1) != 0) percents[code].push_back(slot.dProgress);
            }
            slot.nStateBits = 0;
        });
    } while (!ended);
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
