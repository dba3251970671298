// The two texts of an extended task: the request that its worker gets over its channel, and the
// answer that the worker leaves in szVideoInfo of its slot.
//
// Both consist of lines "key=value", each ended by CR LF; a value holds no CR, LF or zero byte. Of
// a key that comes more than once the last line counts, but for a list, to which each adds; unknown
// keys are skipped. An empty line ends the request; the answer ends where its field does.
//
// Nothing here keeps state; any thread may call. Texts to decode come from another process: any
// bytes will do, and what is refused leaves the record as it was.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Value of tagTaskContext::nReserved1 of an extended task.
constexpr std::int32_t TASK_EXTENDED = 1;

constexpr std::size_t TASK_REQUEST_MOST = 64 * 1024;  // bytes, with the empty line
constexpr std::size_t TASK_ANSWER_MOST = 20000;       // bytes, as wide as szVideoInfo
constexpr std::size_t TASK_ADDRESS_MOST = 16 * 1024;  // bytes of an address

// What the worker sends over its channel once its final code is in the slot, if it is to exit.
constexpr const char* TASK_CHANNEL_END = "end\r\n";

// What a worker sends that stays once it has forgotten its task, and the beginning of what it gets
// then: the line has the id of its next task, whose slot is filled, and the request follows in the
// same piece.
constexpr const char* TASK_CHANNEL_IDLE = "idle\r\n";
constexpr const char* TASK_CHANNEL_TASK = "task=";

// Why a task ended otherwise than finished. Each has a name that does not change.
enum class TaskReason {
    kNone,          // ""
    kHttpStatus,    // "http-status": the server's answer is no file; nStatus says which
    kNameNotFound,  // "name-not-found"
    kRefused,       // "refused": no connection came about
    kTimeout,       // "timeout": no connection or no answer in time
    kStalled,       // "stalled": the answer has begun and nothing more comes
    kTls,           // "tls": certificate or handshake
    kBrokenOff,     // "broken-off": the connection ended too early
    kChanged,       // "changed": the file at the server changes again and again
    kNoSpace,       // "no-space"
    kLocal,         // "local": the output file; nErrno says more
    kRedirects,     // "redirects": too many of them, or to something else than http
    kProxy,         // "proxy"
    kAddress,       // "address": malformed, or neither http nor https
    kProtocol,      // "protocol": the answer is no HTTP
    kRequest,       // "request": the request text did not come or is malformed
    kPage,          // "page": the page's answer holds no video
    kStopped,       // "stopped": on request
    kUnchanged,     // "unchanged": the server has nothing newer than what the request names
    kOther,         // a name that this program does not know
};
constexpr int TASK_REASON_COUNT = static_cast<int>(TaskReason::kOther) + 1;

const char* ReasonName(TaskReason reason);
TaskReason ReasonOfName(std::string_view name);

// What an extended task asks for beyond its slot. The constants are the defaults.
struct tagTaskRequest {
    std::string strUrl{};              // http or https; empty: the slot's address counts
    std::string strUserAgent{};        // empty: "taskman/" and the version
    bool bContinue = false;            // go on with a partial file, and leave one that can be
    std::string strSha256{};           // 64 hexadecimal digits when it is known in advance
    std::int32_t nAnswerSeconds = 30;  // to the end of an answer's headers; 0: for ever
    std::int32_t nStallSeconds = 20;   // without a byte; 0: for ever
    std::int32_t nTries = 5;           // 1 to 100, in a row and without progress
    std::int32_t nWaitSeconds = 10;    // 0 to 300, longest pause between two tries

