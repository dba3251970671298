#include "Tarnwick/filesize.h"

#include <memory>

#include "Tarnwick/jobstate.h"
#include "Tarnwick/statereport.h"
#include "Tarnwick/transfer.h"
#include "common/assertion.h"
#include "common/fieldtext.h"

namespace {

std::size_t OnProbeData(char* data, std::size_t size, std::size_t count, void* handle) noexcept {
    return KeepExceptions(kBreakOff,
                          [&] { return GetFileSize_Callback(data, size, count, handle); });
}

void SetUpProbe(CURL* curl, const tagTaskContext& task) {
    SetProxy(curl, task);
    curl_easy_setopt(curl, CURLOPT_HTTPGET, 1L);
    curl_easy_setopt(curl, CURLOPT_URL, FieldText(task.szDownloadUrl).c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, curl);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, OnProbeData);
    FollowRedirects(curl);
    SetTimeouts(curl);
}

// Runs the tries. Afterwards g_FileSize is set, or the failure has been reported where one is due.
void Probe(CURL* curl, const tagTaskContext& task) {
    g_FileSize = 0;
    while (g_FileSize == 0 && g_TryCount < task.nTryCount) {
        // A probe that has learned the size aborts the transfer, which libcurl reports as an error:
        // only the size decides.
        curl_easy_perform(curl);
        if (g_FileSize != 0) return;
        const TryStep step = AfterFailedTry(task);
        if (step == TryStep::kAgain) continue;
        if (step != TryStep::kEnded) ReportEnd(step, task);
        return;
    }
}

}  // namespace

std::uint64_t GetFileSize(void* curl, tagTaskContext* taskCon) {
    std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> own(nullptr, curl_easy_cleanup);
    if (curl == nullptr) {
        own.reset(curl_easy_init());
        curl = own.get();
        assertion::Require(curl != nullptr, "GetFileSize", kWorkerSource, "NULL != curl");
    }
    assertion::Require(!FieldEmpty(taskCon->szDownloadUrl), "GetFileSize", kWorkerSource,
                       "0 < strlen( taskCon->szDownloadUrl )");
    SetUpProbe(curl, *taskCon);
    ClampTries(*taskCon);
    Probe(curl, *taskCon);
    if (g_FileSize == 0) return 0;
    assertion::Require(OwnsSlot(), "GetFileSize", kWorkerSource, "false");
    ReportValue(&tagTaskContext::dFileSize, static_cast<double>(g_FileSize),
                DOWNLOAD_STATE_FILE_SIZE);
    return g_FileSize;
}

std::size_t GetFileSize_Callback(void* /*ptr*/, std::size_t size, std::size_t nmemb,
                                 void* userdata) {
    if (size == 0 && nmemb == 0) return 0;
    assertion::Require(userdata != nullptr, "GetFileSize_Callback", kWorkerSource, "NULL != curl");
    CURL* curl = userdata;
    const std::size_t accepted = size * nmemb;
    long code = 0;
    if (curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &code) != CURLE_OK || code != 200) {
        return accepted;
    }
    double length = 0.0;
    curl_easy_getinfo(curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD, &length);
    if (!(length > 0.0)) return accepted;
    g_FileSize = ToLength(length);
    return kBreakOff;
}
