#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>

#include "common/sysutility.h"
#include "support/helpers.h"
#include "text_support.h"

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
    EXPECT_FALSE(sysutility::CreateDir(path)) << "false says that it was made";
    umask(mask);
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0755u);
    EXPECT_TRUE(sysutility::CreateDir(path));
    EXPECT_TRUE(sysutility::CreateDir(directory.Path("missing/dir")));

    const struct {
        std::string path;
        bool isFile, isDirectory;
    } rows[] = {
        {file, true, false},         {path, false, true},
        {path + "/", false, true},   {path + "//", false, true},
        {file + "/", false, false},  {directory.Path("missing"), false, false},
        {"/dev/null", false, false}, {"/", false, false},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(sysutility::FileExists(row.path), row.isFile) << row.path;
        EXPECT_EQ(sysutility::DirectoryExists(row.path), row.isDirectory) << row.path;
    }
    EXPECT_FALSE(sysutility::DirectoryExists(""));
}

TEST(Files, NewFileOfASize) {
    const TempDir directory;
    const std::string path = directory.Path("file");
    WriteFile(path, std::string(500, 'x'));
    for (const std::size_t size : {100, 0}) {
        EXPECT_TRUE(sysutility::CreateNewFileWithSize(path, size));
        EXPECT_EQ(ReadFile(path), std::string(size, '\0') + '\xFF');
    }
    constexpr std::uint64_t kLimit = std::uint64_t{1} << 31;
    EXPECT_TRUE(sysutility::CreateNewFileWithSize(path, kLimit - 1));
    EXPECT_EQ(std::filesystem::file_size(path), kLimit);

    WriteFile(path, "kept");
    EXPECT_FALSE(sysutility::CreateNewFileWithSize(path, kLimit));
    EXPECT_FALSE(sysutility::CreateNewFileWithSize(path, ~std::uint64_t{0}));
    EXPECT_EQ(ReadFile(path), "kept");
    EXPECT_FALSE(sysutility::CreateNewFileWithSize(directory.Path(), 1));
    EXPECT_FALSE(sysutility::CreateNewFileWithSize(directory.Path("missing/file"), 1));
    if (std::filesystem::exists("/dev/full")) {
        EXPECT_FALSE(sysutility::CreateNewFileWithSize("/dev/full", 0)) << "nothing was written";
    }
}

TEST(FileNames, CheckedAndMade) {
    const struct {
        std::string name;
        bool usable;
        std::string made;
    } rows[] = {
        {"  clip.mp4 ", true, "clip.mp4"},
        {".hidden", false, ".hidden"},
        {":x", false, "x"},
        {" My: Video / Take 1? ", false, "My Video  Take 1"},
        {"<<>>", false, ""},
        {"a\\/:*?\"<>|b", false, "ab"},
        {"a\"b", false, "ab"},
        {"a.b..\xE9\x01", true, "a.b..\xE9\x01"},
        {" \t\r\n", false, ""},
        {"", false, ""},
    };
    for (const auto& [name, usable, made] : rows) {
        EXPECT_EQ(sysutility::CheckFileName(name), usable) << name;
        EXPECT_EQ(sysutility::MakeFileName(name), made) << name;
    }
    EXPECT_EQ(sysutility::InvalidFileNameChars, "\x5C\x2F\x3A\x2A\x3F\x22\x3C\x3E\x7C");
}

TEST(FileNames, CutFromPathsAndAddresses) {
    const struct {
        std::string text, with, without, last;
    } rows[] = {
        {"/tmp", "/tmp/", "/tmp", "tmp"},
        {"/tmp/", "/tmp/", "/tmp", ""},
        {"/tmp//", "/tmp//", "/tmp/", ""},
        {"/", "/", "", ""},
        {"", "/", "", ""},
        {"abc", "abc/", "abc", ""},
        {"http://h/a/b/video.flv?x=1#y", "http://h/a/b/video.flv?x=1#y/",
         "http://h/a/b/video.flv?x=1#y", "video.flv?x=1#y"},
        {"http://h/dir/ ", "http://h/dir/ /", "http://h/dir/ ", ""},
        {" \n", " \n/", " \n", ""},
    };
    for (const auto& [text, with, without, last] : rows) {
        EXPECT_EQ(sysutility::IncludeTrailingPathDelimiter(text), with);
        EXPECT_EQ(sysutility::ExcludeTrailingPathDelimiter(text), without);
        EXPECT_EQ(sysutility::GetFileNameForUrl(text), last) << text;
    }
}

TEST(Memory, BoundedCopy) {
    char buffer[9] = "########";
    EXPECT_EQ(sysutility::memcopy(buffer, "abcdefghij", 8, 7), buffer);
    EXPECT_EQ(std::string(buffer, 9), std::string("abcdefg\0\0", 9));
    EXPECT_EQ(sysutility::memcopy(buffer, "xyz", 8, 2), buffer);
    EXPECT_EQ(std::string(buffer, 9), std::string("xy\0defg\0\0", 9));
}

TEST(SysutilityDeath, BrokenPreconditions) {
    const auto line = [](const char* function, const char* expression) {
        return AssertionLine(expression, function, "common/sysutility");
    };
    char buffer[8];
    EXPECT_DEATH(sysutility::memcopy(nullptr, "x", 8, 1), line("memcopy", "NULL != Dest"));
    EXPECT_DEATH(sysutility::memcopy(buffer, nullptr, 8, 1), line("memcopy", "NULL != Src"));
    EXPECT_DEATH(sysutility::memcopy(buffer, "12345678", 8, 8), line("memcopy", "false"));
    EXPECT_DEATH(sysutility::FileExists(""), line("FileExists", "0 < strFile.size()"));
}

// Run by the next test, in a process of its own.
TEST(CurrentPath, DISABLED_Print) {
    std::printf("[%s]\n", sysutility::GetCurrentPath(true).c_str());
}

TEST(CurrentPath, IsWhatTheProgramWasStartedAs) {
    const std::string directory = sysutility::GetCurrentPath(true);
    EXPECT_EQ(sysutility::GetCurrentPath(false) + "/", directory);
    ASSERT_TRUE(sysutility::FileExists(directory + "files_test")) << directory;

    std::string longer;
    for (int i = 0; i < 600; ++i) longer += "/.";
    longer += std::filesystem::absolute(directory).string();
    const std::string command = "'" + longer +
                                "files_test' --gtest_also_run_disabled_tests "
                                "--gtest_filter=CurrentPath.DISABLED_Print";
    FILE* printed = popen(command.c_str(), "r");
    ASSERT_NE(printed, nullptr);
    std::string output(8192, '\0');
    output.resize(std::fread(output.data(), 1, output.size(), printed));
    EXPECT_EQ(pclose(printed), 0);
    EXPECT_NE(output.find("[" + longer + "]"), std::string::npos) << output;
}

}  // namespace
