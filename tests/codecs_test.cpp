#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>

#include "common/httputility.h"
#include "fuzz/models.h"
#include "text_support.h"

using test_support::AllBytes;
using test_support::RandomTexts;

namespace {

using Codec = std::string (*)(std::string);

TEST(Codecs, Answers) {
    const std::string nul(1, '\0'), one = "1", a = "A";
    const struct {
        const char* name;
        Codec codec;
        std::string text, result;
    } rows[] = {
        {"form", HttpUtility::HtmlDecode, "a+b%20c%2Fd%E9%00%2541", "a b c/d\xE9%41"},
        {"form, no digits", HttpUtility::HtmlDecode, "%zz%g1%1g%%41%4", "\x01\x10\x04" + one},
        {"encode", HttpUtility::HtmlEncode, "a b-c\n.\xE9" + nul, "a%20b%2dc%0a%2e%e9%00"},
        {"references", HttpUtility::HtmlEntityDecode,
         "bbb&#39;aaa&#x27;123&amp;456&&&lt;789&apos;ABC&quot;DEF&gt;GHI",
         "bbb'aaa'123&456&&<789'ABC\"DEF>GHI"},
        {"one pass", HttpUtility::HtmlEntityDecode, "&amp;lt;&#38;gt;&AMP;", "&lt;&gt;&AMP;"},
        {"no end", HttpUtility::HtmlEntityDecode, "&#65&#x41&amp", "&#65&#x41&amp"},
        {"one byte", HttpUtility::HtmlEntityDecode, "&#233;&#8217;&#x2019;", "\xE9\x19\x19"},
        {"no digits", HttpUtility::HtmlEntityDecode, "&#x;&#;&#X41;", nul + nul + nul},
        {"as atoi", HttpUtility::HtmlEntityDecode, "&# \t\v+65x;&#-1;&#-+1;", "A\xFF" + nul},
        {"a thousand digits", HttpUtility::HtmlEntityDecode,
         "&#1" + std::string(999, '0') + "7;&#x" + std::string(1000, 'f') + "41;", "\x07" + a},
    };
    for (const auto& [name, codec, text, result] : rows) EXPECT_EQ(codec(text), result) << name;
}

TEST(Codecs, SingleCharacters) {
    for (const char c : AllBytes()) {
        const auto byte = static_cast<unsigned char>(c);
        SCOPED_TRACE(int{byte});
        EXPECT_EQ(HttpUtility::isOrdinaryChar(c), byte < 0x80 && std::isalnum(byte));
        EXPECT_EQ(HttpUtility::convertToDec(std::string{'1', c}.c_str()),
                  c == 0 ? 1 : 16 + models::HexDigit(c));
        char buffer[3] = {c, '\0', '#'};
        EXPECT_EQ(HttpUtility::getAsDec(buffer), std::tolower(byte));
        EXPECT_EQ(std::atoi(buffer), models::HexDigit(c));
        EXPECT_EQ(buffer[2], models::HexDigit(c) < 10 ? '#' : '\0');
    }
    EXPECT_EQ(HttpUtility::convertToDec(""), 0);
    EXPECT_EQ(HttpUtility::convertToDec("fF"), 255);
    EXPECT_EQ(HttpUtility::convertToDec("123456789abcdef0"), static_cast<int>(0x9abcdef0));
}

TEST(Codecs, AgreeWithNaiveModels) {
    RandomTexts escapes("%%%+ 09afAFxz" + AllBytes().substr(0, 3));
    RandomTexts references("&&&&##xx;ampltgt0123456789- \xE9" + AllBytes().substr(0, 2));
    RandomTexts any(AllBytes());
    for (int round = 0; round < 20000; ++round) {
        for (const std::string& text : {escapes.Next(20), references.Next(30), any.Next(40)}) {
            SCOPED_TRACE(testing::PrintToString(text));
            ASSERT_EQ(HttpUtility::HtmlDecode(text), models::DecodeForm(text));
            ASSERT_EQ(HttpUtility::UrlDecode(text), models::DecodeForm(text));
            ASSERT_EQ(HttpUtility::HtmlEntityDecode(text), models::DecodeReferences(text));
            const std::string encoded = HttpUtility::HtmlEncode(text);
            ASSERT_EQ(HttpUtility::UrlEncode(text), encoded);
            std::string decoded = text;  // an escape for the byte 0 decodes to nothing
            std::erase(decoded, '\0');
            ASSERT_EQ(HttpUtility::HtmlDecode(encoded), decoded);
        }
    }
}

}  // namespace
