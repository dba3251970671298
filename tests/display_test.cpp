// What `taskman get` shows: its texts and lines, events for programs, the screen.

#include <regex>

#include "Console/others/top.h"
#include "Console/screen/bardisplay.h"
#include "Console/screen/plaindisplay.h"
#include "Console/screen/text.h"
#include "support/http_server.h"
#include "support/processes.h"

using namespace test_support;

namespace {

TEST(DisplayLines, AreVisibleAndFitTheirColumns) {
    text::UseUtf8();
    const FileView file{.name = "a\u65e5\u672c\u8a9e-file-of-some-length.tar.gz",
                        .size = 67108864,
                        .percent = 25,
                        .speed = 1048576,
                        .answered = true};
    const FileView waiting{.name = "name"};
    const FileView endless{.name = "name", .speed = 1048576, .answered = true};
    const Clock::time_point now = waiting.started + std::chrono::milliseconds(4200);
    const Totals totals{3, 0, 1, 0, 0, 2, 1024 * 1024};
    const std::pair<std::string, std::string> rows[] = {
        {text::Printable("a\x1b[2J\n\x7f\u00e4"), "a\\x1b[2J\\x0a\\x7f\u00e4"},
        {text::Printable("\xc2\x9b\xff\u202e\u65e5"), "\\xc2\\x9b\\xff\\xe2\\x80\\xae\u65e5"},
        {text::CutMiddle("abcdefghij", 9), "abc...hij"},
        {text::CutMiddle("abcdefghij", 10), "abcdefghij"},
        {text::CutMiddle("\u65e5\u672c\u8a9e\u65e5\u672c\u8a9e", 8), "\u65e5...\u8a9e"},
        {text::Size(1023), "1023 B"},
        {text::Size(1048575), "1.0 MiB"},
        {text::Size(1e300), "9999.9 PiB"},
        {text::Duration(59.94), "59.9 s"},
        {text::Duration(59.97), "1:00"},
        {text::Clock(3599.6), "1:00:00"},
        {text::Clock(-1) + text::Clock(1e9), "--:----:--"},
        {FileLine(file, 79, now),
         "a\u65e5\u672c\u8a9e-f...th.tar.gz  [===>         ]  25%    64.0 MiB     1.0 MiB/s      "
         "0:48"},
        {FileLine(file, 19, now), "a\u65e5\u672c...tar.gz  25%"},
        {FileLine(waiting, 60, now),
         "name                             waiting for the server, 4 s"},
        {FileLine(waiting, 19, now), "name   waiting, 4 s"},
        {FileLine(endless, 60, now),
         "name                              size unknown     1.0 MiB/s"},
        {TotalLine({&file}, totals, 79, now),
         "2 of 3 files done, 1 failed, 17.0 MiB, 1.0 MiB/s, 0:48 left"},
        {TotalLine({&file, &waiting}, totals, 19, now), "2 of 3 files done"},
        {TotalLine({&file}, Totals{.ended = 2, .more = true}, 79, now),
         "2 files done, 2 failed, 16.0 MiB, 1.0 MiB/s"},
    };
    for (const auto& [actual, expected] : rows) EXPECT_EQ(actual, expected);
}

TEST(DisplayLines, ASpeedIsSmoothed) {
    SmoothSpeed speed;
    const auto at = [](int seconds) { return Clock::time_point(std::chrono::seconds(seconds)); };
    EXPECT_LT(speed.At(at(9)), 0);
    speed.Note(1000, at(10));
    EXPECT_EQ(speed.At(at(11)), 1000);
    speed.Note(0, at(11));
    EXPECT_GT(speed.At(at(12)), 500);
    EXPECT_LT(speed.At(at(30)), 10);
}

TEST(DisplayPlain, TellsTheQuarters) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    PlainDisplay display(ends[1]);
    FileView file{.name = "f", .size = 2048, .speed = 1024};
    display.Started(file);
    for (const double percent : {24, 30, 49, 80, 90, 100}) {
        file.percent = percent;
        display.State(file, DOWNLOAD_STATE_PROGRESS, percent);
    }
    display.Ended(file, {EndResult::kFinished, EXIT_STATUS_FINISHED, "", 2048, 4});
    display.Ended(file, {EndResult::kFailed, EXIT_STATUS_FAILED, "why\n", 0, 1, 7});
    display.Finish({5, 1, 1, 1, 1, 4, 2048}, 1);
    char told[1000]{};
    EXPECT_GT(read(ends[0], told, sizeof told - 1), 0);
    EXPECT_STREQ(told,
                 "f: started\nf: 25 % of 2.0 KiB, 1.0 KiB/s\nf: 75 % of 2.0 KiB, 1.0 KiB/s\n"
                 "f: finished, 100 % of 2.0 KiB in 4.0 s, 512 B/s\n"
                 "f: failed: why\\x0a\n"
                 "1 of 5 files finished, 1 skipped, 1 failed, 1 stopped, 1 not begun\n");
    for (const int end : ends) close(end);
}

