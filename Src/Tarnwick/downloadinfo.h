// The download info file: what a task downloads, and how the file is divided into blocks that can
// be fetched one by one with ranged requests.
//
// It lies in the directory g_DownloadConfigPath, is named after the task's id with ".config" behind
// it, and holds the memory image of one tagDownloadInfo. Job thread only, except for the ranges.
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
    std::uint32_t uBlockPos[DOWNLOAD_MAX_BLOCKS];    // last byte stored; in a new map start - 1
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

// Creates the task's file or brings it up to date. A new file (there is none, or the command is 3)
// and a file with another download address are filled from the task and from a size probe, with all
// the probe's effects; a probe that fails leaves the size 0 and no blocks. A file with the same
// address keeps its record, and g_FileSize becomes the size stored there. Either way the file holds
// exactly one record afterwards. Texts end at their terminator or at the end of their field.
//
// Returns true when the record is stored. Returns false, with the file unchanged, for a path of 512
// bytes or more; when the size is known, for 2^32 bytes or more or a number of blocks outside 1 to
// 10; for a file that cannot be opened or ends before its blocks, at 2640 bytes; and for a stored
// record of another task or path, or with a size and a number of blocks as above. Returns false
// also when writing fails.
bool InitDownloadInfofile(tagTaskContext* taskCon);

// Reads the task's file. Returns a new record, which the caller deletes; fields that a shorter file
// lacks have their defaults. Returns null when there is no such file, it cannot be opened for
// reading and writing, or its record, as far as it is there, is one that InitDownloadInfofile
// refuses.
tagDownloadInfo* GetDownloadMapInfoFormDownloadInfoFile(tagTaskContext* taskCon);

// Has the next transfers of the handle request the bytes `start` to start + count, both included
// (RFC 9110, 14.2). Positions are below 2^31. Returns 0; or -1 for a position beyond that and when
// the header cannot be set: the header of an earlier call is removed as well then.
//
// The handle's CURLOPT_HTTPHEADER belongs to this operation from the first call on. The list that
// it sets lives until the next call for the handle or until Curl_ReleaseHttpHead_Range. Any thread
// may call, for handles of its own.
int Curl_SetHttpHead_Range(void* curl, unsigned long start, unsigned long count);

// Removes the header from the handle and frees its list; does nothing when there is none. To be
// called before curl_easy_cleanup, of which nobody is notified: the list of a handle that was
// cleaned up without it stays until a later handle at the same address is given a range, or until
// the process exits.
void Curl_ReleaseHttpHead_Range(void* curl);