    // At most 64 header lines "Name: value", in the order in which they are sent. One without a
    // value has the header not sent at all, such as "Accept:". After a redirect Authorization
    // and Cookie go to no other scheme, host or port, and Host to no other host.
    std::vector<std::string> Headers{};
    // Basic or digest login, as the server asks for it, at the address's own scheme, host and port
    // only. A login in the address goes first; AddTask takes it out, so that it stands in no slot.
    // Without a user: what the netrc file says of the host; without that: no login.
    std::string strUser{};      // at most 1024 bytes, without a colon
    std::string strPassword{};  // at most 1024 bytes
    std::string strNetrc{};     // absolute path

    // Absolute paths of PEM files, for all servers, also behind redirects. Without strCaFile the
    // system's authorities are trusted, with it no others. A key must not be encrypted.
    std::string strCaFile{};
    std::string strCertFile{};
    std::string strKeyFile{};  // empty: it stands in strCertFile
    bool bInsecure = false;    // trust any certificate

    bool bRemoteTime = false;          // the complete file gets the server's Last-Modified
    std::string strIfNoneMatch{};      // ETags; a server that has still one of them: kUnchanged
    std::string strIfModifiedSince{};  // an HTTP date, for the same
    std::int32_t nRetryAfter = 120;    // 0 to 86400, longest Retry-After in seconds that is obeyed
    std::int32_t nRate = 0;            // KiB per second at the start; 0: no limit. It stands in the
                                       // slot (nReserved3), not in the text: SetTaskRate changes it
    bool bEndsWhenBusy = false;        // a status of 429 or 503 ends the task at once: the
                                       // application waits, with all that goes to that host

    // 0 to 3600 seconds for which the worker waits for another task when this one, a download, has
    // ended with code 3 or 8. AddTask sets it (tagTaskLimits).
    std::int32_t nStaySeconds = 0;
};

// What became of an extended task. Numbers are 0 and texts empty where nothing is known.
struct tagTaskAnswer {
    TaskReason Reason = TaskReason::kNone;
    std::string strMessage{};       // one line for people: why it failed, or had to begin anew
    std::int32_t nStatus = 0;       // HTTP status of the last answer
    std::int32_t nErrno = 0;        // of the operation on the output file that failed
    std::int32_t nRetryAfter = 0;   // seconds, as the server asks
    std::string strFinalUrl{};      // behind all redirects
    std::string strETag{};          // as it was sent, with its quotation marks
    std::string strLastModified{};  // as it was sent
    std::string strFileName{};      // of Content-Disposition; not made safe
    std::uint64_t uHad = 0;         // bytes that were there before
    std::uint64_t uReceived = 0;    // bytes of the body that came, also what was of no use
    std::int32_t nRequests = 0;     // sent, those behind redirects included
    std::int32_t nConnections = 0;  // most of them at the same time
    std::int32_t nTries = 0;        // that failed
    bool bParts = false;            // the server serves parts of the file, as it has shown or said
    bool bReached = false;          // a connection came about, to the server or its proxy
};

// Why the line cannot be one of the headers of a request, in one line and without its value; empty
// when it can. The worker's own, such as Range, and those of a connection are refused.
std::string RefusalOfHeader(std::string_view line);

// Why the request cannot be served, in one line; empty when nothing speaks against it.
std::string RefusalOf(const tagTaskRequest& request);

// The text of a request that is not refused, with the empty line.
std::string EncodeRequest(const tagTaskRequest& request);

// Reads a request. Returns why it is refused, in one line: what ends without an empty line, what
// stands behind that, and whatever RefusalOf says included. Empty: `request` holds it.
std::string DecodeRequest(std::string_view text, tagTaskRequest& request);

// The text of an answer. Bytes that no value may hold become blanks; texts are cut at 512 bytes,
// addresses left out when they are longer than one may be.
std::string EncodeAnswer(const tagTaskAnswer& answer);

// Reads an answer, up to the first zero byte. Returns the fault in one line; empty: `answer` holds
// it.
std::string DecodeAnswer(std::string_view text, tagTaskAnswer& answer);

// Whether the address begins with http:// or https://, in any case of letters, and goes on.
bool IsHttpAddress(std::string_view address);
