#include "Tarnwick/downloadinfo.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <new>
#include <utility>

#include "common/fieldtext.h"
#include "support/helpers.h"
#include "support/http_server.h"
#include "support/job.h"

using test_support::HttpServer;
using test_support::ReadFile;
using test_support::Reply;
using test_support::WriteFile;

namespace {

std::string Bytes(const tagDownloadInfo& info) {
    return std::string(reinterpret_cast<const char*>(&info), sizeof info);
}

// A task in a section of this process, and a server that announces for each file the size that its
// path begins with.
class InfoFile : public testing::Test {
  protected:
    InfoFile() {
        g_DownloadConfigPath = std::filesystem::path(directory.Path()).parent_path();
        name = directory.Path(job.id + ".config");
        ForgetJob();
        SetField(task.szTaskID, job.id);
        SetField(task.szOrgUrl, "http://page");
        SetField(task.szDownloadUrl, server.Url("/10000000-a-rather-long-name"));
        SetField(task.szFilePath, "/out/file");
        task.nCmd = TASK_CMD_DOWNLOAD;
        task.nTryCount = 1;
        task.nTryInterval = 0;
        task.nDownloadInfoTag = 77;
    }
    static void ForgetJob() {
        g_TryCount = 0;
        g_FileSize = 0;
        g_Exit = false;
    }

    // What the file is to hold for `task` and a size that is known.
    tagDownloadInfo Expected() const {
        tagDownloadInfo info;
        SetField(info.szTaskID, FieldText(task.szTaskID));
        SetField(info.szOrgUrl, FieldText(task.szOrgUrl));
        SetField(info.szDownloadUrl, FieldText(task.szDownloadUrl));
        SetField(info.szFilePath, FieldText(task.szFilePath));
        info.nBlockCount = 3;
        info.nDownloadInfoTag = 77;
        info.uFileSize = 10'000'000;
        const std::uint32_t map[3][3] = {{0, 3'333'334, 6'666'668},
                                         {4294967295, 3'333'333, 6'666'667},
                                         {3'333'333, 6'666'667, 9'999'999}};
        std::copy_n(map[0], 3, info.uBlockStart);
        std::copy_n(map[1], 3, info.uBlockPos);
        std::copy_n(map[2], 3, info.uBlockEnd);
        return info;
    }

    std::unique_ptr<tagDownloadInfo> Read() {
        return std::unique_ptr<tagDownloadInfo>(GetDownloadMapInfoFormDownloadInfoFile(&task));
    }

