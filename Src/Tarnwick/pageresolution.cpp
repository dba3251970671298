#include "Tarnwick/pageresolution.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string_view>

#include "Tarnwick/engine/headerlist.h"
#include "Tarnwick/engine/judge.h"
#include "Tarnwick/extended.h"
#include "Tarnwick/jobstate.h"
#include "Tarnwick/progress.h"
#include "Tarnwick/statereport.h"
#include "Tarnwick/transfer.h"
#include "Tarnwick/videoinfo.h"
#include "common/fieldtext.h"
#include "common/httputility.h"
#include "common/stringutility.h"

namespace {

constexpr std::string_view kSite = TASKMAN_SITE_BASE_ADDRESS;
constexpr std::string_view kInformationService = "get_video_info?video_id=";
constexpr const char* kUserAgent =
    "User-Agent: Mozilla/5.0 (Macintosh; U; Intel Mac OS X 10.6; en-US; rv:1.9.2.17) "
    "Gecko/20110420 Firefox/3.6.17";
constexpr const char* kLineEnd = "\r\n";
constexpr const char* kStatusKey = "status=";
constexpr std::size_t kLongestVideoId = 511;
constexpr std::size_t kLongestResponse = std::size_t{64} << 20;
constexpr std::size_t kLongestText = sizeof(tagTaskContext::szVideoInfo);

static_assert(kSite.starts_with("http://") && kSite.ends_with("/"));

std::size_t OnPageData(char* data, std::size_t size, std::size_t count, void* buffer) noexcept {
    return KeepExceptions(kBreakOff, [&] {
        return static_cast<std::size_t>(writer_func(data, static_cast<int>(size),
                                                    static_cast<int>(count),
                                                    *static_cast<std::string*>(buffer)));
    });
}

// The video id in a page address: the text behind the first "=", up to the next "&". Empty when
// there is none or it is too long.
std::string VideoIdOf(std::string_view address) {
    const std::size_t key = address.find('=');
    if (key == std::string_view::npos) return {};
    address.remove_prefix(key + 1);
    const std::string_view id = address.substr(0, address.find('&'));
    return id.size() > kLongestVideoId ? std::string() : std::string(id);
}

void SetDefaults(const std::string& videoId) {
    char thumbnail[256];
    strutil::vsnpf(thumbnail, sizeof thumbnail, YOTUBE_DEFAULT_THUMBNAIL.c_str(), videoId.c_str());
    g_DefaultThumbnail = thumbnail;
    g_DefaultTitle = videoId;
}

// The last entry ends in a line end of its own, and libcurl adds another, which ends the request's
// head: nothing behind it would count as a header.
void MakeHeaders(const std::vector<std::string>& own, engine::HeaderList& headers) {
    for (const std::string& line : own) {
        if (!strutil::toLower(line).starts_with("user-agent:")) headers.Add(line);
    }
    headers.Add(std::string(kUserAgent) + kLineEnd);
}

void SetUpFetch(CURL* curl, const tagTaskContext& task, curl_slist* headers,
                std::string& response) {
    SetProxy(curl, task);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_HTTPGET, 1L);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &response);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, OnPageData);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl, CURLOPT_PROGRESSFUNCTION, OnProgress);
    SetTimeouts(curl);
}

long ResponseCode(CURL* curl) {
    long code = 0;
    return curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &code) == CURLE_OK ? code : 0;
}

// Why a try had no answer of code 200: a transfer that failed, or the answer's code.
tagTaskAnswer WhyFailed(const tagTaskContext& task, CURLcode result, long code) {
    const std::string status = "HTTP " + std::to_string(code);
    if (result == CURLE_OK) return {TaskReason::kHttpStatus, status, static_cast<int>(code)};
    const engine::Judgement judged = engine::JudgeError(result, "", {}, task.bUseProxy != 0);
    return {judged.reason, judged.message, static_cast<int>(code)};
}

// Whether writer_func has ended the transfer because the answer reached its bound. `result` is that
// of the transfer.
bool EndedAtBound(CURLcode result, const std::string& response) {
    return result == CURLE_WRITE_ERROR && response.size() == kLongestResponse && !StopRequested() &&
           !g_Exit;
}

// One stage's tries. kDone means that the answer, of code 200, is in `response`.
TryStep Fetch(CURL* curl, const tagTaskContext& task, const std::string& address,
              std::string& response, tagTaskAnswer& why) {
    // Response codes other than 200 are counted over both stages. g_TryCount is not: every try that
    // receives bytes sets it to 0.
    static int httpErrorCnt = 0;
    curl_easy_setopt(curl, CURLOPT_URL, address.c_str());
    g_TryCount = 0;
    for (;;) {
        response.clear();
        const CURLcode result = curl_easy_perform(curl);
        const bool transferred = result == CURLE_OK || EndedAtBound(result, response);
        const long code = ResponseCode(curl);
        if (transferred && code == 200) return TryStep::kDone;
        why = WhyFailed(task, transferred ? CURLE_OK : result, code);
        if (const TryStep step = EndedOrStopped(); step != TryStep::kAgain) return step;
        if (code != 200 && ++httpErrorCnt >= task.nTryCount) return TryStep::kUsedUp;
        if (CountFailedTry(task) == TryStep::kUsedUp) return TryStep::kUsedUp;
    }
}

