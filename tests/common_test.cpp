// The operations of common: locks, files and their names, texts, codecs.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <cctype>
#include <csignal>
#include <filesystem>
#include <stdexcept>
#include <thread>
#include <type_traits>

#include "common/AutoLock.h"
#include "common/httputility.h"
#include "common/stringutility.h"
#include "common/sysutility.h"
#include "support/helpers.h"

using namespace sysutility;
using namespace test_support;
using strutil::Tokenizer;
using Strings = std::vector<std::string>;
using Threading::AutoLock;
using Threading::Mutex;

static_assert(!std::is_polymorphic_v<Tokenizer>);

namespace {

TEST(Locks, AreSemaphores) {
    const std::string name = UniqueName();
    const mode_t mask = umask(0);
    Mutex lock(name.c_str());
    umask(mask);
    struct stat status {};
    EXPECT_EQ(stat(("/dev/shm/sem." + name).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0644u);
    EXPECT_TRUE(lock.Lock());
    {
        const Mutex second(name.c_str());
        EXPECT_EQ(SemaphoreValue(name), 0) << "the value found is kept";
    }
    EXPECT_EQ(SemaphoreValue(name), -1) << "any of them removes the name";
    EXPECT_TRUE(lock.UnLock());
    EXPECT_DEATH(Mutex(""), AssertionLine("NULL != m_NamedLock", "Mutex", "common/mutex"));
}

TEST(Locks, AreWaitedForInSpiteOfSignals) {
    static std::atomic<int> signals{0};
    struct sigaction action {};
    action.sa_handler = [](int) { ++signals; };
    sigaction(SIGUSR1, &action, nullptr);
    Mutex lock(UniqueName().c_str());
    lock.Lock();
    std::atomic<bool> had{false};
    std::thread waiter([&] { had = lock.Lock(); });
    for (int sent = 1; sent <= 20; ++sent) {
        pthread_kill(waiter.native_handle(), SIGUSR1);
        EXPECT_TRUE(WaitUntil([sent] { return signals == sent; }));
    }
    EXPECT_FALSE(had);
    lock.UnLock();
    waiter.join();
    EXPECT_TRUE(had);
}

TEST(Locks, AreReleasedByTheirScope) {
    const std::string name = UniqueName();
    Mutex lock(name.c_str());
    try {
        AutoLock hold(&lock);
        EXPECT_TRUE(hold && SemaphoreValue(name) == 0);
        hold.UnLock();
        EXPECT_TRUE(!hold && SemaphoreValue(name) == 1);
        hold.Lock();
        throw std::runtime_error("");
    } catch (const std::runtime_error&) {
        EXPECT_EQ(SemaphoreValue(name), 1) << "not released by an exception";
    }
    { AutoLock(&lock).UnLock(); }
    EXPECT_EQ(SemaphoreValue(name), 1) << "released twice";
    { AutoLock(&lock).SetUnlock(); }
    EXPECT_EQ(SemaphoreValue(name), 0) << "released although forgotten";
    AutoLock none(nullptr);
    none.Lock();
    EXPECT_FALSE(none);
}

TEST(Files, AreToldApartAndMade) {
    const TempDir directory;
    const std::string path = directory.Path("dir"), file = directory.Path("file");
    const mode_t mask = umask(0);
    EXPECT_FALSE(CreateDir(path)) << "false says that it was made";
    umask(mask);
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0755});
    EXPECT_TRUE(CreateDir(path));
    WriteFile(file, std::string(500, 'x'));
    EXPECT_TRUE(CreateNewFileWithSize(file, 100));
    EXPECT_EQ(ReadFile(file), std::string(100, '\0') + '\xFF');
    EXPECT_FALSE(CreateNewFileWithSize(file, 1U << 31));
    EXPECT_EQ(std::filesystem::file_size(file), 101u) << "as it was";
    EXPECT_FALSE(CreateNewFileWithSize(directory.Path("missing/file"), 1));
    EXPECT_FALSE(CreateNewFileWithSize("/dev/full", 0)) << "nothing was written";
    const struct {
        std::string path;
        bool isFile, isDirectory;
    } rows[] = {
        {file, true, false},         {path + "/", false, true}, {path + "-missing", false, false},
        {"/dev/null", false, false}, {"/", false, false},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(sysutility::FileExists(row.path), row.isFile) << row.path;
        EXPECT_EQ(DirectoryExists(row.path), row.isDirectory) << row.path;
    }
    EXPECT_EQ(GetCurrentPath(false) + "/", GetCurrentPath(true));
    EXPECT_TRUE(sysutility::FileExists(GetCurrentPath(true) + "common_test"));
}

