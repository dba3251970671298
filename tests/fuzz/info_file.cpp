// Download info files of any content, and records of tasks that meet them.
#include <curl/curl.h>

#include <cstring>
#include <memory>
#include <vector>

#include "Tarnwick/downloadinfo.h"
#include "Tarnwick/jobstate.h"
#include "common/fieldtext.h"
#include "fuzz.h"
#include "support/helpers.h"

using fuzz::Expect;

namespace {

std::uint64_t g_announced = 0;

constexpr const char* kID = "fuzz";
constexpr const char* kPath = "/out/file";

enum Flag : std::uint8_t {
    kAnew = 1,
    kNoFile = 2,
    kOtherAddress = 4,
    kEndlessPage = 8,
    kLongPath = 16,
};

// The process of a worker that has claimed slot 0, with no file but the ones the target writes.
struct Worker {
    Worker() {
        g_VideoInfoSection.hPrt = reinterpret_cast<char*>(memory.data());
        g_TaskIndex = 0;
        g_TaskInfo.mutexLock = new Threading::Mutex;
        SetField(g_TaskInfo.szTaskID, kID);
        SetField(SlotAt(g_VideoInfoSection, 0)->szTaskID, kID);
        g_DownloadConfigPath = directory.Path();
    }
    std::vector<std::uint64_t> memory = std::vector<std::uint64_t>(SHARE_MEM_SIZE / 8 + 1);
    const test_support::TempDir directory;
    const std::string name = directory.Path(std::string(kID) + ".config");
};

tagTaskContext MakeTask(std::uint8_t flags, std::int32_t blocks) {
    tagTaskContext task;
    SetField(task.szTaskID, kID);
    SetField(task.szDownloadUrl, (flags & kOtherAddress) != 0 ? "http://b" : "http://a/1");
    SetField(task.szFilePath, (flags & kLongPath) != 0 ? std::string(512, 'p') : kPath);
    if ((flags & kEndlessPage) != 0) std::memset(task.szOrgUrl, 'u', sizeof task.szOrgUrl);
    task.nCmd = (flags & kAnew) != 0 ? TASK_CMD_DOWNLOAD_SECOND : TASK_CMD_DOWNLOAD;
    task.nTryCount = 1;
    task.nBlockCount = blocks;
    task.nDownloadInfoTag = 77;
    return task;
}

bool HasMap(std::uint64_t size, std::uint32_t blocks) {
    return size == 0 || (size >> 32 == 0 && blocks - 1 < 10);
}

bool IsSound(const tagDownloadInfo& info) {
    return std::memchr(info.szOrgUrl, 0, 1024) != nullptr &&
           std::memchr(info.szDownloadUrl, 0, 1024) != nullptr &&
           std::memcmp(info.szTaskID, kID, std::strlen(kID) + 1) == 0 &&
           std::memcmp(info.szFilePath, kPath, std::strlen(kPath) + 1) == 0 &&
           HasMap(info.uFileSize, info.nBlockCount);
}

std::string Bytes(const tagDownloadInfo& info) {
    return std::string(reinterpret_cast<const char*>(&info), sizeof info);
}

tagDownloadInfo Record(const std::string& bytes) {
    tagDownloadInfo info;
    std::copy_n(bytes.begin(), std::min(bytes.size(), sizeof info), reinterpret_cast<char*>(&info));
    return info;
}

void CheckBlocks(const tagDownloadInfo& info) {
    const std::uint32_t blocks = info.uFileSize == 0 ? 0 : info.nBlockCount;
    for (std::uint32_t i = 0; i < DOWNLOAD_MAX_BLOCKS; ++i) {
        const bool used = i < blocks;
        const std::uint64_t length = used ? info.uFileSize / blocks + 1 : 0;
        const std::uint64_t end = i + 1 == blocks ? info.uFileSize : length * (i + 1);
        Expect(info.uBlockStart[i] == static_cast<std::uint32_t>(length * i), "it begins there");
        Expect(info.uBlockPos[i] == info.uBlockStart[i] - used, "nothing of it is there");
        Expect(info.uBlockEnd[i] == static_cast<std::uint32_t>(end - used), "it ends there");
    }
}

void CheckReading(tagTaskContext task, const std::string& bytes) {
    const tagDownloadInfo stored = Record(bytes);
    const std::unique_ptr<tagDownloadInfo> read(GetDownloadMapInfoFormDownloadInfoFile(&task));
    Expect(read == nullptr || Bytes(*read) == Bytes(stored), "the file was read, then defaults");
    if (bytes.size() < DOWNLOAD_INFO_SIZE || !FieldEmpty(task.szOrgUrl)) return;
    Expect((read != nullptr) == IsSound(stored), "sound records are read, no others");
}

}  // namespace

// The size probe: the server announces what the input says.
extern "C" CURLcode curl_easy_perform(CURL*) {
    g_FileSize = g_announced;
    return CURLE_WRITE_ERROR;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Worker worker;
    fuzz::Input input(data, size);
    const auto flags = input.Take<std::uint8_t>();
    tagTaskContext task = MakeTask(flags, input.Take<std::int32_t>());
    g_announced = input.Take<std::uint64_t>();
    const std::string bytes = input.Rest();
    std::remove(worker.name.c_str());
    if ((flags & kNoFile) == 0) test_support::WriteFile(worker.name, bytes);
    if ((flags & (kNoFile | kLongPath)) == 0) CheckReading(task, bytes);

    const bool fresh = (flags & (kAnew | kNoFile)) != 0;
    const tagDownloadInfo stored = Record(bytes);
    const bool usable = bytes.size() >= DOWNLOAD_INFO_SIZE && IsSound(stored);
    const bool kept =
        !fresh && usable && FieldView(stored.szDownloadUrl) == FieldView(task.szDownloadUrl);
    bool expected = (flags & (kEndlessPage | kLongPath)) == 0 && (fresh || usable);
    if (!kept && !HasMap(g_announced, static_cast<std::uint32_t>(task.nBlockCount)))
        expected = false;
    g_FileSize = 0;
    g_TryCount = 0;
    g_Exit = false;
    Expect(InitDownloadInfofile(&task) == expected, "the model agrees");

    const std::string after = test_support::ReadFile(worker.name);
    if (!expected) {
        Expect(after == ((flags & kNoFile) != 0 ? "" : bytes), "the file is as it was");
        return 0;
    }
    Expect(after.size() == DOWNLOAD_INFO_SIZE, "the file holds one record");
    const tagDownloadInfo made = Record(after);
    Expect(g_FileSize == made.uFileSize, "the size is known");
    if (kept) {
        Expect(after == bytes.substr(0, DOWNLOAD_INFO_SIZE), "the record is as it was");
    } else {
        Expect(made.uFileSize == g_announced, "the size is the server's");
        Expect(FieldView(made.szDownloadUrl) == FieldView(task.szDownloadUrl), "so is the address");
        CheckBlocks(made);
    }
    CheckReading(task, after);
    return 0;
}
