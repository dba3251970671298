// Download info files of any content, and tasks that meet them.
#include <curl/curl.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "Tarnwick/downloadinfo.h"
#include "fuzz.h"
#include "support/job.h"

namespace {

std::uint64_t g_announced = 0;

bool HasMap(std::uint64_t size, std::uint32_t blocks) {
    return size == 0 || (size <= UINT32_MAX && blocks >= 1 && blocks <= 10);
}

// The record in the task's file, which holds `bytes`; null when its texts are not there in full.
std::unique_ptr<tagDownloadInfo> Read(tagTaskContext& task, const std::string& bytes) {
    std::unique_ptr<tagDownloadInfo> info(GetDownloadMapInfoFormDownloadInfoFile(&task));
    if (!info || bytes.size() < offsetof(tagDownloadInfo, uBlockStart)) return nullptr;
    Expect(std::memcmp(info.get(), bytes.data(), std::min(bytes.size(), sizeof *info)) == 0,
           "the file was read");
    Expect(FieldView(info->szTaskID) == FieldView(task.szTaskID), "the record is the task's");
    Expect(FieldView(info->szFilePath) == FieldView(task.szFilePath), "it has the task's path");
    Expect(HasMap(info->uFileSize, info->nBlockCount), "it can have a map");
    return info;
}

}  // namespace

// The size probe: the server announces what the input says.
extern "C" CURLcode curl_easy_perform(CURL*) {
    g_FileSize = g_announced;
    return CURLE_WRITE_ERROR;
}

void Fuzz(Input input) {
    static const test_support::Job job;
    static const test_support::TempDir directory;
    g_DownloadConfigPath = directory.Path();
    const auto flags = input.Take<std::uint8_t>();
    const bool anew = (flags & 1) != 0;
    const bool fits = (flags & 2) == 0;
    tagTaskContext task;
    SetField(task.szTaskID, "fuzz");
    SetField(task.szDownloadUrl, "http://a/1");
    SetField(task.szFilePath, (flags & 2) != 0 ? std::string(512, 'p') : "/out/file");
    if ((flags & 4) != 0) std::memset(task.szOrgUrl, 'u', sizeof task.szOrgUrl);
    task.nCmd = anew ? TASK_CMD_DOWNLOAD_SECOND : TASK_CMD_DOWNLOAD;
    task.nTryCount = 1;
    task.nBlockCount = input.Take<std::int32_t>();
    g_announced = input.Take<std::uint64_t>();
    const std::string bytes = input.Text();
    const std::string file = directory.Path("fuzz.config");
    std::remove(file.c_str());  // file systems take their time to write over a file
    test_support::WriteFile(file, bytes);

    const auto stored = Read(task, bytes);
    const bool kept =
        !anew && stored && FieldView(stored->szDownloadUrl) == FieldView(task.szDownloadUrl);
    const bool renewed =
        (anew || stored) && HasMap(g_announced, static_cast<std::uint32_t>(task.nBlockCount));
    g_FileSize = 0;
    g_TryCount = 0;
    const bool done = InitDownloadInfofile(&task);
    Expect(done == (fits && (kept || renewed)), "what is sound is taken, all else refused");
    const std::string after = test_support::ReadFile(file);
    Expect(done ? after.size() == sizeof *stored : after == bytes, "what is refused stays");
    Expect(!kept || after.starts_with(bytes.substr(0, after.size())), "so does a right record");
    const auto made = Read(task, after);
    if (!done) return;
    Expect(made && g_FileSize == made->uFileSize, "the size is known");
    Expect(kept || made->uFileSize == g_announced, "it is the server's");
    Expect(FieldView(made->szDownloadUrl) == FieldView(task.szDownloadUrl), "so is the address");
    if (kept || made->uFileSize == 0) return;
    for (std::uint32_t i = 1; i < made->nBlockCount; ++i) {
        Expect(made->uBlockStart[i] == made->uBlockEnd[i - 1] + 1, "blocks have no gaps");
    }
    Expect(made->uBlockEnd[made->nBlockCount - 1] + 1 == static_cast<std::uint32_t>(g_announced),
           "they end with the file");
}
