// The command `taskman get`: its parts alone, and the real program against scripted servers.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <map>
#include <mutex>
#include <sstream>
#include <tuple>

#include "Console/filename.h"
#include "Console/inputlist.h"
#include "Console/proxy.h"
#include "support/command_run.h"
#include "support/helpers.h"
#include "support/http_server.h"

using namespace test_support;

namespace {

// ---- Names, proxies, lists.

TEST(GetName, IsSafeWhateverTheAddressSays) {
    const std::string many(300, 'a');
    const struct {
        std::string path, name;
    } rows[] = {
        {"/dir/file.iso", "file.iso"},
        {"/file?name=/x/y#z", "file"},
        {"/a%20b%2Bc", "a b+c"},
        {"", "download"},
        {"/dir/", "download"},
        {"/%20%20", "download"},
        {"/...%2e", "download"},
        {"/..%2F..%2Fetc%2Fpasswd", "passwd"},
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
    for (const auto& row : rows) {
        EXPECT_EQ(NameFromAddress("http://host" + row.path), row.name) << row.path;
    }
}

TEST(GetAddress, MustBeHttpWithAHost) {
    const std::string longest = "http://h/" + std::string(1023 - 9, 'x');
    for (const std::string& good : {std::string("HTTPS://h"), longest}) {
        EXPECT_EQ(AddressFault(good), "") << good;
    }
    const std::string tooLong = longest + "x";
    for (const char* bad : {"", "h/x", "ftp://h/x", "http:/h", "http://", "http:///x", "httpx://h",
                            "http://h/a b", "http://h/\r\nX: y", tooLong.c_str()}) {
        EXPECT_NE(AddressFault(bad), "") << bad;
    }
}

TEST(GetProxy, IsReadFromItsAddress) {
    const struct {
        const char* address;
        std::int32_t type;
        const char *host, *user, *password;
        std::int32_t port;
    } rows[] = {
        {"h:8080", 0, "h", "", "", 8080},
        {"HTTP://h/", 0, "h", "", "", 1080},
        {"socks4://u@h:1", 4, "h", "u", "", 1},
        {"socks4a://h:65535", 6, "h", "", "", 65535},
        {"socks5://u:p%40%3A%25@[::1]:9", 5, "[::1]", "u", "p@:%", 9},
        {"socks5h://u:a@b:c@h", 7, "h", "u", "a@b:c", 1080},
    };
    for (const auto& row : rows) {
        Proxy proxy;
        ASSERT_EQ(ParseProxy(row.address, proxy), "") << row.address;
        EXPECT_EQ(std::tie(proxy.type, proxy.host, proxy.user, proxy.password, proxy.port),
                  std::make_tuple(row.type, row.host, row.user, row.password, row.port))
            << row.address;
    }
    const std::string longText(128, 'x');
    for (const char* bad : {"", "ftp://h", "h:0", "h:65536", "h:", "h:8x", "http://:p@h",
                            "u%3Ax:p@h", "u%00:p@h", longText.c_str()}) {
        Proxy proxy;
        EXPECT_NE(ParseProxy(bad, proxy), "") << bad;
        EXPECT_EQ(proxy.host, "") << bad;
    }
}

TEST(GetProxy, ComesFromAFileOrTheEnvironment) {
    const TempDir directory;
    WriteFile(directory.Path("proxy"), " http://u:p@filed:1 \r\nmore");
    const struct {
        const char *given, *address;
        std::vector<std::string> environment;
        const char* host;  // null: there is a fault
    } rows[] = {
        {"", "http://h", {}, ""},
        {"", "http://h", {"http_proxy=p:1", "all_proxy=a"}, "p"},
        {"", "HTTPS://h", {"http_proxy=p", "HTTPS_PROXY=s", "all_proxy=a"}, "s"},
        {"", "http://h", {"HTTP_PROXY=p"}, ""},
        {"", "http://h", {"http_proxy=", "ALL_PROXY=socks5://a"}, "a"},
        {"", "http://h", {"http_proxy=ftp://u:secret@p"}, nullptr},
        {"", "http://a.b.c:80/x", {"http_proxy=p", "no_proxy=x, .B.c"}, ""},
        {"", "http://u@b.c", {"http_proxy=p", "NO_PROXY=b.c."}, ""},
        {"", "http://ab.c", {"http_proxy=p", "no_proxy=b.c"}, "p"},
        {"", "http://[::1]:80/", {"http_proxy=p", "no_proxy=::1"}, ""},
        {"", "http://h", {"http_proxy=p", "no_proxy=*"}, ""},
        {"none", "http://h", {"http_proxy=p"}, ""},
        {"q", "http://h", {"http_proxy=p", "no_proxy=*"}, "q"},
        {"@proxy", "http://h", {}, "filed"},
    };
    const char* const names[] = {"http_proxy", "https_proxy", "HTTP_PROXY", "HTTPS_PROXY",
                                 "all_proxy",  "ALL_PROXY",   "no_proxy",   "NO_PROXY"};
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.environment) + row.given + row.address);
        for (const char* name : names) unsetenv(name);
        for (const std::string& set : row.environment) putenv(const_cast<char*>(set.c_str()));
        ProxyRules rules;
        const std::string given = *row.given == '@' ? "@" + directory.Path("proxy") : row.given;
        if (!given.empty()) {
            EXPECT_EQ(rules.Give(given), "");
        }
        Proxy proxy;
        const std::string fault = rules.For(row.address, proxy);
        EXPECT_EQ(fault.empty(), row.host != nullptr) << fault;
        EXPECT_EQ(fault.find("secret"), std::string::npos);
        EXPECT_EQ(proxy.host, row.host == nullptr ? "" : row.host);
    }
    EXPECT_NE(ProxyRules().Give("@" + directory.Path("missing")), "");
}

