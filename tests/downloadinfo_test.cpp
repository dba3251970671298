// Download info files, and ranges.
#include "Tarnwick/downloadinfo.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <memory>

#include "support/http_server.h"
#include "support/job.h"

using namespace test_support;

namespace {

// A field of the record: a text, or numbers of 32 bits, with zeros behind.
std::string Field(std::string text, std::size_t width) {
    text.resize(width);
    return text;
}

std::string Numbers(const std::vector<std::uint32_t>& numbers, std::size_t width) {
    const auto* bytes = reinterpret_cast<const char*>(numbers.data());
    return Field({bytes, 4 * numbers.size()}, width);
}

TEST(InfoFile, IsMadeKeptAndBroughtUpToDate) {
    const Job job;
    const TempDir directory;
    const std::string name = directory.Path(job.id + ".config");
    g_DownloadConfigPath = std::filesystem::path(name).parent_path();
    HttpServer server({Reply::Head("10000000", "x")});
    tagTaskContext task;
    SetField(task.szTaskID, job.id);
    SetField(task.szOrgUrl, "http://page");
    SetField(task.szDownloadUrl, server.Url("/a-rather-long-name"));
    SetField(task.szFilePath, "/out/file");
    task.nDownloadInfoTag = 77;
    const auto make = [&](const std::string& path) {
        return Field(job.id, 64) + Numbers({3, 10'000'000, 0, 77}, 16) +
               Field("http://page", 1024) + Field(server.Url(path), 1024) +
               Field("/out/file", 512) + Numbers({0, 3'333'334, 6'666'668}, 40) +
               Numbers({4294967295, 3'333'333, 6'666'667}, 40) +
               Numbers({3'333'333, 6'666'667, 9'999'999}, 40);
    };
    const auto read = [&task] {
        const std::unique_ptr<tagDownloadInfo> info(GetDownloadMapInfoFormDownloadInfoFile(&task));
        return info ? std::string(reinterpret_cast<char*>(info.get()), sizeof *info) : "none";
    };
    const std::string record = make("/a-rather-long-name");
    EXPECT_EQ(read(), "none");
    EXPECT_TRUE(InitDownloadInfofile(&task));
    EXPECT_EQ(read(), record);

    // The same address: all stays, without a request, but what stood behind the record.
    g_FileSize = 0;
    WriteFile(name, record + "junk");
    EXPECT_TRUE(InitDownloadInfofile(&task));
    EXPECT_EQ(ReadFile(name), record);
    EXPECT_EQ(g_FileSize, 10'000'000u);
    EXPECT_EQ(server.RequestCount(), 1u);

    // Another, shorter address: texts without an end and missing blocks do no harm, a missing or
    // another path does, except with command 3.
    SetField(task.szOrgUrl, "http://page");
    SetField(task.szDownloadUrl, server.Url("/short"));
    const auto update = [&](const std::string& stored) {
        WriteFile(name, stored);
        const bool updated = InitDownloadInfofile(&task);
        EXPECT_EQ(ReadFile(name), updated ? make("/short") : stored);
        return updated;
    };
    EXPECT_TRUE(update(make("").replace(80, 1024, 1024, 'u').substr(0, 2640)));
    EXPECT_FALSE(update(record.substr(0, 2639)));
    EXPECT_FALSE(update(std::string(record).replace(0, 1, "x")));
    task.nBlockCount = 11;
    EXPECT_FALSE(update(record));
    task.nBlockCount = 3;
    std::string others = record.substr(0, 2640) + std::string(120, '7');
    EXPECT_TRUE(update(others));
    EXPECT_FALSE(update(others.replace(2128, 512, 512, 'p')));
    EXPECT_EQ(read(), "none");
    task.nCmd = TASK_CMD_DOWNLOAD_SECOND;
    EXPECT_TRUE(update(others));
}

TEST(Range, OneHeaderPerHandle) {
    HttpServer server({Reply::Ok("")});
    const auto line = [&](CURL* curl) {
        curl_easy_setopt(curl, CURLOPT_URL, server.Url().c_str());
        EXPECT_EQ(curl_easy_perform(curl), CURLE_OK);
        const std::string request = server.Requests().back();
        const std::size_t begin = std::min(request.find("Range:"), request.size());
        return request.substr(begin, request.find("\r\n", begin) - begin);
    };
    CURL* one = curl_easy_init();
    CURL* other = curl_easy_init();
    EXPECT_EQ(Curl_SetHttpHead_Range(one, 1000, 499), 0);
    EXPECT_EQ(Curl_SetHttpHead_Range(other, 0, 2147483647), 0);
    EXPECT_EQ(line(one), "Range: bytes=1000-1499");
    EXPECT_EQ(line(other), "Range: bytes=0-2147483647");
    for (const auto& [start, count] : {std::pair(2147483648UL, 0UL), {2147483647, 1}, {1, ~0UL}}) {
        EXPECT_EQ(Curl_SetHttpHead_Range(other, 1, 1), 0);
        EXPECT_EQ(Curl_SetHttpHead_Range(other, start, count), -1);
        EXPECT_EQ(line(other), "") << start << " + " << count;
    }
    Curl_ReleaseHttpHead_Range(one);
    EXPECT_EQ(line(one), "");
    EXPECT_EQ(Curl_SetHttpHead_Range(nullptr, 1, 1), -1);

    // Handles that go without a word; later ones get their addresses.
    for (unsigned long i = 0; i < 10; ++i) {
        EXPECT_EQ(Curl_SetHttpHead_Range(one, i, 1), 0);
        curl_easy_cleanup(one);
        one = curl_easy_init();
    }
    curl_easy_cleanup(one);
    curl_easy_cleanup(other);
}

}  // namespace
