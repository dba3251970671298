// The command `taskman get`: the real program against scripted servers.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <iterator>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

#include "support/command_run.h"
#include "support/helpers.h"
#include "support/http_server.h"

using namespace test_support;

namespace {

using GetRun = CommandRun;
using Files = std::map<std::string, std::string>;  // contents by name

// One server for all: the path says how it behaves.
HttpServer& Server() {
    static std::mutex mutex;
    static std::map<std::string, int> asked;
    static HttpServer server([](const std::string& request, std::size_t) {
        const std::string path = request.substr(4, request.find(' ', 4) - 4);
        const auto is = [&path](const char* what) { return path.find(what) != std::string::npos; };
        if (is("good")) return Reply::Ok("abc");
        if (is("short")) return Reply::Head("100").Send("five!");
        if (is("huge")) return Reply::Head("1000000000000000").Send("x");
        if (is("idle")) return Reply::Head("1000").Send(std::string(500, 'x'), 2000);
        if (is("slow")) return Reply::Head("100000000").Stream(100'000);
        if (is("2s")) return Reply::Head("400000").Send(std::string(400'000, 'x'), 180'000);
        if (is("silent")) return Reply().Silence();
        if (is("differs")) {
            std::lock_guard hold(mutex);
            return Reply::Ok(std::string(asked[path]++ == 0 ? 100 : 50, 'x'));
        }
        return Reply::Status(404, "no such file");
    });
    return server;
}

// "@" stands for the server, "+" for the digest of its good files, "~" for another one.
std::string Filled(const std::string& text) {
    std::string filled;
    for (const char c : text) {
        filled += c == '@'   ? Server().Url("")
                  : c == '+' ? "BA7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"
                  : c == '~' ? std::string(64, '0')
                             : std::string(1, c);
    }
    return filled;
}

// Begins the command with arguments that blanks separate.
void Begin(GetRun& run, const std::string& command, int output = -1) {
    std::istringstream words(Filled(command));
    run.Start({std::istream_iterator<std::string>(words), {}}, 0, output);
}

struct Row {
    std::string command;
    const char* end;
    std::string files;      // afterwards
    const char* says = "";  // on standard error
    Files before = {};      // "" is a directory
    Files after = {};       // what does not hold "abc"; the same as before unless given
};

const std::vector<Row>& Rows() {
    static const Files old = {{"good", "old"}};
    static const std::vector<Row> rows = {
        // Names and files that are in the way.
        {"@/good?x", "exit 0", "good", "good: finished"},
        {"@/good @/good2", "exit 0", "good good2", "2 of 2 files finished"},
        {"@/good -o x", "exit 0", "x", "x: finished"},
        {"@/-good", "exit 0", "-good", "-good: finished"},
        {"@/good", "exit 3", "good", "good exists already", old},
        {"-f @/good", "exit 0", "good", "good: finished", old, {{"good", "abc"}}},
        {"-s @/good @/good2", "exit 0", "good good2", "good: skipped", old},
        {"-s @/good", "exit 3", "good", "not a regular file", {{"good", ""}}},
        {"-s --sha256 + @/good", "exit 0", "good", "good: skipped", {{"good", "abc"}}},
        {"-s --sha256 + @/good", "exit 5", "good", "good: mismatch", old},
        {"-s -f @/good", "exit 2", "good", "--force", old},
        {"@/good @/x/good", "exit 3", "good", "refused: another URL"},
        {"-f -j1 @/good @/x/good", "exit 3", "good", "refused: another URL"},
        {"-j1 @/good.part @/good", "exit 3", "good.part", "another URL"},
        {"-f @/good @/good.part", "exit 3", "good", "another URL"},
        {"-d none @/good", "exit 3", "", "refused: cannot create none/good.part"},
        {"-f @/good", "exit 3", "good", "not a regular file", {{"good", ""}}},
        {"@/good -o a\\b", "exit 3", "", "a backslash"},
        {"@/good", "exit 0", "good", "", {{"good.part", "longer"}}, {{"good", "abc"}}},
        // Failures and their reasons.
        {"@/404", "exit 1", "", "404: failed: the server offered no file of known size"},
        {"@/404", "exit 1", "", "(a second look: HTTP 404)"},
        {"http://127.0.0.1:1/x", "exit 1", "", "x: failed: "},
        {"@/short", "exit 1", "", "short: failed: the transfer broke off"},
        {"--keep-part @/short @/404", "exit 1", "short.part", "", {}, {{"short.part", "five!"}}},
        {"--tries 1 @/huge", "exit 3", "", "huge: failed: no space left for huge.part"},
        {"--wait 0 @/idle", "exit 1", "", "idle: failed: the transfer starts over"},
        {"--timeout 1 @/silent", "exit 1", "", "silent: failed: the server did not answer in time"},
        {"@/differs", "exit 5", "", "mismatch: 50 bytes arrived, the server announced 100"},
        {"--sha256 + @/good", "exit 0", "good"},
        {"--sha256 ~ @/good", "exit 5", "",
         "good: mismatch: good.part has the SHA-256 digest ba78"},
        {"--worker /nowhere/w @/good", "exit 1", "", "no worker program at /nowhere/w"},
        {"--worker /bin/true @/good", "exit 1", "", "good: died"},
        // Addresses, in several orders: the smallest status wins.
        {"ftp://h/x\x1b[2J", "exit 2", "", "ftp://h/x\\x1b[2J: refused: not an http"},
        {"http://h/" + std::string(1024, 'x'), "exit 2", "", "longer than 1023 bytes"},
        {"@/good x", "exit 2", "good", "1 of 2 files finished, 1 failed"},
        {"x @/good", "exit 2", "good", "1 of 2 files finished, 1 failed"},
        {"x @/404 @/good", "exit 1", "good", "2 failed"},
        {"@/404 x", "exit 1", "", "2 failed"},
        {"@/good2 @/good x", "exit 2", "good good2", "", old},
        {"@/good @/differs-3", "exit 3", "good", "", old},
        {"@/differs-2 @/good -s", "exit 5", "good", "1 skipped", old},
        // Lists.
        {"-i list", "exit 0", "a good list", "2 of 2", {{"list", "#\n@/good\n@/good2\ta\t+"}}},
        {"@/good -i list", "exit 1", "good good2 list", "2 of 4", {{"list", "x\n@/404\n@/good2"}}},
        {"-i list", "exit 2", "good list", "a blank", {{"list", "http://h/a b\n@/good\n"}}},
        {"-i list", "exit 5", "list", "mismatch", {{"list", "@/good\t\t~"}}},
        {"-j1 -i list --failed list -s",
         "exit 1",
         "good list",
         "",
         {{"good", "old"}, {"list", "# all\nx\n@/good\n@/404\tn\t+\n@/good3\t\t~\n"}},
         {{"good", "old"}, {"list", "x\n@/404\tn\t+\n@/good3\t\t~\n"}}},
        {"@/good @/404 -o x", "exit 2", "", "--output"},
        {"-i list --sha256 +", "exit 2", "list", "--sha256", {{"list", "@/good"}}},
        {"-i list",
         "exit 2",
         "good list",
         "longer",
         {{"list", std::string(70'000, 'x') + "\n@/good"}}},
        {"-i none", "exit 2", "", "cannot read none"},
        {"-i .", "exit 2", "", ". is a directory"},
        {"@/good --failed none/x", "exit 3", "", "cannot create none/x.part"},
        {"--worker /nowhere/w -i list --failed x",
         "exit 1",
         "list x",
         "",
         {{"list", "@/good"}},
         {{"list", "@/good"}, {"x", "@/good\n"}}},
        // Usage.
        {"", "exit 2", "", "taskman get --help"},
        {"-j 9 @/good", "exit 2", "", "--jobs"},
        {"--tries 0 @/good", "exit 2", "", "--tries"},
        {"--progress fast @/good", "exit 2", "", "auto|bar|plain|none"},
        {"--sha256 12 @/good", "exit 2", "", "64 hexadecimal digits"},
        {"-x ftp://u:secret@h @/good", "exit 2", "", "--proxy: the scheme"},
        {"-x @none @/good", "exit 2", "", "--proxy"},
    };
    return rows;
}

void Prepare(const GetRun& run, const Files& files) {
    for (const auto& [name, content] : files) {
        if (content.empty()) {
            std::filesystem::create_directory(run.Path(name));
        } else {
            WriteFile(run.Path(name), Filled(content));
        }
    }
}

TEST(Get, EndsWithTheStatusOfItsFiles) {
    const auto look = [](std::size_t number) {
        const Row& row = Rows()[number];
        SCOPED_TRACE(row.command);
        GetRun run;
        Prepare(run, row.before);
        Begin(run, row.command);
        EXPECT_EQ(run.End(), row.end) << run.Err();
        EXPECT_EQ(run.Files(), row.files);
        const std::string err = run.Err();
        EXPECT_NE(err.find(row.says), std::string::npos) << err;
        EXPECT_EQ(err.find_first_of("\x1b\x9b"), std::string::npos) << err;
        EXPECT_EQ(err.find("secret"), std::string::npos) << err;
        EXPECT_EQ(run.SharedNames(), std::vector<std::string>());
        // What is there has its bytes, and nothing else is told on standard output.
        const Files& told = row.after.empty() ? row.before : row.after;
        std::istringstream names(row.files);
        for (std::string name; names >> name;) {
            const auto found = told.find(name);
            const std::string content = found == told.end() ? "abc" : Filled(found->second);
            EXPECT_EQ(ReadFile(run.Path(name)), content) << name;
        }
        std::istringstream paths(run.Out());
        for (std::string path; std::getline(paths, path);) {
            EXPECT_TRUE(FileExists(run.Path(path)) && path[0] != '-') << path;
        }
        const auto done = err.find(": finished") != std::string::npos;
        EXPECT_EQ(run.Out().empty(), !done && err.find("skipped") == std::string::npos);
    };
    InParallel(Rows().size(), look, 32);
}

TEST(Get, FilesKeepTheirOrderAndAllComeThroughEightSlots) {
    GetRun single;
    Begin(single, "-j1 @/good2 @/good0 @/good1");
    std::string list;
    for (int i = 0; i < 20; ++i) list += "@/good" + std::to_string(i) + "\n";
    GetRun many;
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    many.input = ends[0];
    Begin(many, "-j8 -i -");
    close(ends[0]);
    list = Filled(list);
    const std::size_t half = list.size() / 2;
    ASSERT_EQ(write(ends[1], list.data(), half), ssize_t(half));
    // A list that has no more to say yet holds nothing up.
    ASSERT_TRUE(many.Says("good0: finished"));
    ASSERT_EQ(write(ends[1], &list[half], list.size() - half), ssize_t(list.size() - half));
    close(ends[1]);
    EXPECT_EQ(single.End(), "exit 0");
    EXPECT_EQ(single.Out(), "good2\ngood0\ngood1\n");
    EXPECT_EQ(many.End(), "exit 0");
    for (int i = 0; i < 20; ++i) EXPECT_EQ(ReadFile(many.Path("good" + std::to_string(i))), "abc");
}

TEST(Get, APartBelongsToOneDownload) {
    GetRun run;
    Begin(run, "@/slow");
    GetRun late;
    Begin(late, "@/2s");
    ASSERT_TRUE(run.Says("slow: started"));
    GetRun other;
    Begin(other, "@/good -o " + run.Path("slow"));
    EXPECT_EQ(other.End(), "exit 3");
    EXPECT_NE(other.Err().find("another download writes"), std::string::npos) << other.Err();
    EXPECT_EQ(run.Files(), "slow.part");
    // What appears under the final name meanwhile stays.
    ASSERT_TRUE(late.Says("2s: started"));
    WriteFile(late.Path("2s"), "mine");
    EXPECT_EQ(late.End(), "exit 3");
    EXPECT_EQ(ReadFile(late.Path("2s")), "mine");
    EXPECT_EQ(late.Files(), "2s");
    // A part that is a link leads nowhere.
    GetRun linked;
    WriteFile(linked.Path("victim"), "old");
    std::filesystem::create_symlink("victim", linked.Path("good.part"));
    Begin(linked, "@/good");
    EXPECT_EQ(linked.End(), "exit 3");
    EXPECT_EQ(ReadFile(linked.Path("victim")), "old");
}

TEST(Get, GoesThroughTheProxyOfItsEnvironment) {
    HttpServer proxy({Reply::Ok("abc")});
    GetRun run;
    run.environment.push_back("http_proxy=user:p%40ss@127.0.0.1:" + std::to_string(proxy.Port()));
    Begin(run, "http://far.invalid/x");
    EXPECT_EQ(run.End(), "exit 0") << run.Err();
    const std::string request = proxy.Requests().at(0).text;
    EXPECT_EQ(request.find("GET http://far.invalid/x "), 0U) << request;
    EXPECT_NE(request.find("Basic dXNlcjpwQHNz"), std::string::npos) << request;
}

TEST(Get, AKilledWorkerIsAFailure) {
    GetRun run;
    Begin(run, "@/slow");
    const pid_t worker = run.Worker();
    ASSERT_GT(worker, 0);
    ASSERT_TRUE(run.Says("slow: started"));
    kill(worker, SIGKILL);
    EXPECT_EQ(run.End(), "exit 1");
    EXPECT_NE(run.Err().find("slow: died: "), std::string::npos) << run.Err();
    EXPECT_EQ(run.Err().find("second look"), std::string::npos) << run.Err();
    EXPECT_EQ(run.Files() + run.Out(), "");
}

TEST(Get, InterruptedItLeavesNothingButTheList) {
    struct Case {
        const char* path;
        int signal, count;
        const char* says;
    };
    const Case cases[] = {
        {"slow", SIGINT, 1, "slow: stopped"},
        {"slow", SIGTERM, 1, "slow: stopped"},
        {"slow", SIGHUP, 1, "slow: stopped"},
        {"silent", SIGINT, 1, "silent: stopped"},
        {"silent", SIGINT, 2, "stopping 2 downloads (again: end now)\n"},
        {"slow", SIGTERM, 2, "stopping 2 downloads (again: end now)\n"},
    };
    std::chrono::steady_clock::duration took[std::size(cases)] = {};
    InParallel(std::size(cases), [&](std::size_t number) {
        const Case& row = cases[number];
        SCOPED_TRACE(testing::Message() << row.path << " " << row.signal << " x " << row.count);
        const std::string path = std::string("@/") + row.path;
        const std::string all = Filled(path + "\n" + path + "\tx-2\t+\n@/good\n@/good3\n");
        GetRun run;
        WriteFile(run.Path("list"), all);
        Begin(run, "-j2 -i list --failed list");
        ASSERT_TRUE(run.Says("-2: started"));
        const pid_t worker = run.Worker();
        run.Signal(row.signal);
        ASSERT_TRUE(run.Says("stopping 2 downloads (again: end now)\n"));
        const auto start = std::chrono::steady_clock::now();
        if (row.count == 2) run.Signal(row.signal);
        EXPECT_EQ(run.End(), "signal " + std::to_string(row.signal));
        took[number] = std::chrono::steady_clock::now() - start;
        EXPECT_NE(run.Err().find(row.says), std::string::npos) << run.Err();
        EXPECT_NE(run.Err().find("2 not begun"), std::string::npos) << run.Err();
        EXPECT_EQ(run.Files(), "list");
        // All of it is to be done again, the running ones in any order.
        const std::string left = ReadFile(run.Path("list"));
        EXPECT_EQ(std::multiset<char>(left.begin(), left.end()),
                  std::multiset<char>(all.begin(), all.end()));
        EXPECT_EQ(run.SharedNames(), std::vector<std::string>());
        EXPECT_TRUE(WaitUntil([&] { return kill(worker, 0) != 0; }));
    });
    // A worker whose server is silent does not stop by itself; the second signal does not wait.
    EXPECT_LT(took[4], took[3]);
}

TEST(Get, NoLookHoldsUpTheEnd) {
    HttpServer server([](const std::string&, std::size_t number) {
        return number == 0 ? Reply::Status(404, "") : Reply().Silence();
    });
    GetRun run;
    run.Start({"--tries=1", server.Url("/x")});
    ASSERT_TRUE(WaitUntil([&server] { return server.RequestCount() == 2; }));
    run.Signal(SIGTERM);
    EXPECT_EQ(run.End(), "signal 15");
    EXPECT_NE(run.Err().find("x: failed: the server offered no file"), std::string::npos);
    EXPECT_EQ(run.Err().find("second look"), std::string::npos) << run.Err();
}

TEST(Get, ABrokenOutputEndsLikeSigterm) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    close(ends[0]);
    GetRun run;
    Begin(run, "@/good @/slow", ends[1]);
    close(ends[1]);
    EXPECT_EQ(run.End(), "signal 15");
    EXPECT_EQ(run.Files(), "good");
}

}  // namespace
