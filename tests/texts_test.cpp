// The functions on texts that the manager and its workers share: names, codecs, addresses.
#include <cctype>
#include <stdexcept>

#include "common/address.h"
#include "common/httputility.h"
#include "common/stringutility.h"
#include "common/sysutility.h"
#include "support/helpers.h"

using namespace sysutility;
using namespace test_support;

namespace {

TEST(Texts, AreBounded) {
    char buffer[9] = "########";
    EXPECT_EQ(memcopy(buffer, "abcdefghij", 8, 7), buffer);
    EXPECT_EQ(memcopy(buffer, "xyz", 8, 2), buffer);
    EXPECT_EQ(std::string(buffer, 9), std::string("xy\0defg\0\0", 9));
    EXPECT_EQ(strutil::vsnpf(buffer, 8, "%s", "abcdefghij"), 10);
    EXPECT_EQ(std::string(buffer, 9), std::string("abcdef\0\0\0", 9));
    EXPECT_DEATH(memcopy(buffer, "12345678", 8, 8),
                 AssertionLine("false", "memcopy", "common/sysutility"));
}

// Each text behind a "|".
std::string Joined(const std::vector<std::string>& texts) {
    std::string all;
    for (const std::string& text : texts) all += '|' + text;
    return all;
}

// The result and what was added to a list that held "old".
std::string Split(const std::string& input, const std::string& delimiter, bool includeEmpties) {
    std::vector<std::string> results{"old"};
    const int count = strutil::SplitString(input, delimiter, results, includeEmpties);
    return std::to_string(count) + Joined(results);
}

std::string Replaced(std::string text, const std::string& from, const std::string& to) {
    const std::string result = strutil::string_replace(text, from, to);
    return result == text ? text : "another text";
}

TEST(Texts, AreTrimmedSplitReplacedAndDecoded) {
    const std::pair<std::string, std::string> rows[] = {
        {MakeFileName("  clip.mp4 "), "clip.mp4"},
        {MakeFileName("a\\/:*?\"<>|b"), "ab"},
        {MakeFileName("a.b..\xE9\x01"), "a.b..\xE9\x01"},
        {MakeFileName(" \t\r\n"), ""},
        {IncludeTrailingPathDelimiter("/tmp") + IncludeTrailingPathDelimiter(""), "/tmp//"},
        {IncludeTrailingPathDelimiter("/tmp/"), "/tmp/"},
        {ExcludeTrailingPathDelimiter("/tmp//") + ExcludeTrailingPathDelimiter("a"), "/tmp/a"},
        {GetFileNameForUrl("http://h/a/v?x=1#y "), "v?x=1#y"},
        {GetFileNameForUrl("/tmp/") + GetFileNameForUrl("abc"), ""},
        {strutil::trimLeft("\t a b \r\n"), "a b \r\n"},
        {strutil::trimRight("\t a b \r\n"), "\t a b"},
        {strutil::trim(" \v\xA0 x \f "), "\v\xA0 x \f"},
        {strutil::trimLeft(" ") + strutil::trimRight(" "), ""},
        {strutil::getContent("title=Hello", "title="), "Hello"},
        {strutil::getContent("a=1&b=2&b=3", "b=") + strutil::getContent("abc", "x"), "2&b=3"},
        {strutil::toString(true) + strutil::toString(false), "truefalse"},
        {Joined(strutil::split(",a;b\xE9;", ",;\xE9")), "|a|b"},
        {Split("a,,b,", ",", true), "4|a||b|"},
        {Split("a,,b,", ",", false), "2|a|b"},
        {Split("<>a<>>b", "<>", true), "3||a|>b"},
        {Split("abc", ",", true) + Split("abc", "", true), "0|old0|old"},
        {Replaced("aaaa", "aa", "a"), "aa"},
        {Replaced("aaaa", "a", "aa"), "aaaaaaaa"},
        {Replaced("aaaa", "", "x"), "aaaa"},
        {Replaced("-a--b-c", "-", "<->"), "<->a<-><->b<->c"},
        {HttpUtility::HtmlDecode("a+b%20c%2Fd%E9%e9%00%2541"), "a b c/d\xE9\xE9%41"},
        {HttpUtility::UrlDecode("%zz%g1%1g%%4%4"), "\x01\x10\x04"},
        {HttpUtility::HtmlEncode("a b-c\n.\xE9"), "a%20b%2dc%0a%2e%e9"},
        {HttpUtility::UrlEncode("/09:@AZ[`az{"), "%2f09%3a%40AZ%5b%60az%7b"},
        {HttpUtility::HtmlEntityDecode("b&#39;a&#x27;&amp;4&&&lt;7&apos;A&quot;D&gt;G"),
         "b'a'&4&&<7'A\"D>G"},
        {HttpUtility::HtmlEntityDecode("&amp;lt;&#38;gt;&AMP;&#233;"), "&lt;&gt;&AMP;\xE9"},
        {HttpUtility::HtmlEntityDecode("&#65&#x41&amp"), "&#65&#x41&amp"},
        {HttpUtility::HtmlEntityDecode("&# +65x;&#x;&#;&#X41;"), std::string("A\0\0\0", 4)},
    };
    for (const auto& [actual, expected] : rows) EXPECT_EQ(actual, expected);
}

TEST(Addresses, HaveOneOrigin) {
    const struct {
        const char *one, *other;
        bool same;
    } rows[] = {
        {"http://h/a?b", "HTTP://H:80#c", true},   {"http://h", "http://u:p@h/", true},
        {"https://h:443", "https://h", true},      {"http://[::1]:8/", "http://[::1]:8", true},
        {"http://h", "http://h/@other/", true},    {"http://h", "https://h", false},
        {"http://h", "http://h:8", false},         {"https://h:80", "http://h:80", false},
        {"http://h", "http://x.h", false},         {"http://h", "http://h@x/", false},
        {"http://h", "http://h\\@x/", false},      {"http://[::1]", "http://[::1]:8", false},
        {"http:///h", "http:///x", false},         {"ftp://h", "ftp://h", false},
        {"http://h", "http://x/?http://h", false}, {"", "", false},
    };
    for (const auto& [one, other, same] : rows) {
        EXPECT_EQ(SameOrigin(one, other), same) << one << " " << other;
        EXPECT_EQ(SameOrigin(other, one), same) << one << " " << other;
    }
}

TEST(Addresses, LoseTheirLogins) {
    const std::string at = "\"@\" in a user or password must be written %40";
    const struct {
        std::string address, rest, user, password, fault = "";
    } rows[] = {
        {"http://h/a@b", "http://h/a@b", "-", "-"},
        {"HTTPS://joe:s%40%3a:%2@h:1/a@b", "HTTPS://h:1/a@b", "joe", "s@::%2"},
        {"http://joe@h?x", "http://h?x", "joe", ""},
        {"http://@h", "http://h", "-", "-"},
        {"http:///joe:secret@h/", "http:///h/", "joe", "secret"},
        {"joe:secret@h/://x@y", "h/://x@y", "joe", "secret"},
        {"ftp://joe:se@cret@h", "ftp://h", "-", "-", at},
        {"http://:secret@h", "http://h", "-", "-", "the address holds a password without a user"},
    };
    for (const auto& row : rows) {
        std::string address = row.address, user = "-", password = "-";
        EXPECT_EQ(TakeLogin(address, user, password), row.fault) << row.address;
        EXPECT_EQ(address, row.rest);
        EXPECT_TRUE(user == row.user && password == row.password) << row.address;
    }
}

TEST(Texts, AreRecognised) {
    for (const char* name : {".hidden", "a|b", " \t\r\n"})
        EXPECT_FALSE(CheckFileName(name)) << name;
    EXPECT_TRUE(CheckFileName("  clip.mp4 ") && CheckFileName("a.b..\xE9\x01"));
    EXPECT_TRUE(strutil::endsWith("abcbc", "bc") && !strutil::endsWith("bca", "bc"));
    EXPECT_TRUE(strutil::IsNum("0179", false) && strutil::IsNum("1.5", true));
    EXPECT_FALSE(strutil::IsNum("1.5", false));
    for (const char* text : {"1.", ".1", "1.2.3", "-1", " 1", "1e5", "1\xB2", "1,5"}) {
        EXPECT_FALSE(strutil::IsNum(text, true)) << text;
    }
    EXPECT_THROW(strutil::IsNum("", true), std::invalid_argument);
    strutil::Tokenizer tokens("  a\t b,c \r\n");
    EXPECT_TRUE(tokens.nextToken() && tokens.getToken() == "a" && tokens.m_offset == 3);
    EXPECT_TRUE(tokens.nextToken(",") && tokens.getToken() == "\t b");
    EXPECT_TRUE(tokens.nextToken() && !tokens.nextToken() && tokens.getToken() == ",c");
    tokens.reset();
    EXPECT_TRUE(tokens.nextToken() && tokens.getToken() == "a");
}

TEST(Texts, HoldHexadecimalDigits) {
    for (const auto& [digit, stored] :
         {std::pair('7', "7"), {'b', "11"}, {'F', "15"}, {'G', "G"}, {'\xE9', "\xE9"}}) {
        char buffer[4] = {digit, '\0', '#'};
        EXPECT_EQ(HttpUtility::getAsDec(buffer), digit == '\xE9' ? 0xE9 : std::tolower(digit));
        EXPECT_STREQ(buffer, stored);
    }
    EXPECT_EQ(HttpUtility::convertToDec("1zfF") + HttpUtility::convertToDec(""), 0x10FF);
    EXPECT_EQ(HttpUtility::convertToDec("123456789abcdef0"), static_cast<int>(0x9abcdef0));
}

}  // namespace
