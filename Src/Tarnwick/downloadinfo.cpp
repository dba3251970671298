#include "Tarnwick/downloadinfo.h"

#include <curl/curl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <string_view>
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

// Whether the blocks of a file of this size can be described.
bool HasPossibleMap(const tagDownloadInfo& info) {
    if (info.uFileSize == 0) return true;
    return info.uFileSize <= UINT32_MAX && info.nBlockCount >= 1 &&
           info.nBlockCount <= DOWNLOAD_MAX_BLOCKS;
}

// Length of a record up to the end of its texts. What is stored in a file must have that much to be
// brought up to date.
constexpr std::size_t kTextsEnd = offsetof(tagDownloadInfo, uBlockStart);

// Whether the record, of which the file held `length` bytes, is one of this task. A text that the
// file did not hold in full is not compared.
bool IsRecordOf(const tagTaskContext& task, const tagDownloadInfo& info, std::size_t length) {
    const bool hasID = length >= offsetof(tagDownloadInfo, nBlockCount);
    const bool hasPath = length >= kTextsEnd;
    return HasPossibleMap(info) &&
           (!hasID || FieldView(info.szTaskID) == FieldView(task.szTaskID)) &&
           (!hasPath || FieldView(info.szFilePath) == FieldView(task.szFilePath));
}

// Divides the file into blocks, in 32-bit arithmetic; without a size there are none.
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

// Zero-fills `to`, then stores the text of `from`, which may fill it to the last byte.
template <std::size_t Width, std::size_t From>
void CopyText(char (&to)[Width], const char (&from)[From]) {
    const std::string_view text = FieldView(from).substr(0, Width);
    std::memset(to, 0, Width);
    std::memcpy(to, text.data(), text.size());
}

// Fills the record from the task and a size probe. False when its blocks cannot be described.
bool Describe(tagDownloadInfo& info, tagTaskContext* taskCon) {
    CopyText(info.szTaskID, taskCon->szTaskID);
    CopyText(info.szOrgUrl, taskCon->szOrgUrl);
    CopyText(info.szDownloadUrl, taskCon->szDownloadUrl);
    CopyText(info.szFilePath, taskCon->szFilePath);
    info.uFileSize = GetFileSize(nullptr, taskCon);
    info.nDownloadInfoTag = taskCon->nDownloadInfoTag;
    info.nBlockCount = static_cast<std::uint32_t>(taskCon->nBlockCount);
    if (!HasPossibleMap(info)) return false;
    SetBlockMap(info);
    return true;
}

bool Create(const std::string& name, tagTaskContext* taskCon) {
    tagDownloadInfo info;
    if (!Describe(info, taskCon)) return false;
    InfoFile file = OpenInfoFile(name, "wb+");
    return file && Store(std::move(file), info);
}

bool Update(const std::string& name, tagTaskContext* taskCon) {
    InfoFile file = OpenInfoFile(name, "rb+");
    if (!file) return false;
    tagDownloadInfo info;
    const std::size_t length = std::fread(&info, 1, sizeof info, file.get());
    if (length < kTextsEnd || !IsRecordOf(*taskCon, info, length)) return false;
    if (FieldView(info.szDownloadUrl) == FieldView(taskCon->szDownloadUrl)) {
        g_FileSize = info.uFileSize;
    } else if (!Describe(info, taskCon)) {
        return false;
    }
    return Store(std::move(file), info);
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
    if (FieldView(taskCon->szFilePath).size() >= sizeof tagDownloadInfo::szFilePath) return false;
    const std::string name = InfoFileName(*taskCon);
    const bool anew = taskCon->nCmd == TASK_CMD_DOWNLOAD_SECOND || !sysutility::FileExists(name);
    return anew ? Create(name, taskCon) : Update(name, taskCon);
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
    // The handle no longer uses its previous list, which is freed here; or it was the list of an
    // earlier handle at the same address.
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