    HttpServer server{[](const std::string& request, std::size_t) {
        const std::string path = request.substr(std::string("GET /").size());
        const std::string size = path.substr(0, path.find_first_not_of("0123456789"));
        return size.empty() ? Reply::Status(404, "") : Reply::Head(size).Send("x");
    }};
    const test_support::TempDir directory;
    std::string name;
    test_support::Job job;
    tagTaskContext task;
};

TEST(DownloadInfo, DefaultsAreWrittenAtBothEndsOfItsLife) {
    alignas(tagDownloadInfo) char memory[sizeof(tagDownloadInfo)];
    std::string defaults(sizeof memory, '\0');
    defaults.replace(76, 4, 4, '\xFF');
    std::memset(memory, 0xAA, sizeof memory);
    auto* info = new (memory) tagDownloadInfo;
    EXPECT_EQ(std::string(memory, sizeof memory), defaults);
    std::memset(memory, 0xAA, sizeof memory);
    info->~tagDownloadInfo();
    EXPECT_EQ(std::string(memory, sizeof memory), defaults);
}

TEST_F(InfoFile, CreatedKeptAndBroughtUpToDate) {
    EXPECT_EQ(Read(), nullptr);
    ASSERT_TRUE(InitDownloadInfofile(&task));
    tagDownloadInfo expected = Expected();
    EXPECT_EQ(ReadFile(name), Bytes(expected));
    EXPECT_EQ(job.Slot().dFileSize, 1e7);
    const auto read = Read();
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(Bytes(*read), Bytes(expected));

    // Same address: as stored, without a request; one record, whatever stood behind it.
    ForgetJob();
    SetField(task.szOrgUrl, "http://other");
    task.nBlockCount = 9;
    WriteFile(name, Bytes(expected) + "junk");
    ASSERT_TRUE(InitDownloadInfofile(&task));
    EXPECT_EQ(ReadFile(name), Bytes(expected));
    EXPECT_EQ(g_FileSize, 10'000'000u);
    EXPECT_EQ(server.RequestCount(), 1u);

    // Another, shorter address: all anew.
    std::memset(expected.uBlockStart, 7, 3 * sizeof expected.uBlockStart);
    WriteFile(name, Bytes(expected));
    SetField(task.szDownloadUrl, server.Url("/10000000"));
    task.nBlockCount = 3;
    ASSERT_TRUE(InitDownloadInfofile(&task));
    EXPECT_EQ(ReadFile(name), Bytes(Expected()));
    EXPECT_EQ(server.RequestCount(), 2u);

    // Command 3: a new file, whatever there is. Without a size there are no blocks.
    WriteFile(name, "foreign");
    task.nCmd = TASK_CMD_DOWNLOAD_SECOND;
    task.nBlockCount = 0;
    SetField(task.szDownloadUrl, server.Url("/none"));
    ASSERT_TRUE(InitDownloadInfofile(&task));
    expected = Expected();
    expected.nBlockCount = 0;
    expected.uFileSize = 0;
    std::memset(expected.uBlockStart, 0, 3 * sizeof expected.uBlockStart);
    EXPECT_EQ(ReadFile(name), Bytes(expected));
    EXPECT_TRUE(g_Exit) << "the probe has reported the failure";
}

TEST_F(InfoFile, BlockMaps) {
    constexpr std::uint32_t kMax = 4294967295;
    const struct {
        const char* size;
        int blocks;
        std::vector<std::uint32_t> starts, ends;
    } rows[] = {
        {"10", 10, {0, 2, 4, 6, 8, 10, 12, 14, 16, 18}, {1, 3, 5, 7, 9, 11, 13, 15, 17, 9}},
        {"1", 1, {0}, {0}},
        {"7", 2, {0, 4}, {3, 6}},
        {"4294967295", 2, {0, 1U << 31}, {(1U << 31) - 1, kMax - 1}},
        {"4294967295", 1, {0}, {kMax - 1}},
    };
    task.nCmd = TASK_CMD_DOWNLOAD_SECOND;
    for (const auto& [size, blocks, starts, ends] : rows) {
        SCOPED_TRACE(std::string(size) + " in " + std::to_string(blocks));
        SetField(task.szDownloadUrl, server.Url("/" + std::string(size)));
        task.nBlockCount = blocks;
        ASSERT_TRUE(InitDownloadInfofile(&task));
        const auto info = Read();
        ASSERT_NE(info, nullptr);
        EXPECT_EQ(info->uFileSize + 0, std::stoull(size));
        for (std::size_t i = 0; i < DOWNLOAD_MAX_BLOCKS; ++i) {
            const bool used = i < starts.size();
            EXPECT_EQ(info->uBlockStart[i], used ? starts[i] : 0) << i;
            EXPECT_EQ(info->uBlockPos[i], used ? starts[i] - 1 : 0) << i;
            EXPECT_EQ(info->uBlockEnd[i], used ? ends[i] : 0) << i;
        }
    }
}

TEST_F(InfoFile, TasksThatHaveNoRecord) {
    const struct {
        const char* name;
        std::function<void(tagTaskContext&)> change;
    } rows[] = {
        {"no blocks", [](auto& t) { t.nBlockCount = 0; }},
        {"11 blocks", [](auto& t) { t.nBlockCount = 11; }},
        {"-1 blocks", [](auto& t) { t.nBlockCount = -1; }},
        {"size", [this](auto& t) { SetField(t.szDownloadUrl, server.Url("/4294967296")); }},
        {"path", [](auto& t) { SetField(t.szFilePath, std::string(512, 'p')); }},
        {"id", [](auto& t) { std::memset(t.szTaskID, 'i', sizeof t.szTaskID); }},
        {"page", [](auto& t) { std::memset(t.szOrgUrl, 'u', sizeof t.szOrgUrl); }},
        {"directory", [](auto&) { g_DownloadConfigPath += "/missing"; }},
    };
    const tagTaskContext sound = task;
    const std::string path = g_DownloadConfigPath;
    for (const std::int32_t nCmd : {TASK_CMD_DOWNLOAD_SECOND, TASK_CMD_DOWNLOAD}) {
        for (const auto& row : rows) {
            SCOPED_TRACE(row.name);
            ForgetJob();
            task = sound;
            g_DownloadConfigPath = path;
            std::filesystem::remove(name);
            ASSERT_TRUE(InitDownloadInfofile(&task));
            task.nCmd = nCmd;
            SetField(task.szDownloadUrl, server.Url("/10000000"));
            row.change(task);
            const std::string before = ReadFile(name);
            EXPECT_FALSE(InitDownloadInfofile(&task));
            EXPECT_EQ(ReadFile(name), before);
        }
    }
    ForgetJob();
    g_DownloadConfigPath = path;
    task = sound;
    SetField(task.szFilePath, std::string(511, 'p'));
    std::filesystem::remove(name);
    EXPECT_TRUE(InitDownloadInfofile(&task)) << "the longest path";
    std::filesystem::remove(name);
    std::filesystem::create_directory(name);
    EXPECT_FALSE(InitDownloadInfofile(&task));
    EXPECT_EQ(Read(), nullptr);
}

TEST_F(InfoFile, StoredRecordsThatAreRefused) {
    const auto with = [this](auto change) {
        tagDownloadInfo info = Expected();
        change(info);
        return Bytes(info);
    };
    const struct {
        const char* name;
        std::string bytes;
        bool readable;
    } rows[] = {
        {"nothing", "", true},
        {"short", Bytes(Expected()).substr(0, 2759), true},
        {"other id", with([](auto& info) { info.szTaskID[0] ^= 1; }), false},
        {"longer id", with([](auto& info) { std::strcat(info.szTaskID, "x"); }), false},
        {"other path", with([](auto& info) { info.szFilePath[0] ^= 1; }), false},
        {"blocks", with([](auto& info) { info.nBlockCount = 11; }), false},
        {"no blocks", with([](auto& info) { info.nBlockCount = 0; }), false},
        {"size", with([](auto& info) { info.uFileSize = std::uint64_t{1} << 32; }), false},
        {"page", with([](auto& info) { std::memset(info.szOrgUrl, 'u', 1024); }), false},
        {"address", with([](auto& info) { std::memset(info.szDownloadUrl, 'u', 1024); }), false},
    };
    for (const auto& [row, bytes, readable] : rows) {
        SCOPED_TRACE(row);
        WriteFile(name, bytes);
        EXPECT_FALSE(InitDownloadInfofile(&task));
        EXPECT_EQ(ReadFile(name), bytes);
        const auto info = Read();
        ASSERT_EQ(info != nullptr, readable);
        if (!readable) continue;
        const std::string defaults = Bytes(tagDownloadInfo());
        EXPECT_EQ(Bytes(*info), bytes + defaults.substr(bytes.size()));
    }
    EXPECT_EQ(server.RequestCount(), 0u);
}

// The Range line of the request that the handle makes; empty when it has none.
std::string RangeLine(CURL* curl, HttpServer& server) {
    curl_easy_setopt(curl, CURLOPT_URL, server.Url().c_str());
    EXPECT_EQ(curl_easy_perform(curl), CURLE_OK);
    const std::string request = server.Requests().back().text;
    const std::size_t begin = request.find("Range:");
    return begin == std::string::npos
               ? ""
               : request.substr(begin, request.find("\n", begin) - begin + 1);
}

TEST(Range, OneHeaderPerHandle) {
    HttpServer server({Reply::Ok("")});
    std::vector<CURL*> handles;
    for (unsigned long i = 0; i < 300; ++i) {
        handles.push_back(curl_easy_init());
        EXPECT_EQ(Curl_SetHttpHead_Range(handles[i], 7, 7), 0);
        EXPECT_EQ(Curl_SetHttpHead_Range(handles[i], 1000 + i, 499), 0);
    }
    EXPECT_EQ(RangeLine(handles[0], server), "Range: bytes=1000-1499\r\n");
    EXPECT_EQ(RangeLine(handles[1], server), "Range: bytes=1001-1500\r\n");
    EXPECT_EQ(RangeLine(handles[0], server), "Range: bytes=1000-1499\r\n");
    EXPECT_EQ(Curl_SetHttpHead_Range(handles[0], 0, 2147483647), 0);
    EXPECT_EQ(RangeLine(handles[0], server), "Range: bytes=0-2147483647\r\n");

    const std::pair<unsigned long, unsigned long> beyond[] = {
        {2147483648, 0}, {0, 2147483648}, {2147483647, 1}, {1, ~0UL}, {~0UL, ~0UL}};
    for (const auto& [start, count] : beyond) {
        EXPECT_EQ(Curl_SetHttpHead_Range(handles[1], 1, 1), 0);
        EXPECT_EQ(Curl_SetHttpHead_Range(handles[1], start, count), -1);
        EXPECT_EQ(RangeLine(handles[1], server), "") << start << " + " << count;
    }
    Curl_ReleaseHttpHead_Range(handles[0]);
    EXPECT_EQ(RangeLine(handles[0], server), "");
    EXPECT_EQ(Curl_SetHttpHead_Range(nullptr, 1, 1), -1);

    // Every second one goes without a word; some of the new ones get their addresses.
    for (std::size_t i = 0; i < handles.size(); ++i) {
        if (i % 2 == 0) Curl_ReleaseHttpHead_Range(handles[i]);
        curl_easy_cleanup(handles[i]);
        handles[i] = curl_easy_init();
        EXPECT_EQ(Curl_SetHttpHead_Range(handles[i], i, 1), 0);
    }
    EXPECT_EQ(RangeLine(handles[299], server), "Range: bytes=299-300\r\n");
    for (CURL* handle : handles) {
        Curl_ReleaseHttpHead_Range(handle);
        curl_easy_cleanup(handle);
    }
}

}  // namespace
