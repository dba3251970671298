#include <gtest/gtest.h>

#include <stdexcept>
#include <type_traits>

#include "common/stringutility.h"
#include "text_support.h"

using strutil::Tokenizer;
using test_support::RandomTexts;
using Strings = std::vector<std::string>;

static_assert(!std::is_polymorphic_v<Tokenizer>);

namespace {

TEST(Strings, Trim) {
    const struct {
        std::string text, left, right;
    } rows[] = {
        {"", "", ""},
        {" \t\r\n", "", ""},
        {"\t a b \r\n", "a b \r\n", "\t a b"},
        {"\v\xA0 x \f", "\v\xA0 x \f", "\v\xA0 x \f"},
        {std::string(" \0 ", 3), std::string("\0 ", 2), std::string(" \0", 2)},
    };
    for (const auto& [text, left, right] : rows) {
        EXPECT_EQ(strutil::trimLeft(text), left);
        EXPECT_EQ(strutil::trimRight(text), right);
        EXPECT_EQ(strutil::trim(text), strutil::trimRight(left)) << text;
    }
}

TEST(Strings, ContentAndSuffix) {
    EXPECT_EQ(strutil::getContent("title=Hello", "title="), "Hello");
    EXPECT_EQ(strutil::getContent("a=1&b=2&b=3", "b="), "2&b=3");
    EXPECT_EQ(strutil::getContent("abc", "x"), "");
    EXPECT_TRUE(strutil::endsWith("abc", ""));
    EXPECT_TRUE(strutil::endsWith("abcbc", "bc"));
    EXPECT_FALSE(strutil::endsWith("bc", "abc"));
    EXPECT_FALSE(strutil::endsWith("bca", "bc"));
}

TEST(Strings, Numbers) {
    for (const char* text : {"12", "0", "007"}) EXPECT_TRUE(strutil::IsNum(text, false)) << text;
    for (const char* text : {"1", "1.5"}) EXPECT_TRUE(strutil::IsNum(text, true)) << text;
    EXPECT_FALSE(strutil::IsNum("1.5", false));
    for (const char* text :
         {"1.", ".1", ".", "1..2", "1.2.3", "-1", "+1", " 1", "1e5", "1\xB2", "1,5"}) {
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
    EXPECT_EQ(strutil::vsnpf(buffer, 8, "%d", 7), 1);
    EXPECT_EQ(std::string(buffer, 8), std::string("7\0\0\0\0\0\0\0", 8));
    EXPECT_EQ(strutil::vsnpf(buffer, 1, "%d", 7), 1);
    EXPECT_EQ(buffer[0], '\0');
}

TEST(Tokenizer, StepsAndStartsOver) {
    Tokenizer tokens("  a\t b,c \r\n");
    EXPECT_TRUE(tokens.m_offset == 0 && tokens.getToken().empty());
    EXPECT_EQ(tokens.m_delimiters, " \t\n\r");
    ASSERT_TRUE(tokens.nextToken());
    EXPECT_EQ(tokens.getToken(), "a");
    EXPECT_EQ(tokens.m_offset, 3u);
    ASSERT_TRUE(tokens.nextToken(","));
    EXPECT_EQ(tokens.getToken(), "\t b") << "the other set holds for one call";
    ASSERT_TRUE(tokens.nextToken());
    EXPECT_EQ(tokens.getToken(), ",c");
    EXPECT_FALSE(tokens.nextToken());
    EXPECT_EQ(tokens.m_token, ",c");
    EXPECT_EQ(tokens.m_offset, tokens.m_string.size());
    tokens.reset();
    ASSERT_TRUE(tokens.nextToken());
    EXPECT_EQ(tokens.getToken(), "a");
}

TEST(Strings, SplitStringKeepsOrTakesOverTheResults) {
    Strings results{"old", "a,b"};
    for (const auto& [input, delimiter] : {std::pair("abc", ","), {"", ","}, {"abc", ""}}) {
        EXPECT_EQ(strutil::SplitString(input, delimiter, results, true), 0) << input;
        EXPECT_EQ(results, (Strings{"old", "a,b"})) << "no pieces, no change";
    }
    EXPECT_EQ(strutil::SplitString(results[1], ",", results, true), 2);
    EXPECT_EQ(results, (Strings{"a", "b"})) << "the input was one of the results";
}

// The same answers, found one character at a time.

Strings NaiveSplit(const std::string& text, const std::string& delimiters) {
    Strings tokens;
    bool inToken = false;
    for (const char c : text) {
        const bool delimiter = delimiters.find(c) != std::string::npos;
        if (!delimiter && !inToken) tokens.emplace_back();
        if (!delimiter) tokens.back() += c;
        inToken = !delimiter;
    }
    return tokens;
}

Strings NaivePieces(std::string text, const std::string& delimiter, bool includeEmpties) {
    Strings pieces{""};
    while (!text.empty()) {
        const bool found = text.starts_with(delimiter);
        if (found) pieces.emplace_back();
        if (!found) pieces.back() += text[0];
        text.erase(0, found ? delimiter.size() : 1);
    }
    if (!includeEmpties) std::erase(pieces, "");
    return pieces;
}

std::string NaiveReplace(std::string text, const std::string& from, const std::string& to) {
    if (from.empty()) return text;
    for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
        text.replace(at, from.size(), to);
    }
    return text;
}

TEST(Strings, AgreeWithNaiveModels) {
    RandomTexts texts(std::string("ab,;\0\xE9", 6));
    for (int round = 0; round < 20000; ++round) {
        const std::string text = texts.Next(24);
        const std::string key = texts.Next(3);
        const std::string other = texts.Next(3);
        SCOPED_TRACE(testing::PrintToString(text) + " by " + testing::PrintToString(key));
        ASSERT_EQ(strutil::split(text, key), NaiveSplit(text, key));
        Tokenizer tokenizer(text, key);
        Strings tokens;
        while (tokenizer.nextToken()) tokens.push_back(tokenizer.getToken());
        ASSERT_EQ(tokens, NaiveSplit(text, key));

        std::string changed = text;
        ASSERT_EQ(strutil::string_replace(changed, key, other), NaiveReplace(text, key, other));
        ASSERT_EQ(changed, NaiveReplace(text, key, other));
        if (key.empty()) continue;
        Strings results{"old"};
        const bool includeEmpties = round % 2 == 0;
        const bool found = text.find(key) != std::string::npos;
        const Strings pieces = NaivePieces(text, key, includeEmpties);
        ASSERT_EQ(strutil::SplitString(text, key, results, includeEmpties),
                  found ? std::ssize(pieces) : 0);
        ASSERT_EQ(results, found ? pieces : Strings{"old"});
    }
}

}  // namespace
