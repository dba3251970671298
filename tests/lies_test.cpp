// Servers that lie and disks that are full. Each lie is told to a size probe, to a download whose
// probe heard the truth, and to a page.
#include <sys/resource.h>
#include <sys/stat.h>

#include "support/http_server.h"
#include "support/processes.h"

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

const std::string kChunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";

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

TEST(LyingServers, EndEveryTaskWithItsCode) {
    const Reply most = Length("9223372036854775807");
    const Reply torn = Part(kHalf).Pause(500ms).Reset();
    const Reply shorter = Reply::Ok(kBody.substr(0, 9));
    Tell({
        {"no length", {Length("")}, {{7, 3}, {3, 2, kAll}, {1, 1}}},
        {"length 0", {Length("0")}, {{7, 3}, {3, 2, 0}, {6, 2}}},
        {"length -5", {Length("-5")}},
        {"length 2^63 - 1", {most}, {{7, 2, kAll}, {7, 2, kAll}, {6, 1}}, 1},
        {"a longer body", {Length("9")}, {{3, 2, 9}, {3, 2, 9}, {6, 1}}},
        {"a shorter body", {Part(kHalf)}, {{7, 4, kHalf}, {7, 4, kHalf}, {6, 3}}},
        {"closes at once", {Reply()}},
        {"resets in the body", {torn}, {{7, 4, kHalf}, {7, 4, kHalf}, {6, 3}}},
        {"a shorter second answer", {torn, shorter}, {{3, 2, 9}, {3, 3, kHalf}, {6, 2}}},
        {"redirects for ever", {Reply::Redirect("/again")}, {{7, 31}, {7, 32, 0}, {6, 1}}, 1},
        {"redirect to a file", {Reply::Redirect("file:///etc/passwd")}},
        {"a chunk cut off", {Raw(kChunked + "5\r\nsta")}, {{7, 3}, {7, 4, 3}, {6, 3}}},
    });
}

auto Set(std::int32_t tagTaskContext::*field, std::int32_t value) {
    return [=](WorkerRun& run) { run.Slot().*field = value; };
}

auto Output(const char* path) {
    return [=](WorkerRun& run) { SetField(run.Slot().szFilePath, path); };
}

TEST(OddSlots, EndEveryTaskWithItsCode) {
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

TEST(LyingServers, AStopEndsWhatHasNoEnd) {
    const Reply endless[] = {
        Reply().Silence(),
        Reply::Head("100", "x").Silence(),
        Reply::Head("").Stream(1, "x"),
        Raw(kChunked).Stream(1'000, "1\r\nx\r\n"),
    };
    InParallel(std::size(endless) * 2, [&](std::size_t i) {
        const bool page = i % 2 != 0;
        SCOPED_TRACE(i);
        HttpServer server({page ? endless[i / 2] : Reply::Ok(kBody), endless[i / 2]});
        WorkerRun run;
        run.Request(server.Url());
        if (page) run.RequestPage(server.Port());
        run.Start();
        EXPECT_TRUE(WaitUntil([&] { return server.RequestCount() == (page ? 1 : 2); }));
        run.Stop();
        // On a busy machine; less than the 20 after which a silent transfer ends by itself.
        EXPECT_TRUE(run.Wait(15s));
        run.EndWell();
        EXPECT_EQ(run.Slot().nStateBits & FINAL_STATE_BITS, 1U << DOWNLOAD_STATE_STOPPED);
    });
}

TEST(LyingServers, AConnectionTakesFiveSecondsAtMost) {
    // A server that accepts nothing, whose queue is full.
    int port = 0;
    const int listener = Listen(port, 0), queued = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{
        AF_INET, htons(static_cast<std::uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
    ASSERT_EQ(connect(queued, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    WorkerRun run;
    run.Request("http://127.0.0.1:" + std::to_string(port));
    run.Slot().nTryCount = 1;
    run.EndWell();
    EXPECT_EQ(run.Slot().nStateBits, 1U << DOWNLOAD_STATE_DOWNLOAD_FAIL);
    for (const int end : {listener, queued}) close(end);
}

// ---- Disks that are full before the file is there: it never counts as finished.

// Starts a worker or a command, whose files grow to `limit` bytes at most.
template <class Run, class... Arguments>
void StartLimited(Run& run, rlim_t limit, const Arguments&... arguments) {
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit least{limit, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &least);
    run.Start(arguments...);
    setrlimit(RLIMIT_FSIZE, &before);
}

// Has a worker fetch 8192 bytes into `path`. Where some of them fit, it may try for ever.
void FetchInto(const std::string& path, rlim_t limit = RLIM_INFINITY) {
    SCOPED_TRACE(path);
    HttpServer server({Reply::Ok(TestBytes(8192))});
    WorkerRun run;
    run.Request(server.Url());
    SetField(run.Slot().szFilePath, path);
    StartLimited(run, limit);
    WaitUntil([&] { return run.Wait({}) || server.RequestCount() > 5; });
    run.Stop();
    EXPECT_EQ(run.End(), limit == RLIM_INFINITY ? "exit 0" : "signal 25");
    EXPECT_EQ(run.Slot().nStateBits >> DOWNLOAD_STATE_DOWNLOAD_FINISH & 1, 0u);
    EXPECT_LT(path == "/dev/full" ? 0 : ReadFile(path).size(), 8192);
}

// Has `taskman get` do the same; neither the file nor a part of it may be left.
void Get(std::size_t size, const TempDir& at, const char* says, rlim_t limit = RLIM_INFINITY) {
    HttpServer server({Reply::Ok(TestBytes(size))});
    CommandRun get;
    StartLimited(get, limit, std::vector<std::string>{"-d", at.Path(), server.Url()});
    EXPECT_EQ(get.End(), "exit 3");
    EXPECT_TRUE(Has(get.Err(), says)) << get.Err();
    EXPECT_FALSE(FileExists(at.Path("file")) || FileExists(at.Path("file.part")));
}

TEST(FullDisk, HoldsNoFileThatCountsAsFinished) {
    const TempDir disk, directory;
    FetchInto("/dev/full");
    FetchInto(directory.Path("file.part"), 8191);
    // The limit is more than the section needs.
    Get(200'000, directory, "file.part: File too large", 199'000);
    if (!TakeOwnMounts()) GTEST_SKIP() << "nothing can be mounted";
    ASSERT_EQ(mount("none", disk.Path().c_str(), "tmpfs", 0, "size=64k"), 0);
    WriteFile(disk.Path("other"), std::string(61'440, 'x'));
    FetchInto(disk.Path("file.part"));
    Get(8192, disk, "file: failed: no space for ");
    umount2(disk.Path().c_str(), MNT_DETACH);
}

}  // namespace
