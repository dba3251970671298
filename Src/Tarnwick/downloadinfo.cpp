#include "Tarnwick/downloadinfo.h"

#include <curl/curl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "Tarnwick/filesize.h"
#include "Tarnwick/jobstate.h"
#include "common/AutoLock.h"
#include "common/fieldtext.h"
#include "common/keepstores.h"
#include "common/mutex.h"
#include "common/stringutility.h"
#include "common/sysutility.h"

namespace {

void SetDefaults(tagDownloadInfo& info) {
    std::memset(static_cast<void*>(&info), 0, sizeof info);
    info.nDownloadInfoTag = -1;
    KeepStores(&info);
}

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using InfoFile = std::unique_ptr<std::FILE, CloseFile>;

// Null when the file cannot be opened, or is no ordinary one.
InfoFile OpenInfoFile(const std::string& name, const char* mode) {
    InfoFile file(std::fopen(name.c_str(), mode));
    struct stat status {};
    if (file && (fstat(fileno(file.get()), &status) != 0 || !S_ISREG(status.st_mode))) return {};
    return file;
}

std::string InfoFileName(const tagTaskContext& task) {
    return sysutility::IncludeTrailingPathDelimiter(g_DownloadConfigPath) +
           FieldText(task.szTaskID) + DOWNLOAD_CONFIG_FILE_EXT_NAME;
}

// Makes `info` all that the file holds, and closes it.
bool Store(InfoFile file, const tagDownloadInfo& info) {
    std::FILE* stream = file.get();
    const bool stored = std::fseek(stream, 0, SEEK_SET) == 0 &&
                        std::fwrite(&info, sizeof info, 1, stream) == 1 &&
                        std::fflush(stream) == 0 && ftruncate(fileno(stream), sizeof info) == 0;
    return std::fclose(file.release()) == 0 && stored;
}

template <std::size_t Width>
bool IsTerminated(const char (&field)[Width]) {
    return strnlen(field, Width) < Width;
}

// Whether the task's texts fit the record.
bool FitsRecord(const tagTaskContext& task) {
    return IsTerminated(task.szTaskID) && IsTerminated(task.szOrgUrl) &&
           IsTerminated(task.szDownloadUrl) &&
           FieldText(task.szFilePath).size() < sizeof tagDownloadInfo::szFilePath;
}

// Whether the blocks of a file of this size can be described.
bool HasPossibleMap(const tagDownloadInfo& info) {
    if (info.uFileSize == 0) return true;
    return info.uFileSize <= UINT32_MAX && info.nBlockCount >= 1 &&
           info.nBlockCount <= DOWNLOAD_MAX_BLOCKS;
}

// Whether the `length` bytes of a record that a file held are a record of this task. A text that is
// not there in full is not compared.
bool IsRecordOf(const tagTaskContext& task, const tagDownloadInfo& info, std::size_t length) {
    if (!IsTerminated(info.szTaskID) || !IsTerminated(info.szOrgUrl) ||
        !IsTerminated(info.szDownloadUrl) || !IsTerminated(info.szFilePath)) {
        return false;
    }
    const bool hasID = length >= offsetof(tagDownloadInfo, nBlockCount);
    const bool hasPath = length >= offsetof(tagDownloadInfo, uBlockStart);
    return HasPossibleMap(info) &&
           (!hasID || FieldText(info.szTaskID) == FieldText(task.szTaskID)) &&
           (!hasPath || FieldText(info.szFilePath) == FieldText(task.szFilePath));
}

// Divides the file into blocks, all in 32 bits; without a size there are none.
void SetBlockMap(tagDownloadInfo& info) {
    std::memset(info.uBlockStart, 0, sizeof info.uBlockStart);
    std::memset(info.uBlockPos, 0, sizeof info.uBlockPos);
    std::memset(info.uBlockEnd, 0, sizeof info.uBlockEnd);
    if (info.uFileSize == 0) return;
    const auto length = static_cast<std::uint32_t>(info.uFileSize / info.nBlockCount + 1);
    for (std::uint32_t i = 0; i < info.nBlockCount; ++i) {
        info.uBlockStart[i] = length * i;
        info.uBlockPos[i] = length * i - 1;
        info.uBlockEnd[i] = length * (i + 1) - 1;
    }
    info.uBlockEnd[info.nBlockCount - 1] = static_cast<std::uint32_t>(info.uFileSize - 1);
}

// Describes the task anew, with a size probe. False when what came out has no map.
bool Describe(tagDownloadInfo& info, tagTaskContext* taskCon) {
    SetField(info.szTaskID, FieldText(taskCon->szTaskID));
    SetField(info.szOrgUrl, FieldText(taskCon->szOrgUrl));
    SetField(info.szDownloadUrl, FieldText(taskCon->szDownloadUrl));
    SetField(info.szFilePath, FieldText(taskCon->szFilePath));
    info.uFileSize = GetFileSize(nullptr, taskCon);
    info.nDownloadInfoTag = taskCon->nDownloadInfoTag;
    info.nBlockCount = static_cast<std::uint32_t>(taskCon->nBlockCount);
    if (!HasPossibleMap(info)) return false;
    SetBlockMap(info);
    return true;
}

struct FreeList {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using HeaderList = std::unique_ptr<curl_slist, FreeList>;

// libcurl does not copy a header list, so each stays here while its handle may use it.
struct HeaderLists {
    Threading::Mutex lock;
    std::map<void*, HeaderList> ofHandle TS_GUARDED_BY(lock);
};

// Never destroyed: a handle may be in use on another thread while the process ends.
HeaderLists& Lists() {
    static HeaderLists& lists = *new HeaderLists;
    return lists;
}

}  // namespace

tagDownloadInfo::tagDownloadInfo() {
    SetDefaults(*this);
}

tagDownloadInfo::~tagDownloadInfo() {
    SetDefaults(*this);
}

bool InitDownloadInfofile(tagTaskContext* taskCon) {
    if (!FitsRecord(*taskCon)) return false;
    const std::string name = InfoFileName(*taskCon);
    tagDownloadInfo info;
    if (taskCon->nCmd == TASK_CMD_DOWNLOAD_SECOND || !sysutility::FileExists(name)) {
        if (!Describe(info, taskCon)) return false;
        InfoFile created = OpenInfoFile(name, "wb+");
        return created && Store(std::move(created), info);
    }

    InfoFile file = OpenInfoFile(name, "rb+");
    if (!file || std::fread(&info, sizeof info, 1, file.get()) != 1 ||
        !IsRecordOf(*taskCon, info, sizeof info)) {
        return false;
    }
    if (FieldText(info.szDownloadUrl) == FieldText(taskCon->szDownloadUrl)) {
        g_FileSize = info.uFileSize;
    } else if (!Describe(info, taskCon)) {
        return false;
    }
    return Store(std::move(file), info);
}

tagDownloadInfo* GetDownloadMapInfoFormDownloadInfoFile(tagTaskContext* taskCon) {
    const std::string name = InfoFileName(*taskCon);
    if (!sysutility::FileExists(name)) return nullptr;
    const InfoFile file = OpenInfoFile(name, "rb+");
    if (!file) return nullptr;
    auto info = std::make_unique<tagDownloadInfo>();
    const std::size_t length = std::fread(info.get(), 1, sizeof *info, file.get());
    return IsRecordOf(*taskCon, *info, length) ? info.release() : nullptr;
}

int Curl_SetHttpHead_Range(void* curl, unsigned long start, unsigned long count) {
    HeaderList list;
    if (start <= INT32_MAX && count <= INT32_MAX - start) {
        char header[256];
        strutil::vsnpf(header, sizeof header, "Range: bytes=%d-%d\r\n", static_cast<int>(start),
                       static_cast<int>(start + count));
        list.reset(curl_slist_append(nullptr, header));
    }
    if (!list || curl_easy_setopt(curl, CURLOPT_HTTPHEADER, list.get()) != CURLE_OK) {
        Curl_ReleaseHttpHead_Range(curl);
        return -1;
    }
    // The handle has let go of its former list, which is freed here. So is the list of a handle
    // that is no more and had the same address.
    Threading::AutoLock hold(&Lists().lock);
    Lists().ofHandle[curl] = std::move(list);
    return 0;
}

void Curl_ReleaseHttpHead_Range(void* curl) {
    Threading::AutoLock hold(&Lists().lock);
    const auto found = Lists().ofHandle.find(curl);
    if (found == Lists().ofHandle.end()) return;
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, nullptr);
    Lists().ofHandle.erase(found);
}
