// Video pages in the command: `taskman info`, and `taskman get` with a wish for a format. The site
// is a scripted server that the workers reach as an HTTP proxy.
#include "Console/info.h"

#include <gtest/gtest.h>

#include <csignal>
#include <iterator>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>

#include "Console/filename.h"
#include "Console/text.h"
#include "support/command_run.h"
#include "support/helpers.h"
#include "support/http_server.h"

using namespace test_support;

namespace {

const std::string kSite = "http://www.youtube.com/";

// A form's value, encoded to the last byte.
std::string Encoded(const std::string& value) {
    std::string encoded;
    for (const char byte : value) {
        constexpr const char* kDigits = "0123456789ABCDEF";
        const auto code = static_cast<unsigned char>(byte);
        encoded += {'%', kDigits[code >> 4], kDigits[code & 15]};
    }
    return encoded;
}

std::string Media(const std::string& format) {
    return TestBytes(1000 + static_cast<std::size_t>(std::stoi(format)));
}

// The formats of all videos. 22 is listed without an address, 18 has one without being listed.
const std::string kMaps =
    "&length_seconds=83&fmt_list=" + Encoded("22/1280x720,5/320x240/9,34/640x360") +
    "&fmt_url_map=" +
    Encoded("5|" + kSite + "media/5,34|" + kSite + "media/34,18|" + kSite +
            "media/18,17|ftp://host/17,13|" + kSite + std::string(1024, 'x'));

std::string Service(const std::string& title) {
    return "status=ok&thumbnail_url=http%3A%2F%2Fp%2F1&title=" + Encoded(title) + kMaps;
}

// What the service answers for a video; "status=fail" and nothing lead to the page.
const std::map<std::string, std::string> kService = {
    {"plain", Service("My: video?")},
    {"long", Service(std::string(244, 'a') + "\u00e4" + std::string(300, 'a'))},
    {"dot", Service("..profile")},
    {"lines", Service("a\r\nb=c\r\n")},
    {"escape", Service("\x1b[2J\x9bH\xc2\x9b\x7f.x")},
    {"page", "status=fail"},
    {"bare", ""},
    {"1", Service("1")},
    {"2", Service("2")},
    {"mapless", "status=ok&title=x&url_encoded_fmt_stream_map=y"},
    {"empty", "status=ok&fmt_list=%2C%2F%2C&fmt_url_map=%7C%2C"},
    {"huge", Service(std::string(20000, 'x'))},
};

HttpServer& Site() {
    static HttpServer server([](const std::string& request, std::size_t) {
        const std::string path =
            request.substr(4 + kSite.size(), request.find(" HTTP") - 4 - kSite.size());
        const std::string last = path.substr(path.find_last_of("=/") + 1);
        if (path.starts_with("media/")) return Reply::Ok(Media(last));
        if (last == "silent") return Reply().Silence();
        const std::string title = "<meta property=\"og:title\" content=\"T &amp; U\">";
        const std::string player = std::regex_replace(kMaps, std::regex("&"), "&amp;") + "&amp;";
        if (path == "watch?v=page") return Reply::Ok(title + player);
        if (path == "watch?v=bare") return Reply::Ok(player);
        return kService.count(last) == 0 ? Reply::Status(404, "") : Reply::Ok(kService.at(last));
    });
    return server;
}

// Begins `command`, a verb and its arguments; "@ID" stands for the page of a video.
std::unique_ptr<CommandRun> Begin(const std::string& command) {
    std::istringstream words(command);
    std::string word;
    words >> word;
    auto run = std::make_unique<CommandRun>(word);
    std::vector<std::string> arguments{"-x127.0.0.1:" + std::to_string(Site().Port())};
    while (words >> word) {
        arguments.push_back(word[0] == '@' ? kSite + "watch?v=" + word.substr(1) : word);
    }
    run->Start(arguments);
    return run;
}

TEST(InfoName, IsSafeWhateverTheTitleSays) {
    const std::string a244(244, 'a');
    const std::map<std::string, std::string> names = {
        {"", "download"},
        {" \t", "download"},
        {"\\/:*?\"<>|", "download"},
        {".\x01.", "download"},
        {"\x01 \x7f", "download"},
        {"../..profile", "profile"},
        {"\x1b[2Jx\xff", "[2Jx_"},
        {std::string(300, 'a'), a244 + "a"},
        {a244 + "\u00e4", a244},
    };
    for (const auto& [title, name] : names) EXPECT_EQ(NameFromTitle(title), name + ".flv") << title;
}

TEST(InfoPage, IsReadWhateverItsTextSays) {
    for (const char* text :
         {"", "\r\n", " \r\n \t", "fmt_list=", "fmt_list=/,,x\r\nfmt_url_map=|||,",
          "fmt_list=5/x240,6/99999999999999x1\r\nfmt_url_map=5,6|",
          "title= ", "length_seconds=-1\r\nstatus=fail\r\ntitle=x\r\nfmt_url_map=5|a"}) {
        const VideoPage page = ReadVideoPage(text);
        EXPECT_EQ(Choose(page, {}), nullptr) << text;
        EXPECT_EQ(Choose(page, {"", 640, 360}), nullptr) << text;
        EXPECT_FALSE(page.length) << text;
    }
    const VideoPage page = ReadVideoPage(
        "fmt_map=18/1x1,5/640x360,22/320x240\r\nfmt_url_map=22|a,5|b,5|c\r\nfmt_url_map=18|d\r\n");
    const std::pair<FormatWish, const char*> rows[] = {
        {{}, "b"}, {{"22"}, "a"}, {{"18"}, "d"}, {{"", 1, 1}, "d"}, {{"", 600, 300}, "b"},
    };
    for (const auto& [wish, address] : rows) {
        ASSERT_NE(Choose(page, wish), nullptr) << address;
        EXPECT_EQ(Choose(page, wish)->address, address);
    }
    EXPECT_EQ(Choose(page, {"2"}), nullptr);
}

TEST(Info, EveryCommandEndsAsItsPageAllows) {
    const std::string media = kSite + "media/";
    struct Row {
        const char* command;
        const char* end;
        std::string says;  // on standard output when info succeeds, else on standard error
        std::string files = "";
        const char* format = nullptr;  // whose bytes the file holds
    } rows[] = {
        {"info @plain", "exit 0",
         "Title   My: video?\nLength  1:23\n\nID  Frame\n22  1280x720  no address\n5   320x240\n"
         "34  640x360   taken\n18  unknown\n17  unknown\n13  unknown\n"},
        {"info @bare", "exit 0", "Title   bare\nLength  1:23\n"},
        {"info @escape", "exit 0", "Title   \\x1b[2J\\x9bH\\xc2\\x9b\\x7f.x\n"},
        {"info @mapless", "exit 0", "Length  unknown\nNo formats.\n"},
        {"info @plain --size 300x200", "exit 0", "5   320x240   taken\n34  640x360\n"},
        {"info @plain --size 1280x720 --url", "exit 0", media + "34\n"},
        {"info @empty --size=1x1", "exit 4", "no such format"},
        {"info @unknown", "exit 4", "the page was not resolved"},
        {"info @huge", "exit 4", "too long"},
        {"info http://host/x\x1b", "exit 2", "host/x\\x1b: refused"},
        {"info http://host/?v=x", "exit 4", "not a page of " + kSite},
        {"info @plain --worker=/bin/true", "exit 1", "died"},
        {"info @plain --size 32768x1", "exit 2", "--size"},
        {"info", "exit 2", "taskman info --help"},
        {"get --size=640x360 @plain", "exit 0", "finished", "My video.flv", "34"},
        {"get --format=18 @page", "exit 0", "finished", "T & U.flv", "18"},
        {"get --format=5 @bare -ox", "exit 0", "finished", "x", "5"},
        {"get --format=5 @lines", "exit 0", "finished", "a.flv", "5"},
        {"get --format=5 @long", "exit 0", "finished", std::string(244, 'a') + ".flv", "5"},
        {"get --format=5 @escape", "exit 0", "finished", "[2J_H.x.flv", "5"},
        {"get -j8 --format=5 @plain @page @bare @dot @lines @escape @1 @2", "exit 0", "finished",
         "1.flv 2.flv My video.flv T & U.flv [2J_H.x.flv a.flv bare.flv profile.flv"},
        {"get -j1 --format=5 @dot @plain @dot", "exit 3", "another URL",
         "My video.flv profile.flv"},
        {"get --format=22 @plain", "exit 4", "no such format"},
        {"get --size=1x1 @empty", "exit 4", "no such format"},
        {"get --format=17 @plain", "exit 2", "not an http"},
        {"get --format=13 @plain", "exit 2", "longer than 1023"},
        {"get --format=5 --size=1x1 @plain", "exit 2", "excludes"},
        {"get --format=5 --worker=/bin/true @plain", "exit 1", "died"},
    };
    text::UseUtf8();
    const auto look = [&rows](std::size_t number) {
        const Row& row = rows[number];
        SCOPED_TRACE(row.command);
        const auto run = Begin(row.command);
        EXPECT_EQ(run->End(), row.end) << run->Err();
        const bool info = row.command[0] == 'i';
        const bool told = info && row.end == std::string("exit 0");
        const std::string& said = told ? run->Out() : run->Err();
        EXPECT_NE(said.find(row.says), std::string::npos) << said;
        EXPECT_EQ(run->Files(), row.files);
        if (row.format != nullptr) {
            EXPECT_EQ(ReadFile(run->Path(row.files)), Media(row.format));
        }
        std::istringstream lines(said);
        for (std::string line; std::getline(lines, line);) {
            EXPECT_EQ(line, text::Printable(line));
            EXPECT_TRUE(!told || text::Width(line) <= 80) << line;
        }
        EXPECT_EQ(run->SharedNames(), std::vector<std::string>());
    };
    InParallel(std::size(rows), look, 8);
}

TEST(Info, IsReadByPrograms) {
    const auto run = Begin("info @escape --json --size 640x360");
    ASSERT_EQ(run->End(), "exit 0") << run->Err();
    for (const char c : run->Out()) EXPECT_TRUE((c >= ' ' && c < 0x7F) || c == '\n');
    const auto page = nlohmann::json::parse(run->Out());
    EXPECT_EQ(page["title"], "\x1b[2J\ufffdH\u009b\x7f.x");
    EXPECT_EQ(page["length_seconds"], 83);
    EXPECT_EQ(page["thumbnail_url"], "http://p/1");
    EXPECT_EQ(page["formats"][2], nlohmann::json::parse(R"({"id": "34", "width": 640, "height": 360,
        "url": "http://www.youtube.com/media/34", "taken": true})"));
    EXPECT_EQ(page["formats"][0]["url"], nullptr);
    EXPECT_EQ(page["formats"][5]["width"], nullptr);
}

TEST(Info, InterruptedItLeavesNothing) {
    InParallel(6, [](std::size_t number) {
        SCOPED_TRACE(number);
        const int signal = number % 2 == 0 ? SIGINT : SIGTERM;
        const auto run = Begin(number < 3 ? "info @silent" : "get --format=5 @silent");
        ASSERT_GT(run->Worker(), 0);
        run->Signal(signal);
        ASSERT_TRUE(run->Says("(again: end now)\n"));
        if (number % 3 == 2) run->Signal(signal);
        EXPECT_EQ(run->End(), "signal " + std::to_string(signal));
        EXPECT_EQ(run->Out() + run->Files(), "");
        EXPECT_EQ(run->SharedNames(), std::vector<std::string>());
    });
}

}  // namespace