TEST(GetList, ItsLinesAreRequests) {
    const std::string digest(64, 'A');
    const struct {
        std::string line;
        std::tuple<std::string, std::string, std::string> request;
        bool good = true;
    } rows[] = {
        {"", {}},
        {" \t \r", {}},
        {" # http://h", {}},
        {" http://h/#a b \r", {"http://h/#a b", "", ""}},
        {"http://h\td/a b \t " + digest + "\t", {"http://h", "d/a b ", digest}},
        {"http://h\t\t" + digest, {"http://h", "", digest}},
        {"http://h\tx/", {"http://h", "x/", ""}, false},
        {std::string("http://h\tx\0y", 12), {"http://h", std::string("x\0y", 3), ""}, false},
        {"http://h\tx\t12", {"http://h", "x", "12"}, false},
        {"http://h\t\t\tx", {"http://h", "", ""}, false},
        {"\tname", {"name", "", ""}, false},
    };
    for (const auto& row : rows) {
        const Request request = ReadListLine(row.line);
        EXPECT_EQ(std::tie(request.address, request.name, request.sha256), row.request) << row.line;
        EXPECT_EQ(request.fault.empty(), row.good) << row.line << ": " << request.fault;
    }
}

TEST(GetList, EndsWithAWholeLine) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    InputList list;
    ASSERT_EQ(list.Open("/dev/fd/" + std::to_string(ends[0])), "");
    Request request;
    EXPECT_FALSE(list.Take(request));
    const std::string text = "a\n\n#\n" + std::string(20'000, 'b') + "\nc\nd";
    ASSERT_EQ(write(ends[1], text.data(), text.size()), ssize_t(text.size()));
    for (const char first : {'a', 'b', 'c'}) {
        ASSERT_TRUE(list.Take(request));
        EXPECT_EQ(request.address[0], first);
        EXPECT_EQ(request.fault.empty(), first != 'b');
    }
    EXPECT_FALSE(list.Take(request) || list.Ended());
    list.Finish();
    EXPECT_FALSE(list.Take(request) || !list.Ended());
    for (const int end : ends) close(end);
}

// ---- The program.

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

Files List(const std::string& lines) {
    return {{"list", lines}};
}

