#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>

#include "common/sysutility.h"
#include "support/helpers.h"
#include "text_support.h"

using namespace sysutility;
using test_support::AssertionLine;
using test_support::ReadFile;
using test_support::TempDir;
using test_support::WriteFile;

namespace {

TEST(Files, KindsOfEntries) {
    const TempDir directory;
    const std::string path = directory.Path("dir");
    const std::string file = directory.Path("file");
    WriteFile(file, "x");
    const mode_t mask = umask(0);
    EXPECT_FALSE(CreateDir(path)) << "false says that it was made";
    umask(mask);
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0755});
    EXPECT_TRUE(CreateDir(path));
    const struct {
        std::string path;
        bool isFile, isDirectory;
    } rows[] = {
        {file, true, false},         {path + "/", false, true}, {path + "-missing", false, false},
        {"/dev/null", false, false}, {"/", false, false},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(FileExists(row.path), row.isFile) << row.path;
        EXPECT_EQ(DirectoryExists(row.path), row.isDirectory) << row.path;
    }
}

TEST(Files, NewFileOfASize) {
    const TempDir directory;
    const std::string path = directory.Path("file");
    WriteFile(path, std::string(500, 'x'));
    EXPECT_TRUE(CreateNewFileWithSize(path, 100));
    EXPECT_EQ(ReadFile(path), std::string(100, '\0') + '\xFF');
    EXPECT_FALSE(CreateNewFileWithSize(path, 1U << 31));
    EXPECT_EQ(std::filesystem::file_size(path), 101u) << "as it was";
    EXPECT_TRUE(CreateNewFileWithSize(path, (1U << 31) - 1));
    EXPECT_EQ(std::filesystem::file_size(path), 1U << 31);
    EXPECT_FALSE(CreateNewFileWithSize(directory.Path("missing/file"), 1));
    EXPECT_FALSE(CreateNewFileWithSize("/dev/full", 0)) << "nothing was written";
}

TEST(FileNames, CheckedAndMade) {
    const struct {
        std::string name;
        bool usable;
        std::string made;
    } rows[] = {
        {"  clip.mp4 ", true, "clip.mp4"},        {".hidden", false, ".hidden"},
        {"a\\/:*?\"<>|b", false, "ab"},           {"a|b", false, "ab"},
        {"a.b..\xE9\x01", true, "a.b..\xE9\x01"}, {" \t\r\n", false, ""},
    };
    for (const auto& [name, usable, made] : rows) {
        EXPECT_EQ(CheckFileName(name), usable) << name;
        EXPECT_EQ(MakeFileName(name), made) << name;
    }
}

TEST(FileNames, CutFromPathsAndAddresses) {
    const struct {
        std::string text, with, without, last;
    } rows[] = {
        {"/tmp", "/tmp/", "/tmp", "tmp"},
        {"/tmp//", "/tmp//", "/tmp/", ""},
        {"", "/", "", ""},
        {"abc", "abc/", "abc", ""},
        {"http://h/a/v.flv?x=1#y ", "http://h/a/v.flv?x=1#y /", "http://h/a/v.flv?x=1#y ",
         "v.flv?x=1#y"},
    };
    for (const auto& [text, with, without, last] : rows) {
        EXPECT_EQ(IncludeTrailingPathDelimiter(text), with);
        EXPECT_EQ(ExcludeTrailingPathDelimiter(text), without);
        EXPECT_EQ(GetFileNameForUrl(text), last) << text;
    }
}

TEST(Memory, BoundedCopy) {
    char buffer[9] = "########";
    EXPECT_EQ(memcopy(buffer, "abcdefghij", 8, 7), buffer);
    EXPECT_EQ(memcopy(buffer, "xyz", 8, 2), buffer);
    EXPECT_EQ(std::string(buffer, 9), std::string("xy\0defg\0\0", 9));
}

TEST(SysutilityDeath, BrokenPreconditions) {
    const auto line = [](const char* function, const char* expression) {
        return AssertionLine(expression, function, "common/sysutility");
    };
    char buffer[8];
    EXPECT_DEATH(memcopy(nullptr, "x", 8, 1), line("memcopy", "NULL != Dest"));
    EXPECT_DEATH(memcopy(buffer, nullptr, 8, 1), line("memcopy", "NULL != Src"));
    EXPECT_DEATH(memcopy(buffer, "12345678", 8, 8), line("memcopy", "false"));
    EXPECT_DEATH(FileExists(""), line("FileExists", "0 < strFile.size()"));
}

// The program runs itself by a long path, which it then expects.
TEST(CurrentPath, IsWhatTheProgramWasStartedAs) {
    const std::string directory = GetCurrentPath(true);
    EXPECT_EQ(GetCurrentPath(false) + "/", directory);
    ASSERT_TRUE(FileExists(directory + "files_test")) << directory;
    if (const char* expected = std::getenv("STARTED_AS")) {
        EXPECT_EQ(directory, expected);
        return;
    }
    const std::string longer =
        test_support::Repeated(600, "/.") + std::filesystem::absolute(directory).string();
    setenv("STARTED_AS", longer.c_str(), 1);
    EXPECT_EQ(std::system(("'" + longer + "files_test' --gtest_filter=CurrentPath.*").c_str()), 0);
}

}  // namespace
