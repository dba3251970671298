// What the manager and its workers share: locks, files, texts, codecs, the section.
#include <sys/mman.h>
#include <sys/stat.h>

#include <cctype>
#include <csignal>
#include <cstring>
#include <new>
#include <stdexcept>

#include "TaskMan/taskcontext.h"
#include "common/AutoLock.h"
#include "common/address.h"
#include "common/httputility.h"
#include "common/stringutility.h"
#include "common/sysutility.h"
#include "support/helpers.h"

using namespace sysutility;
using namespace test_support;
using Threading::AutoLock;
using Threading::Mutex;

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
    { const Mutex second(name.c_str()); }
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
    std::thread waiter([&] {
        had = lock.Lock();
        lock.UnLock();
    });
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
        throw std::runtime_error("");
    } catch (const std::runtime_error&) {
        EXPECT_EQ(SemaphoreValue(name), 1);
    }
    { AutoLock(&lock).UnLock(); }
    EXPECT_EQ(SemaphoreValue(name), 1) << "released twice";
    { AutoLock(&lock).SetUnlock(); }
    EXPECT_EQ(SemaphoreValue(name), 0) << "released although forgotten";
    EXPECT_FALSE(AutoLock(nullptr));
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
    for (const std::string& other : {path + "/", path + "-missing", std::string("/dev/null")}) {
        EXPECT_FALSE(sysutility::FileExists(other)) << other;
        EXPECT_EQ(DirectoryExists(other), other.ends_with("dir/")) << other;
    }
    EXPECT_TRUE(sysutility::FileExists(file) && !DirectoryExists(file) && !DirectoryExists("/"));
    EXPECT_EQ(GetCurrentPath(false) + "/", GetCurrentPath(true));
    EXPECT_TRUE(sysutility::FileExists(GetCurrentPath(true) + "common_test"));
}

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

TEST(Texts, AreWhatTheTableSays) {
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

TEST(Texts, HaveDigits) {
    for (const auto& [digit, stored] :
         {std::pair('7', "7"), {'b', "11"}, {'F', "15"}, {'G', "G"}, {'\xE9', "\xE9"}}) {
        char buffer[4] = {digit, '\0', '#'};
        EXPECT_EQ(HttpUtility::getAsDec(buffer), digit == '\xE9' ? 0xE9 : std::tolower(digit));
        EXPECT_STREQ(buffer, stored);
    }
    EXPECT_EQ(HttpUtility::convertToDec("1zfF") + HttpUtility::convertToDec(""), 0x10FF);
    EXPECT_EQ(HttpUtility::convertToDec("123456789abcdef0"), static_cast<int>(0x9abcdef0));
}

// ---- The section and its records, to the byte.

template <class Value>
void Put(std::string& bytes, Value value, std::initializer_list<std::size_t> offsets) {
    for (const std::size_t offset : offsets) std::memcpy(&bytes[offset], &value, sizeof value);
}

// Makes a record with `id` in memory full of rubbish, overwrites it and ends its life.
template <class Record, class... Arguments>
void ExpectDefaults(const std::string& defaults, const std::string& id, Arguments... arguments) {
    alignas(Record) static char place[sizeof(Record)];
    std::memset(place, 0x5a, sizeof place);
    auto* record = new (place) Record(arguments...);
    EXPECT_EQ(std::string(std::launder(place), sizeof place), id + defaults.substr(id.size()));
    std::memset(static_cast<void*>(record), 'x', sizeof place);
    record->~Record();
    EXPECT_EQ(std::string(std::launder(place), sizeof place), defaults);
}

TEST(Records, AreBornAndDieWithTheirDefaults) {
    std::string slot(TASK_SLOT_SIZE, '\0');
    Put(slot, -1, {4160, 4164, 4168, 4172, 4652, 4688, 4692, 4696});
    Put(slot, 3, {4572, 4576, 4580});
    Put(slot, -1.0, {4672, 4680});
    ExpectDefaults<tagTaskContext>(slot, "");
    std::string info(sizeof(tagTaskInfo), '\0');
    Put(info, -1, {2112, 2116, 2120, 2124, 3552, 3556});
    const std::string id(64, 'i');
    ExpectDefaults<tagTaskInfo>(info, id.substr(1), id.c_str());
    const std::string name = UniqueName();
    auto* node = new tagTaskNode(name.c_str());
    EXPECT_EQ(node->nTaskIndex, -1);
    node->mutexLock = new Threading::Mutex(name.c_str());
    delete node;
    EXPECT_EQ(SemaphoreValue(name), -1) << "a node owns its lock";
}

// The name under which the section was opened.
std::string NameOf(const tagVideoInfoSection& section) {
    const std::string link = "/proc/self/fd/" + std::to_string(section.hShm);
    return std::filesystem::read_symlink(link).filename();
}

TEST(Section, IsMadeOnceAndLosesItsNameAtTheEnd) {
    std::string name = UniqueName();
    name.resize(80, 'n');
    const mode_t mask = umask(0);
    tagVideoInfoSection first{};
    ASSERT_EQ(InitShareMem(&first, name.c_str()), 0);
    umask(mask);
    struct stat status {};
    fstat(first.hShm, &status);
    EXPECT_EQ(status.st_mode & 0777, 0644u);
    EXPECT_EQ(status.st_size, 198657);
    EXPECT_EQ(NameOf(first), name.substr(0, 61));
    EXPECT_EQ(first.pCommDataPrt, first.hPrt + 197632);
    EXPECT_EQ(std::string(first.hPrt, SHARE_MEM_SIZE), std::string(SHARE_MEM_SIZE, '\0'));
    std::memset(first.hPrt, 'k', SHARE_MEM_SIZE);
    tagVideoInfoSection second{};
    ASSERT_EQ(InitShareMem(&second, name.c_str()), 0);
    EXPECT_EQ(std::string(second.hPrt, SHARE_MEM_SIZE), std::string(SHARE_MEM_SIZE, 'k'));
    char* const mapping = second.hPrt;
    EXPECT_EQ(reinterpret_cast<char*>(SlotAt(second, 7)), mapping + 172928);
    for (int outside : {-1, 8}) EXPECT_EQ(SlotAt(second, outside), nullptr);
    EXPECT_EQ(UnInitShareMem(&second, name.c_str()), 0);
    EXPECT_TRUE(second.pCommDataPrt == nullptr && second.hPrt == mapping);
    EXPECT_EQ(msync(mapping, SHARE_MEM_SIZE, MS_ASYNC), -1) << "still mapped";
    EXPECT_EQ(NameOf(second), name.substr(0, 61) + " (deleted)") << "or the descriptor closed";
    UnInitShareMem(&first, name.c_str());
    EXPECT_EQ(SlotAt(tagVideoInfoSection{}, 1), nullptr);
    char mark;
    tagVideoInfoSection none{7, &mark, &mark};
    EXPECT_EQ(InitShareMem(&none, "/"), -1);
    EXPECT_TRUE(none.hShm == -1 && none.hPrt == &mark && none.pCommDataPrt == &mark);
    for (const auto& section : {first, second}) close(section.hShm);
}

}  // namespace