// Fields of the service's answer, separated by "&", as lines.
std::string TextOfInformation(std::string& response) {
    strutil::string_replace(response, "&", kLineEnd);
    return HttpUtility::HtmlDecode(response);
}

std::string TextOfPage(CURL* curl, const std::string& response) {
    int length = 0;
    const std::unique_ptr<char, decltype(&curl_free)> page(
        curl_easy_unescape(curl, response.c_str(), static_cast<int>(response.size()), &length),
        curl_free);
    if (page == nullptr) return {};
    return ParseYoutubeInfo(std::string(page.get(), static_cast<std::size_t>(length)));
}

// Whether the text has lines and none of them says status=fail.
bool IsGood(const std::string& text) {
    bool hasLines = false;
    // One line at a time: a long answer may have millions.
    strutil::Tokenizer lines(text, kLineEnd);
    while (lines.nextToken()) {
        hasLines = true;
        const std::string line = strutil::trim(lines.m_token);
        if (line.starts_with(kStatusKey) && strutil::getContent(line, kStatusKey) == "fail") {
            return false;
        }
    }
    return hasLines;
}

bool HoldsFormatMap(const std::string& text) {
    return text.find(YOTUBE_FMT_STREAM_MAP_PREFIX) != std::string::npos ||
           text.find(YOTUBE_FMT_URL_MAP_PREFIX) != std::string::npos;
}

// Fetches the information and, when the service does not provide it, the page. The text made last
// is in `text`; kDone means that it is good, kUsedUp that it is not or that a fetch failed.
TryStep Resolve(CURL* curl, const tagTaskContext& task, const std::string& videoId,
                std::string& response, std::string& text, tagTaskAnswer& why) {
    std::string address(kSite);
    address.append(kInformationService).append(videoId);
    TryStep step = Fetch(curl, task, address, response, why);
    if (step != TryStep::kDone) return step;
    text = TextOfInformation(response);
    if (IsGood(text)) return TryStep::kDone;
    if (g_Exit) return TryStep::kEnded;

    step = Fetch(curl, task, FieldText(task.szOrgUrl), response, why);
    if (step != TryStep::kDone) return step;
    text = TextOfPage(curl, response);
    if (IsGood(text)) return TryStep::kDone;
    why = {TaskReason::kPage, "the site tells nothing of this video", 200};
    return TryStep::kUsedUp;
}

// Reports the outcome of the resolution. Returns the text if it was published, else an empty one.
std::string Finish(TryStep outcome, const tagTaskContext& task, const std::string& text,
                   const tagTaskAnswer& why) {
    if (g_Exit) return {};
    if (outcome == TryStep::kStopped) {
        SendStateMSG(DOWNLOAD_STATE_STOPPED);
    } else if (text.size() > kLongestText) {
        SendStateMSG(DOWNLOAD_STATE_INFO_TOO_LONG);
    } else if (outcome != TryStep::kDone) {
        ReportPageFailure(task, why);
    } else if (!HoldsFormatMap(text)) {
        ReportPageFailure(task,
                          {TaskReason::kPage, "the site offers no format of this video", 200});
    } else if (OwnsSlot()) {
        ReportInfoText(text);
        return text;
    }
    return {};
}

}  // namespace

std::string ParseDownloadUrl(void* curl, tagTaskContext* task) {
    return ResolvePage(curl, task, {});
}

std::string ResolvePage(void* curl, tagTaskContext* task, const std::vector<std::string>& headers) {
    if (task->nCmd == TASK_CMD_PARSE) SendStateMSG(DOWNLOAD_STATE_PARSE_START);
    const std::string_view page = FieldView(task->szOrgUrl);
    const std::string videoId = page.starts_with(kSite) ? VideoIdOf(page) : std::string();
    if (videoId.empty()) {
        ReportPageFailure(*task, {TaskReason::kAddress, "no address of a video page of the site"});
        return {};
    }
    SetDefaults(videoId);
    if (g_Exit) return {};
    std::string response;
    engine::HeaderList lines;
    MakeHeaders(headers, lines);
    SetUpFetch(curl, *task, lines.Get(), response);
    if (g_Exit) return {};
    ClampTries(*task);
    std::string text;
    tagTaskAnswer why;
    const TryStep outcome = Resolve(curl, *task, videoId, response, text, why);
    return Finish(outcome, *task, text, why);
}

int writer_func(void* data, int size, int nmemb, std::string& buffer) {
    const std::int64_t length = std::int64_t{size} * nmemb;
    const auto room =
        static_cast<std::int64_t>(kLongestResponse - std::min(buffer.size(), kLongestResponse));
    const std::int64_t taken = std::clamp<std::int64_t>(length, 0, room);
    buffer.append(static_cast<const char*>(data), static_cast<std::size_t>(taken));
    if (StopRequested() || g_Exit || length > room) return -1;
    return static_cast<int>(length);
}
