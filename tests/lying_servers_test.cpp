// Servers that lie: what becomes of a task whose server does anything but serve. Each lie is told
// to a size probe, to a download whose probe heard the truth, and to a page.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>

#include "common/fieldtext.h"
#include "support/command_run.h"
#include "support/http_server.h"
#include "support/worker_run.h"

namespace {

using namespace test_support;
using namespace std::chrono_literals;

// Good as a file and as the information about a page.
const std::string kBody = "status=ok&fmt_url_map=34%7Chttp&x=" + std::string(15'000, 'x');
const int kAll = static_cast<int>(kBody.size());
constexpr int kHalf = 7'000;

constexpr const char* kModes[] = {"probe", "download", "page"};

// A final code, the requests that were made, and the size of the output file; -1: there is none.
struct End {
    int code;
    std::size_t requests;
    int size = -1;
};

struct Lie {
    const char* name;
    std::vector<Reply> replies;                           // the last one repeats
    std::vector<End> ends = {{7, 3}, {7, 4, 0}, {6, 3}};  // in each mode: three failed tries
    int tries = 3;
    std::function<void(WorkerRun&)> prepare = {};
};

Reply Length(const std::string& length) {
    return Reply::Head(length, kBody);
}

Reply Part(std::size_t count) {
    return Reply::Head(std::to_string(kAll), kBody.substr(0, count));
}

Reply Raw(const std::string& bytes) {
    return Reply().Send(bytes);
}

const std::string kHead = "HTTP/1.1 200 OK\r\n";
const std::string kChunked = kHead + "Transfer-Encoding: chunked\r\n\r\n";
const std::string kContinue = "HTTP/1.1 100 Continue\r\n\r\n";

void Tell(const Lie& lie, std::size_t mode) {
    SCOPED_TRACE(std::string(lie.name) + ", " + kModes[mode]);
    std::vector<Reply> replies = lie.replies;
    if (mode == 1) replies.insert(replies.begin(), Reply::Ok(kBody));
    HttpServer server(replies);
    WorkerRun run;
    run.Request(server.Url());
    if (mode == 2) run.RequestPage(server.Port());
    run.Slot().nTryCount = lie.tries;
    if (lie.prepare) lie.prepare(run);
    run.EndWell();
    const auto& [code, requests, size] = lie.ends[mode];
    EXPECT_EQ(run.Slot().nStateBits & FINAL_STATE_BITS, 1U << code);
    EXPECT_EQ(server.RequestCount(), requests);
    const bool isFile = std::filesystem::is_regular_file(run.Output());
    const std::string file = isFile ? ReadFile(run.Output()) : "";
    EXPECT_EQ(isFile ? static_cast<int>(file.size()) : -1, size);
    EXPECT_TRUE(kBody.starts_with(file)) << "that is not what the server sent";
    EXPECT_EQ(FieldText(run.Slot().szVideoInfo).empty(), code != DOWNLOAD_STATE_PARSE_FINISH);
}

// In all modes there are ends for.
void Tell(const std::vector<Lie>& lies) {
    const auto tell = [&](std::size_t i) {
        if (i % 3 < lies[i / 3].ends.size()) Tell(lies[i / 3], i % 3);
    };
    InParallel(lies.size() * 3, tell, 24);
}

TEST(LyingServers, TasksEndAsTheTableSays) {
    const HttpServer ftp({Reply()});
    const Reply toFtp = Reply::Redirect("ftp" + ftp.Url().substr(4));
    const Reply good =
        Raw(Repeated(2'000, kContinue) + kHead + "Connection: close\r\n\r\n" + kBody);
    const Reply most = Length("9223372036854775807");
    const Reply torn = Part(kHalf).Pause(500ms).Reset();
    const Reply shorter = Reply::Ok(kBody.substr(0, 9));
    const std::string header = "X: " + std::string(1000, 'x') + "\r\n";
    Tell({
        {"stalls in the body", {Part(kHalf).Silence()}, {{7, 2, kHalf}, {7, 2, kHalf}, {6, 1}}, 1},
        {"no length", {Length("")}, {{7, 3}, {3, 2, kAll}, {1, 1}}},
        {"length 0", {Length("0")}, {{7, 3}, {3, 2, 0}, {6, 2}}},
        {"length -5", {Length("-5")}},
        {"a word for a length", {Length("many")}},
        {"length 2^63 - 1", {most}, {{7, 2, kAll}, {7, 2, kAll}, {6, 1}}, 1},
        {"length 2^63", {Length("9223372036854775808")}, {{7, 3}, {3, 2, kAll}, {1, 1}}},
        {"20 digits", {Length("12345678901234567890")}, {{7, 3}, {3, 2, kAll}, {1, 1}}},
        {"two lengths", {Length("5\r\nContent-Length: 7")}, {{3, 2, 7}, {3, 2, 7}, {6, 1}}},
        {"a longer body", {Length("9")}, {{3, 2, 9}, {3, 2, 9}, {6, 1}}},
        {"a shorter body", {Part(kHalf)}, {{7, 4, kHalf}, {7, 4, kHalf}, {6, 3}}},
        {"closes at once", {Reply()}},
        {"resets at once", {Reply().Reset()}},
        {"resets in the head", {Raw(kHead).Pause(100ms).Reset()}},
        {"resets in the body", {torn}, {{7, 4, kHalf}, {7, 4, kHalf}, {6, 3}}},
        {"a shorter second answer", {torn, shorter}, {{3, 2, 9}, {3, 3, kHalf}, {6, 2}}},
        {"one byte a second", {Reply::Head("3").Send("sta", 1)}, {{3, 2, 3}, {3, 2, 3}, {6, 1}}},
        {"no HTTP", {Raw("220 welcome\r\n\r\n")}},
        {"redirects for ever", {Reply::Redirect("/again")}, {{7, 31}, {7, 32, 0}, {6, 1}}, 1},
        {"redirect to a file", {Reply::Redirect("file:///etc/passwd")}},
        {"redirect to ftp", {toFtp}},
        {"20 MB of headers", {Raw(kHead + Repeated(20'000, header))}},
        {"a header of 20 MB", {Raw(kHead + std::string(20'000'000, 'x'))}},
        {"a word for a chunk size", {Raw(kChunked + "zz\r\nabc")}},
        {"a chunk size of 17 digits", {Raw(kChunked + "11111111111111111\r\nabc")}},
        {"a chunk cut off", {Raw(kChunked + "5\r\nsta")}, {{7, 3}, {7, 4, 3}, {6, 3}}},
        {"2,000 times code 100", {good}, {{7, 3}, {3, 2, kAll}, {1, 1}}},
        {"20,000 times code 100", {Raw(Repeated(20'000, kContinue))}},
    });
}

auto Set(std::int32_t tagTaskContext::*field, std::int32_t value) {
    return [=](WorkerRun& run) { run.Slot().*field = value; };
}

auto Output(const char* path) {
    return [=](WorkerRun& run) { SetField(run.Slot().szFilePath, path); };
}

TEST(LyingServers, OtherAnswersAndSlots) {
    const Reply good = Reply::Ok(kBody);
    const Reply gone = Reply::Status(404, kBody.substr(0, 9));
    const Reply partly = Reply::Status(206, kBody.substr(0, 9));
    const Reply moved = Reply::Redirect("/there");
    const auto longer = [](WorkerRun& run) { WriteFile(run.Output(), kBody + kBody); };
    const auto noAddress = [](WorkerRun& run) { SetField(run.Slot().szDownloadUrl, ""); };
    const auto pipe = [](WorkerRun& run) { mkfifo(run.Output().c_str(), 0600); };
    const std::vector<Reply> pieces = {good, Part(500), Part(600), Part(700), Part(800), good};
    Tell({
        {"404", {gone}, {{7, 3}, {7, 2, 9}}, 7},
        {"206", {partly}, {{7, 3}, {7, 2, 9}}, -1},
        {"redirects", {moved, good, moved, good}, {{3, 4, kAll}}},
        {"tries are shared with the download", {gone, good, Reply().Reset()}, {{7, 4, 0}}},
        {"new bytes give back the tries", pieces, {{3, 6, kAll}}, 2},
        {"no try", {good}, {{7, 0, 0}}, 0},
        {"command 3", {good}, {{3, 2, kAll}}, 3, Set(&tagTaskContext::nCmd, 3)},
        {"command 2 is a page", {good}, {{7, 0}}, 3, Set(&tagTaskContext::nCmd, 2)},
        {"so is no address", {good}, {{7, 0}}, 3, noAddress},
        {"a stop before", {good}, {{8, 1, 0}}, 3, Set(&tagTaskContext::nControl, 2)},
        {"another word", {good}, {{3, 2, kAll}}, 3, Set(&tagTaskContext::nControl, 3)},
        {"a file that was there", {good}, {{3, 2, kAll}}, 3, longer},
        {"a directory", {good}, {{7, 1}}, 3, Output("/tmp")},
        {"a pipe", {good}, {{7, 1}}, 3, pipe},
        {"a device", {good}, {{3, 2}}, 3, Output("/dev/null")},
    });
}

// What ends with the patience of its client only.
struct Endless {
    const char* name;
    Reply reply;
};

const Endless kEndless[TASK_SLOT_COUNT] = {
    {"silence", Reply().Silence()},
    {"silence in the head", Raw(kHead).Silence()},
    {"silence in the body", Reply::Head("100", "x").Silence()},
    {"bytes", Reply::Head("").Stream(5'000'000, kBody)},
    {"one byte a second", Reply::Head("").Stream(1, "x")},
    {"chunks", Raw(kChunked).Stream(1'000, "1\r\nx\r\n")},
    {"headers", Raw(kHead).Stream(1'000, "X: x\r\n")},
    {"code 100", Reply().Stream(1'000, kContinue)},
};

TEST(LyingServers, AStopTakesThreeSeconds) {
    InParallel(std::size(kEndless) * 2, [](std::size_t i) {
        const Endless& endless = kEndless[i / 2];
        const bool page = i % 2 != 0;
        SCOPED_TRACE(std::string(endless.name) + ", " + kModes[1 + i % 2]);
        HttpServer server({page ? endless.reply : Reply::Ok(kBody), endless.reply});
        WorkerRun run;
        run.Request(server.Url());
        if (page) run.RequestPage(server.Port());
        run.Start();
        EXPECT_TRUE(WaitUntil([&] { return server.RequestCount() == (page ? 1 : 2); }));
        std::this_thread::sleep_for(300ms);
        run.Stop();
        // On a busy machine; less than the 20 after which a silent transfer ends by itself.
        EXPECT_TRUE(run.Wait(15s));
        run.EndWell();
        EXPECT_EQ(run.Slot().nStateBits & FINAL_STATE_BITS, 1U << DOWNLOAD_STATE_STOPPED);
    });
}

// Within a transfer a probe does not see the stop: the manager kills it.
TEST(LyingServers, AStopOfAProbeTakesTwelveSeconds) {
    HttpServer server([](const std::string&, std::size_t number) {
        return kEndless[number % std::size(kEndless)].reply;
    });
    CommandRun get;
    std::vector<std::string> arguments = {"-j8"};
    for (char name = '1'; name <= '8'; ++name) arguments.push_back(server.Url("/") + name);
    get.Start(arguments);
    // One probe learns a size and is followed by its download.
    EXPECT_TRUE(WaitUntil([&] { return server.RequestCount() == std::size(kEndless) + 1; }));
    get.Signal(SIGINT);
    EXPECT_EQ(get.End(), "signal 2");
    EXPECT_TRUE(get.Says("8 stopped")) << get.Err();
}

}  // namespace