const std::vector<Row>& Rows() {
    static const Files old = {{"good", "old"}};
    static const std::vector<Row> rows = {
        // Names and files that are in the way.
        {"@/good?x @/-good", "exit 0", "-good good", "2 of 2 files finished"},
        {"@/good -o x", "exit 0", "x", "x: finished"},
        {"@/good", "exit 3", "good", "good exists already", old},
        {"-f @/good", "exit 0", "good", "good: finished", old, {{"good", "abc"}}},
        {"-s @/good @/good2", "exit 0", "good good2", "good: skipped", old},
        {"-s @/good", "exit 3", "good", "not a regular file", {{"good", ""}}},
        {"-s --sha256 + @/good", "exit 0", "good", "good: skipped", {{"good", "abc"}}},
        {"-s --sha256 + @/good", "exit 5", "good", "good: mismatch", old},
        {"-s -f @/good", "exit 2", "good", "--force", old},
        {"@/good @/x/good", "exit 3", "good", "refused: another URL"},
        {"-f -j1 @/good @/good2 @/x/good", "exit 3", "good good2", "refused: another URL"},
        {"-j1 @/good.part @/good2 @/good", "exit 3", "good.part good2", "another URL"},
        {"-d none @/good", "exit 3", "", "refused: cannot create none/good.part"},
        {"-f @/good", "exit 3", "good", "not a regular file", {{"good", ""}}},
        {"@/good -o a\\b", "exit 3", "", "a backslash"},
        {"@/good", "exit 0", "good", "", {{"good.part", "longer"}}, {{"good", "abc"}}},
        // Failures and their reasons.
        {"@/404", "exit 1", "",
         "404: failed: the server offered no file of known size (a second look: HTTP 404)"},
        {"http://127.0.0.1:1/x", "exit 1", "", "x: failed: "},
        {"@/short", "exit 1", "", "short: failed: the transfer broke off"},
        {"--keep-part @/short @/404", "exit 1", "short.part", "", {}, {{"short.part", "five!"}}},
        {"--tries 1 @/huge", "exit 3", "", "huge: failed: no space left for huge.part"},
        {"--wait 0 @/idle", "exit 1", "", "idle: failed: the transfer starts over"},
        {"@/differs", "exit 5", "", "mismatch: 50 bytes arrived, the server announced 100"},
        {"--sha256 ~ @/good", "exit 5", "",
         "good: mismatch: good.part has the SHA-256 digest ba78"},
        {"--worker /nowhere/w @/good", "exit 1", "", "no worker program at /nowhere/w"},
        {"--worker /bin/true @/good", "exit 1", "", "good: died"},
        // Addresses, in several orders: the smallest status wins.
        {"ftp://h/x\x1b[2J", "exit 2", "", "ftp://h/x\\x1b[2J: refused: not an http"},
        {"http://h/" + std::string(1024, 'x'), "exit 2", "", "longer than 1023 bytes"},
        {"x @/good", "exit 2", "good", "1 of 2 files finished, 1 failed"},
        {"x @/404 @/good", "exit 1", "good", "2 failed"},
        {"@/404 x", "exit 1", "", "2 failed"},
        {"@/good2 @/good x", "exit 2", "good good2", "", old},
        {"@/good @/differs-3", "exit 3", "good", "", old},
        {"@/differs-2 @/good -s", "exit 5", "good", "1 skipped", old},
        // Lists.
        {"-i list", "exit 0", "a good list", "2 of 2", List("#\n@/good\n@/good2\ta\t+")},
        {"@/good -i list", "exit 1", "good good2 list", "2 of 4", List("x\n@/404\n@/good2")},
        {"-i list", "exit 2", "good list", "a blank", List("http://h/a b\n@/good\n")},
        {"-i list", "exit 5", "list", "mismatch", List("@/good\t\t~")},
        {"-j1 -i list --failed list", "exit 1", "good list", "",
         List("# all\nx\n@/good\n@/404\tn\t+\n@/good3\t\t~\n"),
         List("x\n@/404\tn\t+\n@/good3\t\t~\n")},
        {"@/good @/404 -o x", "exit 2", "", "--output"},
        {"-i list --sha256 +", "exit 2", "list", "--sha256", List("@/good")},
        {"-i none", "exit 2", "", "cannot read none"},
        {"-i .", "exit 2", "", ". is a directory"},
        {"@/good --failed none/x", "exit 3", "", "cannot create none/x.part"},
        {"--worker /nowhere/w -i list --failed x",
         "exit 1",
         "list x",
         "",
         List("@/good"),
         {{"list", "@/good"}, {"x", "@/good\n"}}},
        // Usage.
        {"", "exit 2", "", "taskman get --help"},
        {"--tries 0 @/good", "exit 2", "", "--tries"},
        {"--progress fast @/good", "exit 2", "", "auto|bar|plain|none"},
        {"--sha256 12 @/good", "exit 2", "", "64 hexadecimal digits"},
        {"-x ftp://u:secret@h @/good", "exit 2", "", "--proxy: the scheme"},
        {"-x @none @/good", "exit 2", "", "--proxy"},
    };
    return rows;
}

TEST(Get, EndsWithTheStatusOfItsFiles) {
    const auto look = [](std::size_t number) {
        const Row& row = Rows()[number];
        SCOPED_TRACE(row.command);
        GetRun run;
        for (const auto& [name, content] : row.before) {
            if (content.empty()) std::filesystem::create_directory(run.Path(name));
            if (!content.empty()) WriteFile(run.Path(name), Filled(content));
        }
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
    ASSERT_TRUE(run.Says("slow: started"));
    GetRun other;
    Begin(other, "@/good -o " + run.Path("slow"));
    EXPECT_EQ(other.End(), "exit 3");
    EXPECT_NE(other.Err().find("another download writes"), std::string::npos) << other.Err();
    EXPECT_EQ(run.Files(), "slow.part");
    // What appears under the final name meanwhile stays.
    GetRun late;
    Begin(late, "@/2s");
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

TEST(Get, WaitsForServersAsLongAsItMay) {
    GetRun patient;
    Begin(patient, "@/silent");
    ASSERT_TRUE(patient.Says("started"));
    GetRun hasty;
    Begin(hasty, "--timeout 1 @/silent");
    // A look that finds a silent server is not waited for at the end.
    HttpServer server([](const std::string&, std::size_t number) {
        return number == 0 ? Reply::Status(404, "") : Reply().Silence();
    });
    GetRun looking;
    looking.Start({"--tries=1", server.Url("/x")});
    ASSERT_TRUE(WaitUntil([&server] { return server.RequestCount() == 2; }));
    looking.Signal(SIGTERM);
    EXPECT_EQ(looking.End(), "signal 15");
    EXPECT_TRUE(looking.Says("x: failed: the server offered no file of known size\n"));
    EXPECT_EQ(hasty.End(), "exit 1");
    EXPECT_TRUE(hasty.Says("silent: failed: the server did not answer in time"));
    EXPECT_EQ(patient.Err().find("failed"), std::string::npos) << patient.Err();
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