TEST(FileNames, AreCheckedMadeAndCut) {
    const struct {
        std::string name;
        bool usable;
        std::string made;
    } names[] = {
        {"  clip.mp4 ", true, "clip.mp4"},        {".hidden", false, ".hidden"},
        {"a\\/:*?\"<>|b", false, "ab"},           {"a|b", false, "ab"},
        {"a.b..\xE9\x01", true, "a.b..\xE9\x01"}, {" \t\r\n", false, ""},
    };
    for (const auto& [name, usable, made] : names) {
        EXPECT_EQ(CheckFileName(name), usable) << name;
        EXPECT_EQ(MakeFileName(name), made) << name;
    }
    const struct {
        std::string text, with, without, last;
    } paths[] = {
        {"/tmp", "/tmp/", "/tmp", "tmp"},
        {"/tmp//", "/tmp//", "/tmp/", ""},
        {"", "/", "", ""},
        {"abc", "abc/", "abc", ""},
        {"http://h/a/v?x=1#y ", "http://h/a/v?x=1#y /", "http://h/a/v?x=1#y ", "v?x=1#y"},
    };
    for (const auto& [text, with, without, last] : paths) {
        EXPECT_EQ(IncludeTrailingPathDelimiter(text), with);
        EXPECT_EQ(ExcludeTrailingPathDelimiter(text), without);
        EXPECT_EQ(GetFileNameForUrl(text), last) << text;
    }
}

TEST(Texts, AreBounded) {
    char buffer[9] = "########";
    EXPECT_EQ(memcopy(buffer, "abcdefghij", 8, 7), buffer);
    EXPECT_EQ(memcopy(buffer, "xyz", 8, 2), buffer);
    EXPECT_EQ(std::string(buffer, 9), std::string("xy\0defg\0\0", 9));
    EXPECT_EQ(strutil::vsnpf(buffer, 8, "%s", "abcdefghij"), 10);
    EXPECT_EQ(std::string(buffer, 9), std::string("abcdef\0\0\0", 9));
    const auto line = [](const char* function, const char* expression) {
        return AssertionLine(expression, function, "common/sysutility");
    };
    EXPECT_DEATH(memcopy(nullptr, "x", 8, 1), line("memcopy", "NULL != Dest"));
    EXPECT_DEATH(memcopy(buffer, nullptr, 8, 1), line("memcopy", "NULL != Src"));
    EXPECT_DEATH(memcopy(buffer, "12345678", 8, 8), line("memcopy", "false"));
    EXPECT_DEATH(sysutility::FileExists(""), line("FileExists", "0 < strFile.size()"));
}

TEST(Texts, AreTrimmedCutAndNumbers) {
    const std::pair<std::string, std::string> rows[] = {
        {strutil::trimLeft("\t a b \r\n"), "a b \r\n"},
        {strutil::trimRight("\t a b \r\n"), "\t a b"},
        {strutil::trim(" \v\xA0 x \f "), "\v\xA0 x \f"},
        {strutil::trimLeft(" ") + strutil::trimRight(" "), ""},
        {strutil::getContent("title=Hello", "title="), "Hello"},
        {strutil::getContent("a=1&b=2&b=3", "b="), "2&b=3"},
        {strutil::getContent("abc", "x"), ""},
        {strutil::toString(true) + strutil::toString(false), "truefalse"},
    };
    for (const auto& [actual, expected] : rows) EXPECT_EQ(actual, expected);
    EXPECT_TRUE(strutil::endsWith("abcbc", "bc") && !strutil::endsWith("bca", "bc"));
    EXPECT_TRUE(strutil::IsNum("007", false) && strutil::IsNum("1.5", true));
    EXPECT_FALSE(strutil::IsNum("1.5", false));
    for (const char* text : {"1.", ".1", "1.2.3", "-1", " 1", "1e5", "1\xB2", "1,5"}) {
        EXPECT_FALSE(strutil::IsNum(text, true)) << text;
    }
    EXPECT_THROW(strutil::IsNum("", true), std::invalid_argument);
}

TEST(Texts, AreTakenApart) {
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
    text = "-a--b-c";
    EXPECT_EQ(strutil::string_replace(text, "-", "<->"), "<->a<-><->b<->c");
}

TEST(Codecs, Texts) {
    EXPECT_EQ(HttpUtility::HtmlDecode("a+b%20c%2Fd%E9%e9%00%2541"), "a b c/d\xE9\xE9%41");
    EXPECT_EQ(HttpUtility::UrlDecode("%zz%g1%1g%%4%4"), "\x01\x10\x04");
    EXPECT_EQ(HttpUtility::HtmlEncode("a b-c\n.\xE9"), "a%20b%2dc%0a%2e%e9");
    EXPECT_EQ(HttpUtility::UrlEncode("/"), "%2f");
    const std::pair<const char*, std::string> entities[] = {
        {"bbb&#39;aaa&#x27;123&amp;456&&&lt;789&apos;ABC&quot;DEF&gt;GHI",
         "bbb'aaa'123&456&&<789'ABC\"DEF>GHI"},
        {"&amp;lt;&#38;gt;&AMP;", "&lt;&gt;&AMP;"},
        {"&#65&#x41&amp", "&#65&#x41&amp"},
        {"&#233;&#8217;&#x2019;", "\xE9\x19\x19"},
        {"&# +65x;&#x;&#;&#X41;", std::string("A\0\0\0", 4)},
    };
    for (const auto& [text, decoded] : entities) {
        EXPECT_EQ(HttpUtility::HtmlEntityDecode(text), decoded) << text;
    }
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
