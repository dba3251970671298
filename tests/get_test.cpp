// The command `taskman get`: its parts alone, and the real program against scripted servers.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <iterator>
#include <map>
#include <mutex>
#include <thread>

#include "Console/filename.h"
#include "Console/proxy.h"
#include "support/command_run.h"
#include "support/helpers.h"
#include "support/http_server.h"

using namespace test_support;

namespace {

// ---- Names and proxies.

TEST(GetName, IsSafeWhateverTheAddressSays) {
    const std::string many(300, 'a');
    struct Row {
        std::string path, name;
    };
    const Row rows[] = {
        {"/dir/file.iso", "file.iso"},
        {"/file?name=/x/y#z", "file"},
        {"/a%20b%2Bc", "a b+c"},
        {"", "download"},
        {"/", "download"},
        {"/dir/", "download"},
        {"?file=/x", "download"},
        {"/..", "download"},
        {"/...%2e", "download"},
        {"/..%2F..%2Fetc%2Fpasswd", "passwd"},
        {"/a%2F", "download"},
        {"/%2e%2Eprofile", "profile"},
        {"/%01.%02.bashrc%00%7f", "bashrc"},
        {"/%1b%5B31mred%0a", "[31mred"},
        {"/C:%5Cboot", "C:_boot"},
        {"/%zz%4", "%zz%4"},
        {"/%C3%A4%C2%85%E2%80%AEx", "\u00e4x"},
        {"/%E4.txt%C3", "_.txt_"},
        {"/%C0%AF%ED%A0%80", "_____"},
        {"/%E0%80%AF%BF%80", "_____"},
        {"/" + many, many.substr(0, 249)},
        {"/" + many.substr(0, 248) + "%C3%A4", many.substr(0, 248)},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(NameFromAddress("http://host" + row.path), row.name) << row.path;
    }
}

TEST(GetAddress, MustBeHttpWithAHost) {
    for (const char* good : {"http://h", "HTTPS://h/x", "http://[::1]:80/?a"}) {
        EXPECT_EQ(AddressFault(good), "") << good;
    }
    for (const char* bad : {"", "h/x", "ftp://h/x", "http:/h", "http://", "http:///x", "httpx://h",
                            "http://h/a b", "http://h/\r\nX: y", "file:///etc/passwd"}) {
        EXPECT_NE(AddressFault(bad), "") << bad;
    }
    EXPECT_EQ(AddressFault("http://h/" + std::string(1023 - 9, 'x')), "");
    EXPECT_NE(AddressFault("http://h/" + std::string(1024 - 9, 'x')), "");
}

TEST(GetProxy, IsReadFromItsAddress) {
    struct Row {
        const char* address;
        std::int32_t type;
        const char *host, *user, *password;
        std::int32_t port;
    };
    const Row rows[] = {
        {"h:8080", 0, "h", "", "", 8080},
        {"http://h/", 0, "h", "", "", 1080},
        {"socks4://u@h:1", 4, "h", "u", "", 1},
        {"socks4a://h:65535", 6, "h", "", "", 65535},
        {"socks5://u:p%40%3A%25@[::1]:9", 5, "[::1]", "u", "p@:%", 9},
        {"socks5h://u:a@b:c@h", 7, "h", "u", "a@b:c", 1080},
    };
    for (const Row& row : rows) {
        Proxy proxy;
        ASSERT_EQ(ParseProxy(row.address, proxy), "") << row.address;
        EXPECT_EQ(std::tie(proxy.type, proxy.host, proxy.user, proxy.password, proxy.port),
                  std::make_tuple(row.type, row.host, row.user, row.password, row.port))
            << row.address;
    }
    const std::string longText(128, 'x');
    for (const std::string& bad :
         {std::string(), std::string("ftp://h"), std::string("h:0"), std::string("h:65536"),
          std::string("h:"), std::string("h:8x"), std::string("http://:p@h"),
          std::string("u%3Ax:p@h"), std::string("u%00:p@h"), longText, longText + ":p@h"}) {
        Proxy proxy;
        const std::string fault = ParseProxy(bad, proxy);
        EXPECT_NE(fault, "") << bad;
        EXPECT_EQ(proxy.host, "") << bad;
    }
}

// ---- The program.

using GetRun = CommandRun;

const std::string& GoodBytes() {
    static const std::string bytes = TestBytes(200'000);
    return bytes;
}

// One server for all: the path says how it behaves.
HttpServer& Server() {
    static std::mutex mutex;
    static std::map<std::string, int> asked;
    static HttpServer server([](const std::string& request, std::size_t) {
        const std::string path = request.substr(4, request.find(' ', 4) - 4);
        const auto is = [&path](const char* what) { return path.find(what) != std::string::npos; };
        if (is("good")) return Reply::Ok(GoodBytes());
        if (is("short")) return Reply::Head("100").Send("five!");
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

struct Row {
    const char* what;
    std::vector<std::string> arguments;  // "@" at the begin stands for the server's address
    const char* end;
    const char* files;  // afterwards
    const char* says;   // on standard error
    std::function<void(const GetRun&)> prepare = [](const GetRun&) {};
    const char* kept = nullptr;  // a file that holds "old" before and after
};

std::vector<std::string> Addressed(std::vector<std::string> arguments) {
    for (std::string& argument : arguments) {
        if (argument[0] == '@') argument = Server().Url(argument.substr(1));
    }
    return arguments;
}

TEST(Get, EndsWithTheStatusOfItsFiles) {
    const auto old = [](const GetRun& run) { WriteFile(run.Path("good"), "old"); };
    const std::string longAddress = "http://h/" + std::string(1024, 'x');
    const std::vector<Row> rows = {
        {"one", {"@/good?x"}, "exit 0", "good", "good: finished"},
        {"two", {"@/good", "@/good2"}, "exit 0", "good good2", "2 of 2 files finished"},
        {"named", {"@/good", "-o", "x"}, "exit 0", "x", "x: finished"},
        {"beginning with a dash", {"@/-good"}, "exit 0", "-good", "-good: finished"},
        {"404", {"@/404"}, "exit 1", "", "404: failed: "},
        {"nobody listens", {"http://127.0.0.1:1/x"}, "exit 1", "", "x: failed: "},
        {"ends early", {"@/short"}, "exit 1", "", "short: failed: "},
        {"other size",
         {"@/differs"},
         "exit 5",
         "",
         "mismatch: 50 bytes arrived, the server announced 100"},
        {"target exists", {"@/good"}, "exit 3", "good", "good exists already", old, "good"},
        {"replaced", {"-f", "@/good"}, "exit 0", "good", "good: finished", old},
        {"one target twice", {"@/good", "@/x/good"}, "exit 3", "good", "refused: another URL"},
        {"target is another's part",
         {"-j1", "@/good.part", "@/good"},
         "exit 3",
         "good.part",
         "another URL"},
        {"part is another's target",
         {"-f", "@/good", "@/good.part"},
         "exit 3",
         "good",
         "another URL"},
        {"no directory",
         {"-d", "none", "@/good"},
         "exit 3",
         "",
         "refused: cannot create none/good.part"},
        {"directory in the way",
         {"-f", "@/good"},
         "exit 3",
         "good",
         "not a regular file",
         [](const GetRun& run) { std::filesystem::create_directory(run.Path("good")); }},
        {"part is a link",
         {"@/good"},
         "exit 3",
         "good.part victim",
         "cannot create good.part",
         [](const GetRun& run) {
             WriteFile(run.Path("victim"), "old");
             std::filesystem::create_symlink("victim", run.Path("good.part"));
         },
         "victim"},
        {"backslash", {"@/good", "-o", "a\\b"}, "exit 3", "", "a backslash"},
        {"old part",
         {"@/good"},
         "exit 0",
         "good",
         "good: finished",
         [](const GetRun& run) { WriteFile(run.Path("good.part"), std::string(300'000, 'x')); }},
        {"bad scheme",
         {"ftp://h/x\x1b[2J"},
         "exit 2",
         "",
         "ftp://h/x\\x1b[2J: refused: not an http"},
        {"long address", {longAddress}, "exit 2", "", "longer than 1023 bytes"},
        {"good, bad", {"@/good", "x"}, "exit 2", "good", "1 of 2 files finished, 1 failed"},
        {"bad, good", {"x", "@/good"}, "exit 2", "good", "1 of 2 files finished, 1 failed"},
        {"bad, 404, good", {"x", "@/404", "@/good"}, "exit 1", "good", "2 failed"},
        {"404, bad", {"@/404", "x"}, "exit 1", "", "2 failed"},
        {"no worker",
         {"--worker", "/nowhere/w", "@/good"},
         "exit 1",
         "",
         "no worker program at /nowhere/w"},
        {"worker ends at once", {"--worker", "/bin/true", "@/good"}, "exit 1", "", "good: died"},
        {"no address", {}, "exit 2", "", "taskman get --help"},
        {"jobs", {"-j", "9", "@/good"}, "exit 2", "", "--jobs"},
        {"one name, two files", {"-o", "x", "@/good", "@/good2"}, "exit 2", "", "--output"},
        {"proxy", {"-x", "ftp://u:secret@h", "@/good"}, "exit 2", "", "--proxy: the scheme"},
    };
    InParallel(
        rows.size(),
        [&rows](std::size_t number) {
            const Row& row = rows[number];
            SCOPED_TRACE(row.what);
            GetRun run;
            row.prepare(run);
            run.Start(Addressed(row.arguments));
            EXPECT_EQ(run.End(), row.end) << run.Err();
            EXPECT_EQ(run.Files(), row.files);
            const std::string err = run.Err();
            EXPECT_NE(err.find(row.says), std::string::npos) << err;
            EXPECT_EQ(err.find_first_of("\x1b\x9b"), std::string::npos) << err;
            EXPECT_EQ(err.find("secret"), std::string::npos) << err;
            EXPECT_EQ(run.SharedNames(), std::vector<std::string>());
            // Every finished file is told on standard output, and has its bytes.
            std::string paths = run.Out();
            for (std::size_t end; (end = paths.find('\n')) != std::string::npos;
                 paths.erase(0, end + 1)) {
                EXPECT_EQ(ReadFile(run.Path(paths.substr(0, end))), GoodBytes());
                EXPECT_NE(paths[0], '-');
            }
            EXPECT_EQ(paths, "");
            if (row.kept != nullptr) {
                EXPECT_EQ(ReadFile(run.Path(row.kept)), "old");
            }
        },
        8);
}

TEST(Get, FilesKeepTheirOrderAndAllComeThroughEightSlots) {
    std::vector<std::string> names;
    for (int i = 0; i < 20; ++i) names.push_back("@/good" + std::to_string(i));
    GetRun many;
    many.Start(Addressed([&] {
        auto all = names;
        all.push_back("-j8");
        return all;
    }()));
    GetRun single;
    single.Start(Addressed({"-j1", names[2], names[0], names[1]}));
    EXPECT_EQ(single.End(), "exit 0");
    EXPECT_EQ(single.Out(), "good2\ngood0\ngood1\n");
    EXPECT_EQ(many.End(), "exit 0");
    for (const std::string& name : names)
        EXPECT_EQ(ReadFile(many.Path(name.substr(2))), GoodBytes());
}

TEST(Get, APartBelongsToOneDownload) {
    GetRun run;
    run.Start(Addressed({"@/slow"}));
    ASSERT_TRUE(run.Says("slow: started"));
    GetRun other;
    other.Start(Addressed({"@/good", "-o", run.Path("slow")}));
    EXPECT_EQ(other.End(), "exit 3");
    EXPECT_NE(other.Err().find("another download writes"), std::string::npos) << other.Err();
    EXPECT_EQ(run.Files(), "slow.part");
    // What appears under the final name meanwhile stays.
    GetRun late;
    late.Start(Addressed({"@/2s"}));
    ASSERT_TRUE(late.Says("2s: started"));
    WriteFile(late.Path("2s"), "mine");
    EXPECT_EQ(late.End(), "exit 3");
    EXPECT_EQ(ReadFile(late.Path("2s")), "mine");
    EXPECT_EQ(late.Files(), "2s");
}

TEST(Get, GoesThroughTheProxy) {
    HttpServer proxy({Reply::Ok(GoodBytes())});
    GetRun run;
    run.Start(
        {"-x", "user:p%40ss@127.0.0.1:" + std::to_string(proxy.Port()), "http://far.invalid/x"});
    EXPECT_EQ(run.End(), "exit 0") << run.Err();
    const std::string request = proxy.Requests().at(0).text;
    EXPECT_EQ(request.find("GET http://far.invalid/x "), 0U) << request;
    EXPECT_NE(request.find("Basic dXNlcjpwQHNz"), std::string::npos) << request;
}

TEST(Get, AKilledWorkerIsAFailure) {
    GetRun run;
    run.Start(Addressed({"@/slow"}));
    const pid_t worker = run.Worker();
    ASSERT_GT(worker, 0);
    ASSERT_TRUE(run.Says("slow: started"));
    kill(worker, SIGKILL);
    EXPECT_EQ(run.End(), "exit 1");
    EXPECT_NE(run.Err().find("slow: died: "), std::string::npos) << run.Err();
    EXPECT_EQ(run.Files(), "");
    EXPECT_EQ(run.SharedNames(), std::vector<std::string>());
}

TEST(Get, InterruptedItLeavesNothing) {
    struct Case {
        const char* path;
        int signal, count;
        const char *end, *says;
    };
    const Case cases[] = {
        {"@/slow", SIGINT, 1, "signal 2", "slow: stopped"},
        {"@/slow", SIGTERM, 1, "signal 15", "slow: stopped"},
        {"@/slow", SIGHUP, 1, "signal 1", "slow: stopped"},
        {"@/silent", SIGINT, 1, "signal 2", "silent: stopped"},
        {"@/silent", SIGINT, 2, "signal 2", "stopping 2 downloads (again: end now)\n"},
        {"@/slow", SIGTERM, 2, "signal 15", "stopping 2 downloads (again: end now)\n"},
    };
    std::chrono::steady_clock::duration took[std::size(cases)] = {};
    InParallel(std::size(cases), [&](std::size_t number) {
        const Case& row = cases[number];
        SCOPED_TRACE(testing::Message() << row.path << " " << row.signal << " x " << row.count);
        GetRun run;
        run.Start(Addressed({"-j2", row.path, std::string(row.path) + "-2", "@/good"}));
        ASSERT_TRUE(run.Says("-2: started"));
        const pid_t worker = run.Worker();
        run.Signal(row.signal);
        ASSERT_TRUE(run.Says("stopping 2 downloads (again: end now)\n"));
        const auto start = std::chrono::steady_clock::now();
        if (row.count == 2) run.Signal(row.signal);
        EXPECT_EQ(run.End(), row.end);
        took[number] = std::chrono::steady_clock::now() - start;
        EXPECT_NE(run.Err().find(row.says), std::string::npos) << run.Err();
        EXPECT_NE(run.Err().find("1 not begun"), std::string::npos) << run.Err();
        EXPECT_EQ(run.Files(), "");
        EXPECT_EQ(run.SharedNames(), std::vector<std::string>());
        EXPECT_TRUE(WaitUntil([&] { return kill(worker, 0) != 0; }));
    });
    // A worker whose server is silent does not stop by itself; the second signal does not wait.
    EXPECT_LT(took[4], took[3]);
}

TEST(Get, ABrokenOutputEndsLikeSigterm) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    close(ends[0]);
    GetRun run;
    run.Start(Addressed({"@/good", "@/slow"}), 0, ends[1]);
    close(ends[1]);
    EXPECT_EQ(run.End(), "signal 15");
    EXPECT_EQ(run.Files(), "good");
}

}  // namespace
