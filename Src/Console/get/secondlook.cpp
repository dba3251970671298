#include "Console/get/secondlook.h"

#include <curl/curl.h>

#include <cstddef>
#include <memory>

namespace {

constexpr long kMilliseconds = 5000;
constexpr long kRedirects = 30;

// At the first byte of the body the headers are complete: breaks the transfer off.
std::size_t BreakOff(char* /*bytes*/, std::size_t /*size*/, std::size_t /*count*/, void* begun) {
    *static_cast<bool*>(begun) = true;
    return 0;
}

// The proxy of the command or none: libcurl does not read the environment.
void SetProxy(CURL* curl, const Proxy& proxy) {
    curl_easy_setopt(curl, CURLOPT_PROXY, proxy.host.c_str());
    curl_easy_setopt(curl, CURLOPT_NOPROXY, "");
    if (proxy.host.empty()) return;
    curl_easy_setopt(curl, CURLOPT_PROXYTYPE, long{proxy.type});
    curl_easy_setopt(curl, CURLOPT_PROXYPORT, long{proxy.port});
    if (proxy.user.empty()) return;
    const std::string credentials = proxy.user + ":" + proxy.password;
    curl_easy_setopt(curl, CURLOPT_PROXYUSERPWD, credentials.c_str());
}

void SetLimits(CURL* curl) {
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, kMilliseconds);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
#if LIBCURL_VERSION_NUM >= 0x075700
    // Else the cleanup of the handle waits for a name server that does not answer.
    curl_easy_setopt(curl, CURLOPT_QUICK_EXIT, 1L);
#endif
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_MAXREDIRS, kRedirects);
}

// What is wrong with a file or page, by its headers.
std::string HeaderFault(CURL* curl, Wanted wanted) {
    long code = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &code);
    if (code != 200) return "HTTP " + std::to_string(code);
    if (wanted == Wanted::kPage) return "";
    curl_off_t length = -1;
    curl_easy_getinfo(curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
    if (length > 0) return "";
    return length == 0 ? "the file is empty" : "the server announces no length";
}

}  // namespace

std::string SecondLook(const std::string& address, const Proxy& proxy, Wanted wanted) {
    // Not at the start of the command: it takes milliseconds, and few commands need it.
    static const CURLcode ready = curl_global_init(CURL_GLOBAL_ALL);
    if (ready != CURLE_OK) return "";
    const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(),
                                                                   curl_easy_cleanup);
    if (curl == nullptr) return "";
    bool begun = false;
    char fault[CURL_ERROR_SIZE] = "";
    curl_easy_setopt(curl.get(), CURLOPT_URL, address.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, BreakOff);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &begun);
    curl_easy_setopt(curl.get(), CURLOPT_ERRORBUFFER, fault);
    SetProxy(curl.get(), proxy);
    SetLimits(curl.get());
    const CURLcode result = curl_easy_perform(curl.get());
    if (begun || result == CURLE_OK) return HeaderFault(curl.get(), wanted);
    return *fault != '\0' ? fault : curl_easy_strerror(result);
}
