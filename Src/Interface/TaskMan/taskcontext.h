// The shared task section and its records: the binary interface between a task manager and its
// workers.
//
// A task manager owns one section of POSIX shared memory. It holds eight slots, one per task, and a
// common area. TM below is the task manager, W the worker that serves the slot. Every write of a
// worker, and every take-and-clear of the manager, happens under the task's named lock, a
// Threading::Mutex whose name is the task id. Without the lock W reads nControl and nReserved3, and
// the request once before it claims the slot.
//
// All numbers are little-endian, all texts zero-padded byte arrays. A reader treats texts as
// unterminated (common/fieldtext.h): the other side may have died in the middle of one.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "common/TraceLog.h"
#include "common/mutex.h"

constexpr int TASK_SLOT_COUNT = 8;
constexpr std::size_t TASK_SLOT_SIZE = 24704;
constexpr std::size_t TASK_COMMDATA_SIZE = 1025;
constexpr std::size_t TASK_COMMDATA_OFFSET = TASK_SLOT_COUNT * TASK_SLOT_SIZE;
constexpr std::size_t SHARE_MEM_SIZE = TASK_COMMDATA_OFFSET + TASK_COMMDATA_SIZE;

// First part of every section's name; an underscore and the manager's process id follow.
constexpr const char* SHARE_MEM_NAME = "ZentuTaskmanShareMem";

// What a task is to do: tagTaskContext::nCmd. Any other value is handled like a page.
constexpr std::int32_t TASK_CMD_PARSE = 0;
constexpr std::int32_t TASK_CMD_DOWNLOAD = 1;
constexpr std::int32_t TASK_CMD_DOWNLOAD_SECOND = 3;

constexpr bool IsDownloadCommand(std::int32_t nCmd) {
    return nCmd == TASK_CMD_DOWNLOAD || nCmd == TASK_CMD_DOWNLOAD_SECOND;
}

// Value of tagTaskContext::nControl that asks the worker to stop.
constexpr std::int32_t TASK_CONTROL_STOP = 2;

// What a worker reports. Code n is bit n of tagTaskContext::nStateBits. A task ends with exactly
// one of the final codes 1, 3, 6, 7, 8 and 16; the others inform.
enum tagDownloadStateCode : std::int32_t {
    DOWNLOAD_STATE_PARSE_START = 0,      // work on a page has begun (command 0 only)
    DOWNLOAD_STATE_PARSE_FINISH = 1,     // final: szVideoInfo holds the information text
    DOWNLOAD_STATE_DOWNLOAD_START = 2,   // the first bytes of the file have arrived
    DOWNLOAD_STATE_DOWNLOAD_FINISH = 3,  // final: the transfer ended with response code 200
    DOWNLOAD_STATE_PROGRESS = 4,         // dProgress holds a new percentage
    DOWNLOAD_STATE_SPEED = 5,            // dSpeed holds a new speed
    DOWNLOAD_STATE_PARSE_FAIL = 6,       // final: failed, command 0
    DOWNLOAD_STATE_DOWNLOAD_FAIL = 7,    // final: failed, any other command
    DOWNLOAD_STATE_STOPPED = 8,          // final: stopped on request
    DOWNLOAD_STATE_FILE_SIZE = 10,       // dFileSize holds the size of the file
    DOWNLOAD_STATE_INFO_TOO_LONG = 16,   // final: the information text does not fit szVideoInfo
};

// The bits of all final codes.
constexpr std::uint32_t FINAL_STATE_BITS =
    1U << DOWNLOAD_STATE_PARSE_FINISH | 1U << DOWNLOAD_STATE_DOWNLOAD_FINISH |
    1U << DOWNLOAD_STATE_PARSE_FAIL | 1U << DOWNLOAD_STATE_DOWNLOAD_FAIL |
    1U << DOWNLOAD_STATE_STOPPED | 1U << DOWNLOAD_STATE_INFO_TOO_LONG;

// Whether `code`, 0 to 31, is one with which a task ends.
constexpr bool IsFinalCode(int code) {
    return (FINAL_STATE_BITS >> code & 1U) != 0;
}

// One slot of the section. Constructor and destructor both write the defaults given here (zeros
// where none is given), so that no password or signed address outlives a record in memory.
struct tagTaskContext {
    tagTaskContext();
    ~tagTaskContext();
    tagTaskContext(const tagTaskContext&) = default;
    tagTaskContext& operator=(const tagTaskContext&) = default;

