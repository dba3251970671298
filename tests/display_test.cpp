// What `taskman get` shows: its texts and lines, events for programs, the second look, the screen.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <csignal>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>

#include "Console/bardisplay.h"
#include "Console/jsondisplay.h"
#include "Console/plaindisplay.h"
#include "Console/secondlook.h"
#include "Console/text.h"
#include "TaskMan/taskcontext.h"
#include "support/command_run.h"
#include "support/helpers.h"
#include "support/http_server.h"

using namespace test_support;

namespace {

TEST(DisplayText, NothingButVisibleCharacters) {
    text::UseUtf8();
    EXPECT_EQ(text::Wrap("ab\u65e5\u672c", 3),
              (std::vector<std::string>{"ab", "\u65e5", "\u672c"}));
    const std::pair<std::string, std::string> rows[] = {
        {text::Printable("a\x1b[2J\n\x7f"), "a\\x1b[2J\\x0a\\x7f"},
        {text::Printable("\xc2\x9b\xff\u202e\u00e4\u65e5"),
         "\\xc2\\x9b\\xff\\xe2\\x80\\xae\u00e4\u65e5"},
        {text::CutMiddle("abcdefghij", 9), "abc...hij"},
        {text::CutMiddle("abcdefghij", 10), "abcdefghij"},
        {text::CutMiddle("\u65e5\u672c\u8a9e\u65e5\u672c\u8a9e", 8), "\u65e5...\u8a9e"},
        {text::Size(1023), "1023 B"},
        {text::Size(1024), "1.0 KiB"},
        {text::Size(1048575), "1.0 MiB"},
        {text::Size(1e300), "9999.9 PiB"},
        {text::Duration(59.94), "59.9 s"},
        {text::Duration(60), "1:00"},
        {text::Clock(3599.6), "1:00:00"},
        {text::Clock(-1), "--:--"},
        {text::Clock(1e9), "--:--"},
    };
    for (const auto& [actual, expected] : rows) EXPECT_EQ(actual, expected);
}

FileView View(const std::string& name, double size, double percent, double speed, int tries = 1) {
    FileView view{name};
    view.size = size;
    view.percent = percent;
    view.speed = speed;
    view.answered = size >= 0;
    view.tries = tries;
    return view;
}

TEST(DisplayLines, FitTheirColumns) {
    text::UseUtf8();
    const FileView file =
        View("a\u65e5\u672c\u8a9e-file-of-some-length.tar.gz", 67108864, 25, 1048576);
    const FileView again = View("file-of-some-length.tar.gz", 67108864, 0, -1, 2);
    const FileView waiting = View("name", -1, 0, -1, 3);
    const Clock::time_point now = waiting.started + std::chrono::milliseconds(4200);
    Totals totals{3, 0, 1, 0, 0, 2, 1024 * 1024};
    const std::pair<std::string, std::string> rows[] = {
        {FileLine(file, 79, now),
         "a\u65e5\u672c\u8a9e-f...th.tar.gz  [===>         ]  25%    64.0 MiB     1.0 MiB/s      "
         "0:48"},
        {FileLine(file, 19, now), "a\u65e5\u672c...tar.gz  25%"},
        {FileLine(again, 59, now), "file-of...tar.gz (try 2)  [>             ]   0%    64.0 MiB"},
        {FileLine(again, 19, now), "file-o...ar.gz   0%"},
        {FileLine(waiting, 60, now),
         "name (try 3)                     waiting for the server, 4 s"},
        {FileLine(waiting, 40, now), "name         waiting for the server, 4 s"},
        {FileLine(waiting, 19, now), "name   waiting, 4 s"},
        {TotalLine({&file}, totals, 79),
         "2 of 3 files done, 1 failed, 17.0 MiB, 1.0 MiB/s, 0:48 left"},
        {TotalLine({&file, &waiting}, totals, 19), "2 of 3 files done"},
    };
    for (const auto& [actual, expected] : rows) EXPECT_EQ(actual, expected);
    for (int columns = 2; columns < 210; ++columns) {
        for (const FileView& view : {file, again, waiting}) {
            EXPECT_LE(text::Width(FileLine(view, columns, now)), columns);
        }
        EXPECT_LE(text::Width(TotalLine({&file, &waiting}, totals, columns)), columns);
        for (const std::string& line : text::Wrap(file.name, columns)) {
            EXPECT_LE(text::Width(line), columns);
        }
    }
}

TEST(DisplayJson, EventsAreReadByPrograms) {
    std::vector<nlohmann::json> events;
    JsonDisplay display([&events](const std::string& line) {
        ASSERT_EQ(line.find('\n'), line.size() - 1);
        for (const char c : line) EXPECT_TRUE((c >= ' ' && c < 0x7F) || c == '\n') << line;
        events.push_back(nlohmann::json::parse(line));
    });
    FileView file = View("", 64, 50, 10);
    file.id = "1f";
    file.address = "http://host/\"\u65e5\u2028\n";
    file.path = "a\xff\x1b\xed\xa0\x80";
    FileView refused;
    refused.address = "\xc3";
    display.Begin(file);
    display.State(file, DOWNLOAD_STATE_PROGRESS, 50);
    display.State(file, DOWNLOAD_STATE_SPEED, 0.5);
    display.State(file, DOWNLOAD_STATE_SPEED, std::numeric_limits<double>::infinity());
    display.End(refused, {EndResult::kRefused, EXIT_STATUS_USAGE, "why"});
    display.End(file, {EndResult::kDied, EXIT_STATUS_FAILED, "n\to", 0, 1.23456, 7, "HTTP 404"});
    display.Begin(file);
    display.Close({4, 1, 1, 0, 1, 3, 1e10}, 1);
    const char* expected[] = {
        R"({"v": 1, "event": "task", "file": 1, "id": "1f", "address": "http://host/\"日\u2028\n",
            "path": "a\ufffd\u001b\ufffd\ufffd\ufffd", "path_hex": "61ff1beda080"})",
        R"({"event": "state", "file": 1, "id": "1f", "code": 4, "value": 50})",
        R"({"event": "state", "file": 1, "id": "1f", "code": 5, "value": 0.5})",
        R"({"event": "state", "file": 1, "id": "1f", "code": 5, "value": null})",
        R"({"event": "end", "file": 2, "id": null, "result": "refused", "code": null,
            "address": "\ufffd", "address_hex": "c3", "path": null, "bytes": 0, "seconds": 0.0,
            "reason": "why", "second_look": null})",
        R"({"event": "end", "file": 1, "id": "1f", "result": "died", "code": 7,
            "address": "http://host/\"日\u2028\n", "path": "a\ufffd\u001b\ufffd\ufffd\ufffd",
            "path_hex": "61ff1beda080", "bytes": 0, "seconds": 1.235, "reason": "n\to",
            "second_look": "HTTP 404"})",
        R"({"event": "task", "file": 3, "id": "1f", "address": "http://host/\"日\u2028\n",
            "path": "a\ufffd\u001b\ufffd\ufffd\ufffd", "path_hex": "61ff1beda080"})",
        R"({"event": "summary", "files": 4, "finished": 1, "skipped": 0, "failed": 1,
            "stopped": 1, "not_begun": 1, "bytes": 10000000000, "exit": 1})",
    };
    ASSERT_EQ(events.size(), std::size(expected));
    for (std::size_t i = 0; i < events.size(); ++i) {
        EXPECT_EQ(events[i], nlohmann::json::parse(expected[i]));
    }
}
TEST(SecondLook, TellsWhatSpeaksAgainstTheAddress) {
    setenv("http_proxy", "http://127.0.0.1:1", 1);
    setenv("no_proxy", "*", 1);
    PrepareSecondLooks();
    HttpServer server([](const std::string& request, std::size_t) {
        const auto asked = [&request](const char* path) {
            return request.find(path) != std::string::npos;
        };
        if (asked("GET http://far.invalid/x ") && asked("Basic dTpwOg==")) return Reply::Ok("x");
        if (asked("/404 ")) return Reply::Status(404, "no such file");
        if (asked("/endless ")) return Reply::Head("100000000").Stream(100'000);
        if (asked("/no-length ")) return Reply::Head("", "bytes");
        if (asked("/empty ")) return Reply::Ok("");
        if (asked("/moved ")) return Reply::Redirect("/404");
        if (asked("/leaves ")) return Reply::Redirect("file:///etc/hostname");
        if (asked("/loop ")) return Reply::Redirect("/loop");
        return Reply().Silence();
    });
    const Proxy proxy{"127.0.0.1", server.Port(), 0, "u", "p:"};
    const Proxy socks{"127.0.0.1", server.Port(), 5, "u", "p:"};
    const struct {
        std::string address, fault;
        Proxy proxy{};
    } rows[] = {
        {server.Url("/404"), "HTTP 404"},
        {server.Url("/endless"), ""},
        {server.Url("/no-length"), "the server announces no length"},
        {server.Url("/empty"), "the file is empty"},
        {server.Url("/moved"), "HTTP 404"},
        {server.Url("/leaves"), "Protocol \"file\""},
        {server.Url("/loop"), "Maximum (30) redirects"},
        {server.Url("/silent"), "timed out"},
        {"http://127.0.0.1:1/x", "127.0.0.1 port 1"},
        {"http://far.invalid/x", "", proxy},
        {"http://far.invalid/x", "timed out", socks},
    };
    InParallel(std::size(rows), [&rows](std::size_t number) {
        const auto& row = rows[number];
        const std::string fault = SecondLook(row.address, row.proxy);
        EXPECT_NE(fault.find(row.fault), std::string::npos) << row.address << ": " << fault;
        EXPECT_EQ(fault.empty(), row.fault.empty()) << row.address << ": " << fault;
    });
}

// What a plain display of that detail writes about one file that finishes and one that does not.
std::string Told(Detail detail) {
    const TempDir directory;
    WriteFile(directory.Path("log"), "");
    const int log = open(directory.Path("log").c_str(), O_WRONLY);
    PlainDisplay display(log, detail);
    FileView file = View("f", 2048, 0, 1024);
    file.address = "http://h/f";
    display.Begin(file);
    for (const double percent : {24, 30, 49, 80, 90, 100}) {
        file.percent = percent;
        display.State(file, DOWNLOAD_STATE_PROGRESS, percent);
        if (percent == 80) display.State(file, DOWNLOAD_STATE_SPEED, 1024);
    }
    display.End(file, {EndResult::kFinished, EXIT_STATUS_FINISHED, "", 2048, 4});
    display.End(View("g", -1, 0, -1),
                {EndResult::kFailed, EXIT_STATUS_FAILED, "why\n", 0, 1, 7, "HTTP 404"});
    display.Close({5, 1, 1, 1, 1, 4, 2048}, 1);
    close(log);
    return ReadFile(directory.Path("log"));
}

TEST(DisplayPlain, TellsAsMuchAsIsWanted) {
    const std::string finished = "f: finished, 100 % of 2.0 KiB in 4.0 s, 512 B/s\n";
    const std::string failed = "g: failed: why\\x0a (a second look: HTTP 404)\n";
    const std::string sum = "1 of 5 files finished, 1 skipped, 1 failed, 1 stopped, 1 not begun\n";
    EXPECT_EQ(Told(Detail::kFailures), failed);
    EXPECT_EQ(Told(Detail::kEnds), finished + failed + sum);
    EXPECT_EQ(Told(Detail::kProgress),
              "f: started\nf: 25 % of 2.0 KiB, 1.0 KiB/s\nf: 75 % of 2.0 KiB, 1.0 KiB/s\n" +
                  finished + failed + sum);
    EXPECT_EQ(Told(Detail::kReports),
              "f: task , http://h/f\nf: code 4: 24 %\nf: code 4: 30 %\nf: code 4: 49 %\n"
              "f: code 4: 80 %\nf: code 5: 1.0 KiB/s\nf: code 4: 90 %\nf: code 4: 100 %\n" +
                  finished + failed + sum);
}

// ---- The screen of the real command.

std::size_t Count(const std::string& text, const char* pattern) {
    const std::regex wanted(pattern);
    return std::distance(std::sregex_iterator(text.begin(), text.end(), wanted), {});
}

TEST(DisplayTerminal, LinesStayWithinTheColumns) {
    HttpServer server([](const std::string& request, std::size_t) {
        const bool slow = request.starts_with("GET /slow ");
        return slow ? Reply::Head("100000000").Stream(100'000)
                    : Reply::Head("400000").Send(std::string(400'000, 'x'), 180'000);
    });
    InParallel(2, [&server](std::size_t number) {
        const int columns = number == 0 ? 20 : 200;
        SCOPED_TRACE(columns);
        CommandRun run;
        run.Start({"-j2", server.Url("/2s%1b%5b2J-with-a-name-of-some-length"), server.Url("/slow"),
                   "bad\x1b[2J"},
                  columns);
        ASSERT_TRUE(run.Says("bad"));
        ASSERT_TRUE(run.Says("%"));
        ASSERT_TRUE(run.Says("fin"));
        run.Type('\x03');
        EXPECT_EQ(run.End(), "signal 2");
        const std::string sent = run.Err();
        // A carriage return, too, begins a line anew.
        const std::regex steering("\x1b\\[[0-9;?]*[a-zA-Z]|\r\n?");
        std::istringstream lines(std::regex_replace(sent, steering, "\n"));
        for (std::string line; std::getline(lines, line);) {
            EXPECT_EQ(line, text::Printable(line));
            EXPECT_LT(text::Width(line), columns) << line;
        }
        EXPECT_EQ(Count(sent, "\x1b\\[2J"), 0U);
        EXPECT_GT(Count(sent, "\x1b\\[31m"), 0U);  // what failed is red
        EXPECT_EQ(Count(sent, "\x1b\\[\\?7l"), Count(sent, "\x1b\\[\\?7h"));
        EXPECT_EQ(run.Files(), "2s[2J-with-a-name-of-some-length");
    });
}

TEST(DisplayForm, IsTheOneThatIsWanted) {
    HttpServer server({Reply::Ok("bytes")});
    const struct {
        const char* setting;
        int columns;  // 0: no terminal
        const char* option;
        const char* pattern;  // stands in standard error
        const char* never;
    } rows[] = {
        {"TERM=dumb", 80, "-f", "x: refused", "\x1b"},
        {"TERM=dumb", 80, "--progress=bar", "\x1b\\[K", "\x1b\\[31m|started"},
        {"NO_COLOR=1", 80, "-f", "\x1b\\[K", "\x1b\\[31m"},
        {"NO_COLOR=1", 80, "--color=always", "\x1b\\[31m", "started"},
        {"NO_COLOR=", 80, "-f", "\x1b\\[31m", "started"},
        {"NO_COLOR=", 80, "--color=never", "\x1b\\[K", "\x1b\\[31m"},
        {"NO_COLOR=", 80, "--progress=plain", "good: started", "\x1b\\[K"},
        {"NO_COLOR=", 80, "-q", "\x1b\\[31mx: ref", "good|1 of 2|\x1b\\[K"},
        {"NO_COLOR=", 80, "-v", "good: code 3[^]*good: finished", "started"},
        {"NO_COLOR=", 0, "-f", "good: started[^]*1 of 2 files", "\x1b"},
        {"NO_COLOR=", 0, "--progress=none", "good: finished", "\x1b|started"},
    };
    InParallel(std::size(rows), [&](std::size_t number) {
        const auto& row = rows[number];
        CommandRun run;
        run.environment.push_back(row.setting);
        run.Start({row.option, "x", server.Url("/good")}, row.columns);
        EXPECT_EQ(run.End(), "exit 2");
        const std::string sent = run.Err();
        EXPECT_GT(Count(sent, row.pattern), 0U) << row.setting << row.option << ": " << sent;
        EXPECT_EQ(Count(sent, row.never), 0U) << row.setting << row.option << ": " << sent;
        EXPECT_EQ(run.Out(), "good\n");
    });
}

TEST(DisplayForm, AProgramReadsEvents) {
    HttpServer server({Reply::Ok("bytes")});
    CommandRun run;
    WriteFile(run.Path("list"), server.Url() + "\ta\xff\"\n\xff");
    run.Start({"--json", "-ilist"});
    EXPECT_EQ(run.End(), "exit 2");
    EXPECT_EQ(run.Err(), "");
    std::map<std::string, nlohmann::json> events;  // the last of each result, or of each name
    std::istringstream lines(run.Out());
    for (std::string line; std::getline(lines, line);) {
        EXPECT_EQ(line.starts_with("{\"v\":1,"), events.empty());
        const auto event = nlohmann::json::parse(line);
        events[event.value("result", event["event"])] = event;
    }
    EXPECT_EQ(events["task"]["path_hex"], "61ff22");
    EXPECT_EQ(events["state"]["code"], DOWNLOAD_STATE_DOWNLOAD_FINISH);
    EXPECT_EQ(events["finished"]["bytes"], 5);
    EXPECT_EQ(events["refused"]["address_hex"], "ff");
    EXPECT_EQ(events["summary"]["exit"], 2);
}

TEST(DisplayForm, AReaderThatTakesNothingDelaysNoEnd) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    CommandRun run;
    std::string list;
    for (int i = 0; i < 2000; ++i) list += "x\n";
    WriteFile(run.Path("list"), list);
    run.Start({"--json", "-ilist"}, 0, ends[1]);
    int held = 0;
    EXPECT_TRUE(WaitUntil([&] { return ioctl(ends[0], FIONREAD, &held) == 0 && held > 50'000; }));
    run.Signal(SIGINT);
    EXPECT_EQ(run.End(), "signal 2");
    for (const int end : ends) close(end);
}

}  // namespace
