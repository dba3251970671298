// The download info file: what a task downloads, and how the file is divided into blocks that can
// be fetched one by one with ranged requests.
//
// It lies in the directory g_DownloadConfigPath, is named after the task's id, and holds one
// tagDownloadInfo as it is in memory. Job thread only, but for the ranges.
#pragma once

#include <cstddef>
#include <cstdint>

#include "TaskMan/taskcontext.h"

constexpr const char* DOWNLOAD_CONFIG_FILE_EXT_NAME = ".config";

constexpr std::size_t DOWNLOAD_INFO_SIZE = 2760;
constexpr std::uint32_t DOWNLOAD_MAX_BLOCKS = 10;

// Little-endian, without padding: uFileSize lies at an offset that 8 does not divide. Constructor
// and destructor both write the defaults, zeros where none is given.
#pragma pack(push, 4)
struct tagDownloadInfo {
    tagDownloadInfo();
    ~tagDownloadInfo();
    tagDownloadInfo(const tagDownloadInfo&) = default;
    tagDownloadInfo& operator=(const tagDownloadInfo&) = default;

    char szTaskID[64];
    std::uint32_t nBlockCount;                       // 1 to 10 when the size is known
    std::uint64_t uFileSize;                         // bytes, below 2^32; 0: unknown
    std::int32_t nDownloadInfoTag;                   // the task's; default -1
    char szOrgUrl[1024];                             // address of the video page
    char szDownloadUrl[1024];                        // address of the file
    char szFilePath[512];                            // path of the output file
    std::uint32_t uBlockStart[DOWNLOAD_MAX_BLOCKS];  // first byte of each block
    std::uint32_t uBlockPos[DOWNLOAD_MAX_BLOCKS];    // last byte that is there; new: start - 1
    std::uint32_t uBlockEnd[DOWNLOAD_MAX_BLOCKS];    // last byte of each block
};
#pragma pack(pop)

static_assert(sizeof(tagDownloadInfo) == DOWNLOAD_INFO_SIZE);
static_assert(offsetof(tagDownloadInfo, nBlockCount) == 64);
static_assert(offsetof(tagDownloadInfo, uFileSize) == 68);
static_assert(offsetof(tagDownloadInfo, nDownloadInfoTag) == 76);
static_assert(offsetof(tagDownloadInfo, szOrgUrl) == 80);
static_assert(offsetof(tagDownloadInfo, szDownloadUrl) == 1104);
static_assert(offsetof(tagDownloadInfo, szFilePath) == 2128);
static_assert(offsetof(tagDownloadInfo, uBlockStart) == 2640);
static_assert(offsetof(tagDownloadInfo, uBlockPos) == 2680);
static_assert(offsetof(tagDownloadInfo, uBlockEnd) == 2720);

// Creates the task's file, or brings it up to date. A new file (there is none, or the command is 3)
// and a file with another download address are filled from the task and from a size probe, with all
// the probe's effects; a probe without a result leaves the size 0 and no blocks. A file with the
// same address stays as it is, and g_FileSize becomes the size it holds.
//
// Returns true when the record is stored. Returns false, and leaves the file alone, for a task
// whose path has 512 bytes or more or one of whose texts fills its field; for 2^32 bytes or more,
// or a number of blocks outside 1 to 10, when the size is known; for a file that cannot be opened
// or is shorter than a record; and for a stored record with those faults, or of another task or
// path. False also when writing fails.
bool InitDownloadInfofile(tagTaskContext* taskCon);

// Reads the task's file. Returns a new record, which the caller deletes; fields that a shorter file
// lacks have their defaults. Returns null when there is no such file, it cannot be opened for
// reading and writing, or it holds what InitDownloadInfofile refuses in a stored record.
tagDownloadInfo* GetDownloadMapInfoFormDownloadInfoFile(tagTaskContext* taskCon);

// Makes the next transfers of the handle ask for the bytes `start` to start + count, both included.
// Positions are below 2^31. Returns 0; or -1 for a position beyond and when the header cannot be
// set: the header of an earlier call is then gone too.
//
// The handle's CURLOPT_HTTPHEADER belongs to this operation from the first call on. The list it
// sets lives until the next call for the handle or until Curl_ReleaseHttpHead_Range. Any thread may
// call, for handles of its own.
int Curl_SetHttpHead_Range(void* curl, unsigned long start, unsigned long count);

// Takes the header off the handle again and frees its list; nothing happens when there is none. To
// be called before curl_easy_cleanup, which libcurl announces to nobody: the list of a handle that
// was cleaned up without it stays until a later handle at the same address is given a range, or
// until the process ends.
void Curl_ReleaseHttpHead_Range(void* curl);