    char szTaskID[64];              // TM writes: id of the task, at most 63 bytes; name of its lock
    char szOrgUrl[1024];            // TM writes: address of the video page (command 0)
    char szDownloadUrl[1024];       // TM writes: address of the file (commands 1 and 3)
    char szFilePath[1024];          // TM writes: path of the output file
    char szReserved1[1024];         // nobody
    std::int32_t nCmd;              // TM writes: 0 resolve a page, 1 and 3 download; default -1
    std::int32_t nTaskKind;         // TM writes: 0 ordinary, 1 counts as a parse job; default -1
    std::int32_t nReserved1;        // default -1
    std::int32_t nReserved2;        // default -1
    char szProxyHost[128];          // TM writes: host of the proxy
    std::int32_t nProxyPort;        // TM writes: port of the proxy
    std::int32_t nProxyType;        // TM writes: libcurl's value for CURLOPT_PROXYTYPE
    char szProxyUser[128];          // TM writes: user at the proxy; empty: no credentials
    char szProxyPassword[128];      // TM writes: password at the proxy
    std::int32_t bUseProxy;         // TM writes: not 0: transfers go through the proxy
    std::int32_t nBlockCount;       // TM writes: blocks of the download map, 0 to 10; default 3
    std::int32_t nTryCount;         // TM writes: tries of a transfer, 0 to 3, anything else is 3
    std::int32_t nTryInterval;      // TM writes: seconds between tries, 0 to 3, anything else is 3
    char szReserved2[64];           // nobody
    bool bReserved;                 // nobody; three bytes of padding follow
    std::int32_t nPid;              // W writes once, at intake: its process id; default -1
    std::int32_t bStateChanged;     // W sets 1 with every state bit; TM clears
    std::uint32_t nStateBits;       // W sets bits, TM takes and clears them
    double dFileSize;               // W writes with bit 10: bytes
    double dProgress;               // W writes with bit 4: whole percent; default -1
    double dSpeed;                  // W writes with bit 5: bytes per second; default -1
    std::int32_t nDownloadInfoTag;  // TM writes: copied into the download info file; default -1
    std::int32_t nControl;          // TM writes, one aligned store: 2 asks to stop; default -1
    std::int32_t nReserved3;        // TM writes, one aligned store: limit in KiB/s; default -1
    char szVideoInfo[20000];        // W writes with bit 1; a text of 20000 bytes has no terminator
    std::int32_t nReserved4;        // nobody
};

static_assert(sizeof(tagTaskContext) == TASK_SLOT_SIZE);
static_assert(offsetof(tagTaskContext, szOrgUrl) == 64);
static_assert(offsetof(tagTaskContext, szDownloadUrl) == 1088);
static_assert(offsetof(tagTaskContext, szFilePath) == 2112);
static_assert(offsetof(tagTaskContext, nCmd) == 4160);
static_assert(offsetof(tagTaskContext, szProxyHost) == 4176);
static_assert(offsetof(tagTaskContext, bUseProxy) == 4568);
static_assert(offsetof(tagTaskContext, nBlockCount) == 4572);
static_assert(offsetof(tagTaskContext, bReserved) == 4648);
static_assert(offsetof(tagTaskContext, nPid) == 4652);
static_assert(offsetof(tagTaskContext, nStateBits) == 4660);
static_assert(offsetof(tagTaskContext, dFileSize) == 4664);
static_assert(offsetof(tagTaskContext, nControl) == 4692);
static_assert(offsetof(tagTaskContext, szVideoInfo) == 4700);
static_assert(offsetof(tagTaskContext, nReserved4) == 24700);

// A task's state callback: `param` as the task gave it, the task id (valid during the call), the
// state code, its value (code 4 percent, 5 bytes per second, 10 bytes, else 0; code 3 -1 when the
// task's nTaskKind is 1) and the task's nTaskKind.
using TaskStateCallback = void (*)(void* param, const char* szTaskID, std::int32_t nCode,
                                   double dValue, std::int32_t nTaskKind);

// A task's result callback: `param`, the task id, the code 1, the information text and its length
// in bytes. The text is valid during the call only.
using TaskResultCallback = void (*)(void* param, const char* szTaskID, std::int32_t nCode,
                                    const char* szText, std::uint32_t nLength);

// A task as the application describes it. Fields that the slot has too mean what they mean there.
struct tagTaskInfo {
    // Takes at most 63 bytes of `id`; everything else gets the defaults given below.
    explicit tagTaskInfo(const char* id);
    ~tagTaskInfo();
    tagTaskInfo(const tagTaskInfo&) = default;
    tagTaskInfo& operator=(const tagTaskInfo&) = default;