TEST(DisplayTop, AScreenOf80ColumnsShowsAllThatMatters) {
    TopView view{1, {{{}, 1234567, 35999}}};
    view.rows[0].task.id = "1f2e3d4c";
    view.rows[0].task.path = "/dir/a-name-of-some-length.iso.part";
    view.rows[0].task.nCmd = TASK_CMD_DOWNLOAD;
    view.rows[0].task.nPid = 1;
    view.rows[0].task.dFileSize = view.rows[0].task.dSpeed = 123456789;
    view.rows[0].task.dProgress = 99;
    const std::vector<std::string> table = TopTable(view, 79);
    EXPECT_EQ(table[0],
              "ID       STATE       DONE SPEED       AGE     PID     WORKER COMMAND  NAME");
    for (const std::string& line : table) EXPECT_LE(text::Width(line), 79) << line;
    view.rows.push_back(view.rows[0]);
    view.rows[0].task.id = "00162e6743fd5c5a";
    view.rows[1].task.id = "00162e6743fd5c5b";
    EXPECT_EQ(TopTable(view, 39)[1], "001...5a downloading 99 % a-nam...h.iso");
    // Narrower than the columns that always stay, and a name without a visible character.
    view.rows[0].task.path = "/dir/\u0301.part";
    EXPECT_EQ(TopTable(view, 19).size(), 3U);
}

// ---- The real command.

Reply Answer(const std::string& request, std::size_t /*number*/) {
    return Has(request, "/404") ? Reply::Status(404, "") : Reply::Ok("bytes");
}

TEST(DisplayJson, AProgramReadsEvents) {
    HttpServer server(Answer);
    CommandRun run;
    WriteFile(run.Path("list"), server.Url() + "\ta\xff\"\u00e4\n\xff\n" + server.Url("/404") +
                                    "\n" + server.Url("/old"));
    WriteFile(run.Path("old"), "abc");
    run.Start({"--json", "-j1", "--tries=1", "-s", "-ilist"});
    EXPECT_EQ(run.End(), "exit 1");
    EXPECT_EQ(run.Err(), "");
    const std::regex changing("\"(seconds|id)\":[^,]*,"), server_s(server.Url(""));
    std::set<std::string> events;
    std::istringstream lines(run.Out());
    for (std::string line; std::getline(lines, line);) {
        if (Has(line, "\"state\"")) continue;
        events.insert(std::regex_replace(std::regex_replace(line, changing, ""), server_s, "$"));
    }
    const std::set<std::string> expected{
        R"({"v":2,"event":"task","file":1,"address":"$/file","path":"a\ufffd\"\u00e4",)"
        R"("path_hex":"61ff22c3a4"})",
        R"({"event":"end","file":1,"result":"finished","code":3,"address":"$/file",)"
        R"("path":"a\ufffd\"\u00e4","path_hex":"61ff22c3a4","bytes":5,"reason":null,)"
        R"("message":null,"status":200,"retry_after":null,"size":5,"had":0,"received":5,)"
        R"("requests":1})",
        R"({"event":"end","file":2,"result":"refused","code":null,"address":"\ufffd",)"
        R"("address_hex":"ff","path":null,"bytes":0,"reason":null,)"
        R"("message":"not an http or https address","status":null,"retry_after":null,)"
        R"("size":null,"had":0,"received":0,"requests":0})",
        R"({"event":"task","file":3,"address":"$/404","path":"404"})",
        R"({"event":"end","file":3,"result":"failed","code":7,"address":"$/404","path":"404",)"
        R"("bytes":0,"reason":"http-status","message":"HTTP 404","status":404,)"
        R"("retry_after":null,"size":null,"had":0,"received":0,"requests":1})",
        R"({"event":"end","file":4,"result":"skipped","code":null,"address":"$/old",)"
        R"("path":"old","bytes":3,"reason":null,"message":"old exists already","status":null,)"
        R"("retry_after":null,"size":null,"had":0,"received":0,"requests":0})",
        R"({"event":"summary","files":4,"finished":1,"skipped":1,"unchanged":0,"failed":2,"stopped":0,)"
        R"("not_begun":0,"bytes":5,"exit":1})"};
    EXPECT_EQ(events, expected);
}

