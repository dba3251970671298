// Texts and codecs. The fuzz targets compare the decoders with models.
#include <gtest/gtest.h>

#include <cctype>
#include <stdexcept>
#include <type_traits>

#include "common/httputility.h"
#include "common/stringutility.h"

using strutil::Tokenizer;
using Strings = std::vector<std::string>;

static_assert(!std::is_polymorphic_v<Tokenizer>);

namespace {

TEST(Strings, TrimContentAndSuffix) {
    EXPECT_EQ(strutil::trimLeft("\t a b \r\n"), "a b \r\n");
    EXPECT_EQ(strutil::trimRight("\t a b \r\n"), "\t a b");
    EXPECT_EQ(strutil::trim(" \v\xA0 x \f "), "\v\xA0 x \f");
    EXPECT_EQ(strutil::trimLeft(" ") + strutil::trimRight(" "), "");
    EXPECT_EQ(strutil::getContent("title=Hello", "title="), "Hello");
    EXPECT_EQ(strutil::getContent("a=1&b=2&b=3", "b="), "2&b=3");
    EXPECT_EQ(strutil::getContent("abc", "x"), "");
    EXPECT_TRUE(strutil::endsWith("abcbc", "bc"));
    EXPECT_FALSE(strutil::endsWith("bca", "bc"));
}

TEST(Strings, Numbers) {
    EXPECT_TRUE(strutil::IsNum("007", false));
    EXPECT_TRUE(strutil::IsNum("1.5", true));
    EXPECT_FALSE(strutil::IsNum("1.5", false));
    for (const char* text : {"1.", ".1", "1.2.3", "-1", " 1", "1e5", "1\xB2", "1,5"}) {
        EXPECT_FALSE(strutil::IsNum(text, true)) << text;
    }
    try {
        strutil::IsNum("", true);
        ADD_FAILURE() << "nothing thrown";
    } catch (const std::invalid_argument& error) {
        EXPECT_STREQ(error.what(), "Argument str is error for IsNum function!");
    }
    EXPECT_EQ(strutil::toString(true) + strutil::toString(false), "truefalse");
}

TEST(Strings, BoundedFormat) {
    char buffer[9] = "########";
    EXPECT_EQ(strutil::vsnpf(buffer, 8, "%s", "abcdefghij"), 10);
    EXPECT_EQ(std::string(buffer, 9), std::string("abcdef\0\0\0", 9));
}

TEST(Strings, Tokens) {
    Tokenizer tokens("  a\t b,c \r\n");
    EXPECT_TRUE(tokens.nextToken() && tokens.getToken() == "a");
    EXPECT_EQ(tokens.m_offset, 3u);
    EXPECT_TRUE(tokens.nextToken(",") && tokens.getToken() == "\t b");
    EXPECT_TRUE(tokens.nextToken() && tokens.getToken() == ",c");
    EXPECT_TRUE(!tokens.nextToken() && tokens.getToken() == ",c");
    EXPECT_EQ(tokens.m_offset, tokens.m_string.size());
    tokens.reset();
    EXPECT_TRUE(tokens.nextToken() && tokens.getToken() == "a");
    EXPECT_EQ(strutil::split(",a;b\xE9;", ",;\xE9"), (Strings{"a", "b"}));
}

TEST(Strings, SplitAtATextAndReplace) {
    const Strings old{"kept", "longer than a string holds in itself,b,,c,"};
    const auto split = [&old](const char* input, const char* delimiter, bool includeEmpties) {
        Strings results = old;
        const int count = strutil::SplitString(input, delimiter, results, includeEmpties);
        EXPECT_EQ(count, results == old ? 0 : std::ssize(results));
        return results;
    };
    EXPECT_EQ(split("a,,b,", ",", true), (Strings{"a", "", "b", ""}));
    EXPECT_EQ(split("a,,b,", ",", false), (Strings{"a", "b"}));
    EXPECT_EQ(split("<>a<>>b", "<>", true), (Strings{"", "a", ">b"}));
    EXPECT_EQ(split("abc", ",", true), old);
    EXPECT_EQ(split("abc", "", true), old);
    Strings results = old;
    EXPECT_EQ(strutil::SplitString(results[1], ",", results, false), 3);
    EXPECT_EQ(results, (Strings{"longer than a string holds in itself", "b", "c"}));

    std::string text = "aaaa";
    EXPECT_EQ(strutil::string_replace(text, "aa", "a"), "aa");
    EXPECT_EQ(strutil::string_replace(text, "a", "aa"), "aaaa");
    EXPECT_EQ(strutil::string_replace(text, "", "x"), "aaaa");
    EXPECT_EQ(text, "aaaa");
    text = "-a--b-c";
    EXPECT_EQ(strutil::string_replace(text, "-", "<->"), "<->a<-><->b<->c");
}

TEST(Codecs, Texts) {
    EXPECT_EQ(HttpUtility::HtmlDecode("a+b%20c%2Fd%E9%e9%00%2541"), "a b c/d\xE9\xE9%41");
    EXPECT_EQ(HttpUtility::UrlDecode("%zz%g1%1g%%4%4"), "\x01\x10\x04");
    EXPECT_EQ(HttpUtility::HtmlEncode("a b-c\n.\xE9"), "a%20b%2dc%0a%2e%e9");
    EXPECT_EQ(HttpUtility::UrlEncode("/"), "%2f");
    const auto decode = [](const char* text) { return HttpUtility::HtmlEntityDecode(text); };
    EXPECT_EQ(decode("bbb&#39;aaa&#x27;123&amp;456&&&lt;789&apos;ABC&quot;DEF&gt;GHI"),
              "bbb'aaa'123&456&&<789'ABC\"DEF>GHI");
    EXPECT_EQ(decode("&amp;lt;&#38;gt;&AMP;"), "&lt;&gt;&AMP;");
    EXPECT_EQ(decode("&#65&#x41&amp"), "&#65&#x41&amp");
    EXPECT_EQ(decode("&#233;&#8217;&#x2019;"), "\xE9\x19\x19");
    EXPECT_EQ(decode("&# +65x;&#x;&#;&#X41;"), std::string("A\0\0\0", 4));
}

TEST(Codecs, Digits) {
    std::string ordinary;
    for (int byte = 0; byte < 256; ++byte) {
        const auto c = static_cast<char>(byte);
        if (HttpUtility::isOrdinaryChar(c)) ordinary += c;
    }
    EXPECT_EQ(ordinary, "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz");
    for (const auto& [digit, stored] :
         {std::pair('7', "7"), {'b', "11"}, {'F', "15"}, {'G', "G"}, {'\xE9', "\xE9"}}) {
        char buffer[4] = {digit, '\0', '#'};
        EXPECT_EQ(HttpUtility::getAsDec(buffer), digit == '\xE9' ? 0xE9 : std::tolower(digit));
        EXPECT_STREQ(buffer, stored);
    }
    EXPECT_EQ(HttpUtility::convertToDec(""), 0);
    EXPECT_EQ(HttpUtility::convertToDec("1zfF"), 0x10FF);
    EXPECT_EQ(HttpUtility::convertToDec("123456789abcdef0"), static_cast<int>(0x9abcdef0));
}

}  // namespace
