#include "Tarnwick/videoinfo.h"

#include <gtest/gtest.h>

#include "Tarnwick/youtubeutility.h"
#include "common/stringutility.h"
#include "text_support.h"

using test_support::AssertionLine;

namespace {

// The lines of an information text, each ended by "|" instead of CR LF.
std::string Lines(std::string text) {
    return strutil::string_replace(text, "\r\n", "|");
}

class VideoPage : public testing::Test {
  protected:
    void SetUp() override {
        g_DefaultTitle = "abc";
        g_DefaultThumbnail = "http://t/abc.jpg";
    }
};

const std::string kTitleTag = "<meta property=\"og:title\" content=\"";
const std::string kDefault = "http://t/abc.jpg|";

TEST_F(VideoPage, TitleAndThumbnail) {
    const struct {
        const char* name;
        std::string page, lines;
    } rows[] = {
        {"nothing", "", "abc|" + kDefault + kDefault},
        {"decoded", kTitleTag + "Tom &amp; Jerry\">", "title=Tom & Jerry|" + kDefault},
        {"decoded once", kTitleTag + "&amp;lt;b&amp;gt;\">", "title=&lt;b&gt;|" + kDefault},
        {"plus", kTitleTag + "Rock + Roll\">", "title=Rock   Roll|" + kDefault},
        {"percent", kTitleTag + "100% pure\">", "title=100ure|" + kDefault},
        {"first form, then references", kTitleTag + "%26lt;\">", "title=<|" + kDefault},
        {"empty when decoded", kTitleTag + "%00\">", "title=|" + kDefault},
        {"empty tag", kTitleTag + "\">x", "abc|" + kDefault + kDefault},
        {"tag without end", kTitleTag + "x", "abc|" + kDefault + kDefault},
        {"heading", "title=\"no\"><span id=\"eow-title\" class=\"x\" title=\"My+video\">",
         "title=My video|" + kDefault + kDefault},
        {"heading without attribute", "title=\"no\"><span id=\"eow-title\">",
         "abc|" + kDefault + kDefault},
        {"heading without end", "\"><span id=\"eow-title\" title=\"x",
         "abc|" + kDefault + kDefault},
        {"tag before heading", "id=\"eow-title\" title=\"no\">" + kTitleTag + "yes\">",
         "title=yes|" + kDefault},
        {"thumbnail as found", "<meta property=\"og:image\" content=\"http://h/a&amp;b+%41\">",
         "abc|" + kDefault + "thumbnail_url=http://h/a&amp;b+%41|"},
        {"other case", "<META property=\"og:title\" content=\"x\">", "abc|" + kDefault + kDefault},
    };
    for (const auto& [name, page, lines] : rows) {
        EXPECT_EQ(Lines(ParseYoutubeInfo(page)), "status=ok|" + lines) << name;
    }
    EXPECT_TRUE(YOTUBE_DEFAULT_THUMBNAIL.starts_with("http://"));
    EXPECT_TRUE(YOTUBE_DEFAULT_THUMBNAIL.ends_with("/vi/%s/default.jpg"));
}

TEST_F(VideoPage, PlayerParameters) {
    const std::string page =
        kTitleTag +
        "T\"> <meta property=\"og:image\" content=\"I\">"
        "x&amp;timestamp=9&amp;length_seconds=8&amp;fmt_list=34/640x360,5/320x240&amp;fmt_url_map="
        "34|a%2C&amp;fmt_map=34/0&amp;url_encoded_fmt_stream_map=s+&amp;fmt_list=late&amp;";
    EXPECT_EQ(Lines(ParseYoutubeInfo(page)),
              "status=ok|title=T|thumbnail_url=I|url_encoded_fmt_stream_map=s+|fmt_map=34/0|"
              "fmt_url_map=34|a%2C|fmt_list=34/640x360,5/320x240|length_seconds=8|timestamp=9|");
    EXPECT_EQ(Lines(ParseYoutubeInfo("&amp;fmt_map=&amp;length_seconds=1&amp;timestamp=2")),
              "status=ok|abc|" + kDefault + kDefault + "length_seconds=1|")
        << "an empty one, and the last of the list";
}

TEST(Format, ClosestToASize) {
    const struct {
        int width, height;
        std::string list, id;
    } rows[] = {
        {640, 360, "34/640x360,5/320x240", "34"},
        {320, 240, "34/640x360,5/320x240", "5"},
        {480, 300, "34/640x360,5/320x240", "5"},
        {640, 360, "18/640x360,34/640x360", "18"},
        {-1, -1, "34/640x360,5/320x240,35/854x480", "5"},
        {320, 240, ", 34/640x360/9/0/115 ,\t5/320x240\n,", "5"},
        // Passed over: no size, no second number, no number.
        {1, 1, "1,2/,/3x3,,4/5,6/7x,8/axb,8/ax1,8/1xb,9/x,34/640x360", "34"},
        {1, 1, "9/ 2x+3y,8/-1x-7", "9"},
        // Areas of 32 bits: 50000 * 50000 is -1794967296, 65536 * 65536 is 0.
        {50000, 50000, "1/2x2,2/65536x32768", "2"},
        {65536, 65536, "1/1x1,2/4294967296x9,3/2x2", "2"},
        {50000, 50000, "1/50000x40000,2/1x1", "2"},
    };
    for (const auto& [width, height, list, id] : rows) {
        EXPECT_EQ(GetYoutubeVideoMapIDForSize(width, height, list), id) << width << " in " << list;
    }
}

struct Choice {
    const char* name;
    std::string text;  // "|" ends a line, as above
    bool last;
    std::string file, address;
};

const std::string kMap = "|fmt_url_map=35;http://a/1,34;http://a/2,5;http://a/3|";
const std::string kInfo = "status=ok|title=My: video?|fmt_list=35/854x480,34/640x360,5/320x240";

const Choice kChoices[] = {
    {"preferred", kInfo + kMap, false, "My video.flv", "http://a/1"},
    {"last", kInfo + kMap, true, "My video.flv", "http://a/3"},
    {"no list", "title=x" + kMap, false, "x.flv", "http://a/1"},
    {"not the order of the list", "fmt_list=5/1x1,34/1x1,22/1x1" + kMap, false, "-", "http://a/2"},
    {"none preferred", "fmt_map=22/1x1, 5x /9" + kMap, false, "-", ""},
    {"none preferred, last", "fmt_list=45/1,18|fmt_url_map=45;a,18;b", false, "-", "b"},
    {"list of nothing", "fmt_list=,/,|fmt_url_map=7;a,18;b", false, "-", "a"},
    {"first list that is not empty", "fmt_list=|fmt_map=34|fmt_list=35" + kMap, false, "-",
     "http://a/2"},
    {"entries that begin so", "fmt_list=3|fmt_url_map=3, 35;a;b,3;c", false, "-", "a"},
    {"trimmed", " title= a b |\t fmt_list=5 | fmt_url_map=5; x ,5;y", false, "a b.flv", " x"},
    {"the last that gives a value", "title=a|title=b|title=|fmt_url_map=1;x|fmt_url_map=1", false,
     "b.flv", "x"},
    {"no entry", "title=t|fmt_list=34|fmt_url_map=5;x", false, "t.flv", ""},
    {"no map", "video_id=1|title=<>", false, ".flv", ""},
    {"other streams", "url_encoded_fmt_stream_map=5;x", false, "-", ""},
    {"failed", "status=fail|" + kInfo + kMap, false, "-", ""},
    {"failed behind", kInfo + kMap + " status=fail ", false, "-", ""},
    {"other status", "status=failed|status= fail|status=fail x|title=a" + kMap, false, "a.flv",
     "http://a/1"},
};

TEST(Format, AddressAndFileName) {
    for (const auto& [name, text, last, file, address] : kChoices) {
        SCOPED_TRACE(name);
        std::string lines = text;
        strutil::string_replace(lines, "|", "\r\n");
        strutil::string_replace(lines, ";", "|");
        std::string fileName = "-";
        std::string downloadUrl = "-";
        EXPECT_EQ(ParseYoutubeVideoInfo(lines, last, fileName, downloadUrl), address);
        EXPECT_EQ(fileName, file);
        EXPECT_EQ(downloadUrl, address.empty() ? "-" : address);
    }
}

TEST(FormatDeath, BrokenPreconditions) {
    const auto line = [](const char* function, const char* expression) {
        return AssertionLine(expression, function, "Src/Tarnwick/youtubeutility");
    };
    const struct {
        const char *list, *expression;
    } rows[] = {
        {"", "0 < strfmtmap.length()"},
        {",,", "0 < vecfmtmap.size()"},
        {"34,5/x", "0 < strfmtID.length()"},
    };
    for (const auto& [list, expression] : rows) {
        EXPECT_DEATH(GetYoutubeVideoMapIDForSize(1, 1, list),
                     line("GetYoutubeVideoMapIDForSize", expression));
    }
    std::string out;
    EXPECT_DEATH(ParseYoutubeVideoInfo("\r\n\n", true, out, out),
                 line("ParseYoutubeVideoInfo", "0"));
}

}  // namespace
