#include "Tarnwick/download.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "Tarnwick/jobstate.h"
#include "Tarnwick/progress.h"
#include "Tarnwick/statereport.h"
#include "Tarnwick/transfer.h"
#include "common/assertion.h"
#include "common/fieldtext.h"

namespace {

constexpr std::size_t kStreamBuffer = 8192;
// Large reads and writes cost the kernel less time per byte. libcurl reads this much at once but
// delivers it in pieces of at most 16 KiB; the pieces of one read are joined up to kMostJoined.
// Beyond these two sizes the time hardly falls, and every worker has the memory of its own.
constexpr long kReceiveBuffer = 512L * 1024;
constexpr std::size_t kMostJoined = 128 * 1024;

// Pieces of one read that process_data has not got yet. Process-wide like the rest of the job's
// state: the data pointer of the write callback is the stream, and the progress callback has none.
struct JoinedPieces {
    void* stream = nullptr;
    std::size_t length = 0;
    char bytes[kMostJoined];
};

JoinedPieces g_joined;

// Hands the joined pieces to process_data. False when it has not written all, or asks for the end
// of the transfer.
bool WriteJoined() {
    const std::size_t length = std::exchange(g_joined.length, 0);
    return length == 0 || process_data(g_joined.bytes, 1, length, g_joined.stream) == length;
}

std::size_t OnFileData(char* data, std::size_t size, std::size_t count, void* stream) noexcept {
    const std::size_t length = size * count;
    if (length > kMostJoined - g_joined.length && !WriteJoined()) return kBreakOff;
    if (length > kMostJoined) return process_data(data, size, count, stream);
    std::memcpy(g_joined.bytes + g_joined.length, data, length);
    g_joined.length += length;
    g_joined.stream = stream;
    if (!StopRequested() && !g_Exit) return length;
    WriteJoined();
    return kBreakOff;
}

// libcurl calls this after every read: what the read has brought is written before the wait for
// more.
int OnDownloadProgress(void* clientp, double dltotal, double dlnow, double ultotal,
                       double ulnow) noexcept {
    return WriteJoined() ? OnProgress(clientp, dltotal, dlnow, ultotal, ulnow) : -1;
}

// The output file with a fully buffered stream of its own.
class OutputFile {
  public:
    ~OutputFile() { Close(); }

    // Creates or truncates the file. False when it cannot be opened, or when the path names
    // something that is neither a regular file nor a character device. A pipe would open, even
    // without a reader, since the stream reads as well; the write that fills it would then block
    // the job for ever.
    bool Open(const std::string& path) {
        struct stat status {};
        if (path.empty()) return false;
        if (stat(path.c_str(), &status) == 0) {
            if (!S_ISREG(status.st_mode) && !S_ISCHR(status.st_mode)) return false;
        } else if (errno != ENOENT) {
            return false;
        }
        stream_ = std::fopen(path.c_str(), "wb+");
        if (stream_ == nullptr) return false;
        buffer_ = std::make_unique<char[]>(kStreamBuffer);
        std::setvbuf(stream_, buffer_.get(), _IOFBF, kStreamBuffer);
        return true;
    }

    // Goes back to the first byte. What the previous try could not write to a full disk is
    // discarded: this try delivers it again. False when the position cannot be set; a device
    // without positions needs none.
    bool Rewind() {
        static_cast<void>(std::fflush(stream_));
        return std::fseek(stream_, 0, SEEK_SET) == 0 || errno == ESPIPE;
    }

    // False when something of the file did not reach the disk. On a full disk it is the flush that
    // says so: the close that follows succeeds.
    bool Close() {
        if (stream_ == nullptr) return true;
        const bool flushed = std::fflush(stream_) == 0;
        const bool closed = std::fclose(stream_) == 0;
        stream_ = nullptr;
        return flushed && closed;
    }

    FILE* Stream() const { return stream_; }

  private:
    std::unique_ptr<char[]> buffer_;  // must outlive the stream
    FILE* stream_ = nullptr;
};

void SetUpDownload(CURL* curl, const tagTaskContext& task, FILE* stream) {
    curl_easy_setopt(curl, CURLOPT_URL, FieldText(task.szDownloadUrl).c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, stream);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, OnFileData);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl, CURLOPT_PROGRESSFUNCTION, OnDownloadProgress);
    FollowRedirects(curl);
    SetTimeouts(curl);
    curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, kReceiveBuffer);
}

// Runs the tries. kDone is for the final check to judge: a try succeeded, the process ends, or no
// try was allowed.
TryStep RunTries(CURL* curl, const tagTaskContext& task, OutputFile& output) {
    while (g_TryCount < task.nTryCount) {
        const bool rewound = output.Rewind();
        g_Progress = 0.0;
        const bool transferred = rewound && curl_easy_perform(curl) == CURLE_OK;
        if (WriteJoined() && transferred) return TryStep::kDone;
        const TryStep step = AfterFailedTry(task);
        if (step == TryStep::kEnded) return TryStep::kDone;
        if (step != TryStep::kAgain) return step;
    }
    return TryStep::kDone;
}

// The final check of a download that was neither stopped nor used up its tries.
int ReportFinished(CURL* curl) {
    long code = 0;
    const bool known = curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &code) == CURLE_OK;
    const bool finished = known && code == 200;
    SendStateMSG(finished ? DOWNLOAD_STATE_DOWNLOAD_FINISH : DOWNLOAD_STATE_DOWNLOAD_FAIL);
    return finished ? 0 : -1;
}

}  // namespace

int DownloadVideo(void* curl, tagTaskContext* taskCon) {
    assertion::Require(taskCon != nullptr, "DownloadVideo", kWorkerSource, "taskCon");
    assertion::Require(curl != nullptr, "DownloadVideo", kWorkerSource, "NULL != curl");
    assertion::Require(!FieldEmpty(taskCon->szDownloadUrl), "DownloadVideo", kWorkerSource,
                       "0 < strlen( taskCon->szDownloadUrl )");
    if (g_Exit) return 0;
    SetProxy(curl, *taskCon);
    curl_easy_setopt(curl, CURLOPT_HTTPGET, 1L);
    if (g_Exit) return 0;
    OutputFile output;
    if (!output.Open(FieldText(taskCon->szFilePath))) {
        ReportEnd(TryStep::kUsedUp, *taskCon);
        return 0;
    }
    SetUpDownload(curl, *taskCon, output.Stream());
    if (g_Exit) return 0;
    ClampTries(*taskCon);

    TryStep outcome = RunTries(curl, *taskCon, output);
    if (!output.Close() && outcome == TryStep::kDone) outcome = TryStep::kUsedUp;
    if (outcome == TryStep::kDone) return ReportFinished(curl);
    ReportEnd(outcome, *taskCon);
    return 0;
}

std::size_t process_data(void* ptr, std::size_t size, std::size_t nmemb, void* userdata) {
    auto* stream = static_cast<FILE*>(userdata);
    const std::size_t written = std::fwrite(ptr, size, nmemb, stream);
    if (StopRequested() || g_Exit) {
        std::fflush(stream);
        return kBreakOff;
    }
    return written;
}
