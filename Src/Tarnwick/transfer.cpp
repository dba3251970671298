#include "Tarnwick/transfer.h"

#include <strings.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "Tarnwick/jobstate.h"
#include "Tarnwick/statereport.h"
#include "common/fieldtext.h"
#include "common/stringutility.h"

// Not every system declares it.
extern char** environ;

int LoadCurlLib() {
    if (curl_global_init(CURL_GLOBAL_ALL) == CURLE_OK) return 0;
    constexpr std::string_view kMessage = "curl_global_init() failed\n";
    std::fwrite(kMessage.data(), 1, kMessage.size(), stderr);
    return -1;
}

int UnLoadCurlLib() {
    curl_global_cleanup();
    return 0;
}

void IgnoreEnvironment() {
    constexpr std::string_view kSuffix = "_proxy";
    std::vector<std::string> names = {"OPENSSL_CONF", "SSLKEYLOGFILE"};
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string_view text = *entry;
        const std::string_view name = text.substr(0, text.find('='));
        if (name.size() >= kSuffix.size() && strncasecmp(name.data() + name.size() - kSuffix.size(),
                                                         kSuffix.data(), kSuffix.size()) == 0) {
            names.emplace_back(name);
        }
    }
    for (const std::string& name : names) unsetenv(name.c_str());
}

void SetProxy(CURL* curl, const tagTaskContext& task) {
    if (task.bUseProxy == 0) return;
    char text[256];
    curl_easy_setopt(curl, CURLOPT_PROXYTYPE, long{task.nProxyType});
    strutil::vsnpf(text, sizeof text, "%s:%d", FieldText(task.szProxyHost).c_str(),
                   task.nProxyPort);
    curl_easy_setopt(curl, CURLOPT_PROXY, text);
    if (FieldEmpty(task.szProxyUser)) return;
    strutil::vsnpf(text, sizeof text, "%s:%s", FieldText(task.szProxyUser).c_str(),
                   FieldText(task.szProxyPassword).c_str());
    curl_easy_setopt(curl, CURLOPT_PROXYUSERPWD, text);
}

void SetTimeouts(CURL* curl) {
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, 5L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 0L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, 20L);
}

std::int32_t ClampTries(std::int32_t number) {
    return static_cast<std::uint32_t>(number) > 3 ? 3 : number;
}

void ClampTries(tagTaskContext& task) {
    task.nTryCount = ClampTries(task.nTryCount);
    task.nTryInterval = ClampTries(task.nTryInterval);
}

std::uint64_t ToLength(double length) {
    // The comparisons are made so that a value that is no number counts as 0.
    if (!(length > 0.0)) return 0;
    if (length >= 18446744073709551616.0) return std::numeric_limits<std::uint64_t>::max();
    return static_cast<std::uint64_t>(length);
}

bool StopRequested() {
    return g_CurTaskContext_prt != nullptr &&
           LoadControl(*g_CurTaskContext_prt) == TASK_CONTROL_STOP;
}

tagDownloadStateCode FailureCode(const tagTaskContext& task) {
    return task.nCmd == TASK_CMD_PARSE ? DOWNLOAD_STATE_PARSE_FAIL : DOWNLOAD_STATE_DOWNLOAD_FAIL;
}

TryStep EndedOrStopped() {
    if (g_Exit) return TryStep::kEnded;
    return StopRequested() ? TryStep::kStopped : TryStep::kAgain;
}

TryStep CountFailedTry(const tagTaskContext& task) {
    if (++g_TryCount >= task.nTryCount) return TryStep::kUsedUp;
    sleep(static_cast<unsigned>(task.nTryInterval));
    return TryStep::kAgain;
}

TryStep AfterFailedTry(const tagTaskContext& task) {
    const TryStep step = EndedOrStopped();
    return step == TryStep::kAgain ? CountFailedTry(task) : step;
}

void ReportEnd(TryStep outcome, const tagTaskContext& task) {
    SendStateMSG(outcome == TryStep::kStopped ? DOWNLOAD_STATE_STOPPED : FailureCode(task));
    g_Exit = true;
}
