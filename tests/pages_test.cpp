// What the worker reads: pages, information texts, files of logins.
#include "Tarnwick/netrc.h"
#include "Tarnwick/videoinfo.h"
#include "Tarnwick/youtubeutility.h"
#include "common/stringutility.h"
#include "support/helpers.h"

using namespace test_support;

namespace {

// In the texts of the rest "|" ends a line, and ";" stands for "|".
std::string Scrape(const std::string& page) {
    g_DefaultTitle = "abc";
    g_DefaultThumbnail = "default.jpg";
    std::string text = ParseYoutubeInfo(page);
    return strutil::string_replace(text, "\r\n", "|");
}

TEST(Page, IsScraped) {
    const std::string tag = "<meta property=\"og:title\" content=\"";
    const std::string nothing = "status=ok|abc|default.jpg|default.jpg|";
    EXPECT_EQ(Scrape(tag + "Rock + Roll &amp; &amp;lt;%26lt; 100% pure\">"),
              "status=ok|title=Rock   Roll & &lt;< 100ure|default.jpg|");
    EXPECT_EQ(Scrape(tag + "x"), nothing);
    EXPECT_EQ(Scrape("title=\"no\"><span id=\"eow-title\" class=\"x\" title=\"My+video\">"),
              "status=ok|title=My video|default.jpg|default.jpg|");
    EXPECT_EQ(Scrape("<meta property=\"og:image\" content=\"http://h/a&amp;b+%41\">"),
              "status=ok|abc|default.jpg|thumbnail_url=http://h/a&amp;b+%41|");
    EXPECT_EQ(Scrape("&amp;timestamp=9&amp;length_seconds=8&amp;fmt_list=5/3x2&amp;fmt_url_map="
                     "&amp;url_encoded_fmt_stream_map=s+&amp;fmt_list=late&amp;fmt_map=5"),
              nothing + "url_encoded_fmt_stream_map=s+|fmt_list=5/3x2|length_seconds=8|" +
                  "timestamp=9|");
}

TEST(Format, IsTheClosestToASize) {
    const struct {
        int width, height;
        const char *list, *id;
    } rows[] = {
        {480, 300, "34/640x360,5/320x240", "5"},
        {640, 360, "18/640x360,34/640x360", "18"},
        {-1, -1, "34/640x360/9 ,\t5/320x240\n,", "5"},
        {1, 1, "1,2/,/3x3,,6/7x,8/x2,9/640x360", "9"},
        {1, 1, "7/640x360,8/axb", "8"},
        {1, 1, "5/wx240", "5"},
        // Areas have 32 bits: 50000 * 50000 is -1794967296.
        {50000, 50000, "1/50000x40000,2/1x1", "2"},
    };
    for (const auto& [width, height, list, id] : rows) {
        EXPECT_EQ(GetYoutubeVideoMapIDForSize(width, height, list), id) << list;
    }
}

// The file name and the address that are found; "-" is what stood there before.
std::string Read(std::string text, bool last = false) {
    strutil::string_replace(text, "|", "\r\n");
    strutil::string_replace(text, ";", "|");
    std::string name = "-";
    std::string address = "-";
    const std::string result = ParseYoutubeVideoInfo(text, last, name, address);
    EXPECT_EQ(result.empty() ? "-" : result, address);
    return name + " " + address;
}

TEST(Format, GivesAddressAndFileName) {
    const std::string map = "|fmt_url_map=35;http://a/1,34;http://a/2,5;http://a/3|";
    const std::string info = "status=ok|title=My: video?|fmt_list=35/9x9,34/9x9,5/9x9" + map;
    EXPECT_EQ(Read(info), "My video.flv http://a/1");
    EXPECT_EQ(Read(info, true), "My video.flv http://a/3");
    EXPECT_EQ(Read(info + " status=fail "), "- -");
    EXPECT_EQ(Read(map), "- http://a/1");
    EXPECT_EQ(Read("fmt_list=45/1,18|fmt_url_map=45;a,18;b"), "- b");
    EXPECT_EQ(Read("fmt_list= 22/1, 5/1, 18/1 " + map), "- http://a/3");
    EXPECT_EQ(Read("fmt_list=|fmt_map=34|fmt_list=35" + map), "- http://a/2");
    EXPECT_EQ(Read("fmt_list=3|fmt_url_map=3, 35;a;b,3;c"), "- a");
    EXPECT_EQ(Read("title=a| title= b |title=|fmt_url_map=1; x|fmt_url_map=1"), "b.flv  x");
    EXPECT_EQ(Read("title=<>|fmt_list=34|fmt_url_map=5;x"), ".flv -");
}

TEST(Netrc, TellsTheLoginOfAHost) {
    const std::string rest = "machine other login o password x\n";
    const struct {
        std::string text, login;
    } rows[] = {
        {"machine h login u password p", "u p"},
        {rest + "machine H\n\tpassword p\r\n\taccount a login u\n" + rest, "u p"},
        {"default login d password p\nmachine h login u password p", "d p"},
        {"machine h login u password p default login d", "u p"},
        {rest + "default login d", "d "},
        {"machine h login \"u \\\"v\" password #1", "u \"v #1"},
        {"# machine h login u\n" + rest, " "},
        {"macdef m\nmachine h login u\n\nmachine h login v password p", "v p"},
        {"machine h password p", " p"},
        {"machine h login", " "},
        {"machine", " "},
        {"machine h login \"u", "u "},
        {"", " "},
    };
    for (const auto& [text, login] : rows) {
        std::string user = "before", password;
        FindLogin(text, "h", user, password);
        EXPECT_EQ(user.append(" ").append(password), login) << text;
    }
}

}  // namespace