    char szTaskID[64];
    char szOrgUrl[1024];
    char szDownloadUrl[1024];
    std::int32_t nCmd;        // default -1
    std::int32_t nTaskKind;   // default -1
    std::int32_t nReserved1;  // default -1
    std::int32_t nReserved2;  // default -1
    char szProxyHost[128];
    std::int32_t nProxyPort;
    std::int32_t nProxyType;
    char szProxyUser[128];
    char szProxyPassword[128];
    std::int32_t bUseProxy;
    std::int32_t nBlockCount;  // default 0
    char szFilePath[1024];
    std::int32_t nTryCount;                // default -1
    std::int32_t nTryInterval;             // default -1
    void* pCallbackParam;                  // handed back to both callbacks, never looked at
    TaskResultCallback pfnResultCallback;  // may be null: the result is dropped
    TaskStateCallback pfnStateCallback;    // may be null: the codes are dropped
};

static_assert(offsetof(tagTaskInfo, nCmd) == 2112);
static_assert(offsetof(tagTaskInfo, szProxyHost) == 2128);
static_assert(offsetof(tagTaskInfo, bUseProxy) == 2520);
static_assert(offsetof(tagTaskInfo, szFilePath) == 2528);
static_assert(offsetof(tagTaskInfo, nTryCount) == 3552);
static_assert(offsetof(tagTaskInfo, pCallbackParam) == 3560);
static_assert(sizeof(tagTaskInfo) == 3560 + 3 * sizeof(void*));

// A task in the manager's map; a worker keeps one for its own task.
struct tagTaskNode : tagTaskInfo {
    explicit tagTaskNode(const char* id);
    ~tagTaskNode();  // deletes mutexLock
    tagTaskNode(const tagTaskNode&) = delete;
    tagTaskNode& operator=(const tagTaskNode&) = delete;

    std::int32_t nTaskIndex;      // slot of the task, 0 to 7; default -1
    Threading::Mutex* mutexLock;  // the task's named lock; owned; default null
    std::int32_t nNodeReserved;
};

// An attached section.
struct tagVideoInfoSection {
    int hShm;            // descriptor of the section; -1 after an open that failed
    char* hPrt;          // slot 0, the start of the mapping; null while not attached
    char* pCommDataPrt;  // common area: the directory of the download info files; null as above
};

// Attaches the section `name` (null: SHARE_MEM_NAME), creating it with mode 0644 when there is
// none; an existing one keeps its contents. Names are cut to 61 bytes. Returns 0, or -1 when the
// section cannot be opened (hShm is -1 then), or its full size cannot be reserved or mapped (hShm
// is open then and the caller's); the pointers stay as they were.
int InitShareMem(tagVideoInfoSection* section, const char* name);

// Detaches and removes the name. The descriptor stays open and hPrt keeps its value, which must not
// be used any more. Always 0.
int UnInitShareMem(tagVideoInfoSection* section, const char* name);

// Name of the section of the manager with that process id.
std::string SectionName(int nManagerPid);

// Slot `nIndex` of an attached section; null when nothing is attached or the index is not 0 to 7.
// Every address of a slot is computed here.
tagTaskContext* SlotAt(const tagVideoInfoSection& section, int nIndex);

// Copies a whole slot, padding included. Both point to TASK_SLOT_SIZE bytes.
void CopySlot(void* to, const void* from);

// Copies the five proxy fields from a slot or a task's record into the other.
template <class To, class From>
void CopyProxy(To& to, const From& from) {
    std::memcpy(to.szProxyHost, from.szProxyHost, sizeof to.szProxyHost);
    to.nProxyPort = from.nProxyPort;
    to.nProxyType = from.nProxyType;
    std::memcpy(to.szProxyUser, from.szProxyUser, sizeof to.szProxyUser);
    std::memcpy(to.szProxyPassword, from.szProxyPassword, sizeof to.szProxyPassword);
}

// Sets bit `code` of the slot's states and marks them as changed. The caller holds the task's lock.
// A code outside 0 to 31 throws std::out_of_range ("bitset::set") before anything is written.
void SetStateBit(tagTaskContext& slot, tagDownloadStateCode code);

// The slot's control word, which the other side may write at any time.
std::int32_t LoadControl(const tagTaskContext& slot);
void StoreControl(tagTaskContext& slot, std::int32_t nControl);

// The limit on the rate of an extended download (nReserved3), in KiB per second; -1 and 0: none.
// The other side may write it at any time.
std::int32_t LoadRate(const tagTaskContext& slot);
void StoreRate(tagTaskContext& slot, std::int32_t nRate);

// The log of the task module.
extern TraceLog::TraceLog LogOut;

// The section this process has attached: the manager its own, a worker its manager's. Set before
// any task exists.
extern tagVideoInfoSection g_VideoInfoSection;

// A worker's view of the section: the common area, and its snapshot of the eight slots.
extern char* g_TaskCommData;
extern tagTaskContext g_TaskContext[TASK_SLOT_COUNT];

// Tells all loops of this process to stop working. Any thread may read and set it.
extern std::atomic<bool> g_Exit;