bool Matches(const std::string& text, const char* pattern) {
    return std::regex_search(text, std::regex(pattern));
}

TEST(DisplayForm, ACommandInTheBackgroundDrawsNoBars) {
    HttpServer server(Answer);
    ChildProcess shell;
    shell.Start({"/bin/sh", "-mc", TASKMAN_PATH " get " + server.Url() + " & wait"}, 80);
    EXPECT_EQ(shell.End(), "exit 0");
    EXPECT_TRUE(Has(shell.Err(), "file: finished"));
    EXPECT_FALSE(Has(shell.Err(), " done")) << shell.Err();
}

TEST(DisplayForm, IsTheOneThatIsWanted) {
    HttpServer server(Answer);
    const struct {
        const char* setting;
        int columns;  // 0: no terminal
        const char *option, *pattern, *never;
    } rows[] = {
        {"TERM=dumb", 30, "-f", "x: refused", "\x1b"},
        {"TERM=dumb", 30, "--progress=bar", "\x1b\\[K", "\x1b\\[31m|started"},
        {"NO_COLOR=1", 30, "--color=always", "\x1b\\[31m", "started"},
        {"NO_COLOR=", 30, "-f", "\x1b\\[31m", "started"},
        {"NO_COLOR=", 30, "--progress=plain", "good: started", "\x1b\\[K"},
        {"NO_COLOR=", 30, "-q", "\x1b\\[31mx: ref", "good|1 of 2|\x1b\\[K"},
        {"NO_COLOR=", 0, "-v", "good: task [^]*good: code 3: all", "\x1b|started"},
        {"NO_COLOR=", 0, "--progress=none", "good: finished", "\x1b|started"},
    };
    InParallel(std::size(rows), [&](std::size_t number) {
        const auto& row = rows[number];
        SCOPED_TRACE(std::string(row.setting) + " " + row.option);
        CommandRun run;
        run.environment.insert(run.environment.begin(), row.setting);
        run.Start({row.option, "x", server.Url("/good")}, row.columns);
        EXPECT_EQ(run.End(), "exit 2");
        EXPECT_TRUE(Matches(run.Err(), row.pattern)) << run.Err();
        EXPECT_FALSE(Matches(run.Err(), row.never)) << run.Err();
        EXPECT_EQ(run.Out(), "good\n");
        // A carriage return, too, begins a line anew.
        const std::regex steering("\x1b\\[[0-9;?]*[a-zA-Z]|\r\n?");
        std::istringstream lines(std::regex_replace(run.Err(), steering, "\n"));
        for (std::string line; std::getline(lines, line);) {
            EXPECT_TRUE(!Matches(run.Err(), "\x1b\\[K") || text::Width(line) < 30) << line;
        }
    });
}

}  // namespace
