#include "Tarnwick/engine/judge.h"

#include <algorithm>

#include "Tarnwick/engine/curl.h"
#include "common/address.h"
#include "common/stringutility.h"

namespace engine {
namespace {

constexpr const char* kHasChanged = "the file at the server has changed";

bool IsMultipart(const Answer& answer) {
    constexpr std::string_view kType = "multipart/";
    return curl_strnequal(answer.contentType.c_str(), kType.data(), kType.size()) != 0;
}

Judgement Good(Verdict verdict) {
    return {verdict};
}

Judgement Unfit(const char* message) {
    return {Verdict::kUnfit, TaskReason::kProtocol, message};
}

Judgement Stale() {
    return {Verdict::kStale, TaskReason::kChanged, kHasChanged};
}

Judgement JudgeWhole(const Answer& answer, const Asked& asked, const Known& known) {
    if (answer.length == kUnknown && !answer.contentLength.empty() &&
        answer.transferEncoding.empty()) {
        return {Verdict::kFinal, TaskReason::kProtocol,
                "the server announces an impossible length"};
    }
    if (!asked.range || !known.any) return Good(Verdict::kWhole);
    if (answer.length == known.size && ValidatorOf(answer) == known.validator) {
        return {Verdict::kNoRanges, TaskReason::kNone, "the server knows no ranges"};
    }
    return {Verdict::kChanged, TaskReason::kChanged, kHasChanged};
}

Judgement JudgePart(const Answer& answer, const Asked& asked, const Known& known) {
    if (!asked.range) {
        return {Verdict::kFinal, TaskReason::kHttpStatus,
                "HTTP 206: a part, and the whole was asked for"};
    }
    const auto got = ParseContentRange(answer.contentRange);
    if (IsMultipart(answer) || IsEncoded(answer) || !got || !got->range || got->size == kUnknown ||
        answer.length == 0) {
        return Unfit("the server's answer to a range is malformed");
    }
    if (known.any && (got->size != known.size || !FitsValidator(answer, known.validator))) {
        return Stale();
    }
    // A server that sends its tag with the whole file has to send it with a part (RFC
    // 9110, 15.3.7): without one, nothing tells that it has looked at If-Range.
    if (known.validator.starts_with('"') && answer.etag.empty()) {
        return Unfit("the server sends a range without the file's tag");
    }
    const Range wanted{asked.range->begin, std::min(asked.range->end, got->size)};
    if (*got->range != wanted) return Unfit("the server sends another range than was asked for");
    if (answer.length != kUnknown && answer.length != wanted.Size()) {
        return Unfit("the length of a range is not what was announced");
    }
    return Good(Verdict::kPart);
}

bool IsPassing(int status) {
    constexpr int kPassing[] = {408, 425, 429, 500, 502, 503, 504};
    return std::find(std::begin(kPassing), std::end(kPassing), status) != std::end(kPassing);
}

Judgement JudgeStatus(const Answer& answer, const Asked& asked) {
    if (answer.status == 304 && asked.conditional) {
        return {Verdict::kFinal, TaskReason::kUnchanged, "the server has nothing newer"};
    }
    Judgement judged{Verdict::kFinal, TaskReason::kHttpStatus,
                     "HTTP " + std::to_string(answer.status), RetryAfter(answer)};
    if (answer.status == 407) judged.reason = TaskReason::kProxy;
    if (asked.additional) {
        judged.verdict = Verdict::kRefused;
    } else if (IsPassing(answer.status)) {
        judged.verdict = Verdict::kAgain;
    }
    return judged;
}

struct ErrorClass {
    CURLcode code;
    Verdict verdict;
    TaskReason reason;
};

constexpr Verdict kAgain = Verdict::kAgain;
constexpr Verdict kFinal = Verdict::kFinal;

// What is not in here is a connection that broke.
constexpr ErrorClass kErrors[] = {
    {CURLE_COULDNT_RESOLVE_PROXY, kAgain, TaskReason::kProxy},
    {CURLE_PROXY, kFinal, TaskReason::kProxy},
    {CURLE_COULDNT_RESOLVE_HOST, kAgain, TaskReason::kNameNotFound},
    {CURLE_COULDNT_CONNECT, kAgain, TaskReason::kRefused},
    {CURLE_OPERATION_TIMEDOUT, kAgain, TaskReason::kTimeout},
    {CURLE_SSL_CONNECT_ERROR, kAgain, TaskReason::kTls},
    {CURLE_UNSUPPORTED_PROTOCOL, kFinal, TaskReason::kProtocol},
    {CURLE_URL_MALFORMAT, kFinal, TaskReason::kAddress},
    {CURLE_TOO_MANY_REDIRECTS, kFinal, TaskReason::kRedirects},
    {CURLE_OUT_OF_MEMORY, kFinal, TaskReason::kLocal},
    {CURLE_FAILED_INIT, kFinal, TaskReason::kLocal},
    {CURLE_BAD_CONTENT_ENCODING, kFinal, TaskReason::kProtocol},
    {CURLE_FILESIZE_EXCEEDED, kFinal, TaskReason::kProtocol},
    {CURLE_PEER_FAILED_VERIFICATION, kFinal, TaskReason::kTls},
    {CURLE_SSL_ENGINE_NOTFOUND, kFinal, TaskReason::kTls},
    {CURLE_SSL_ENGINE_SETFAILED, kFinal, TaskReason::kTls},
    {CURLE_SSL_CERTPROBLEM, kFinal, TaskReason::kTls},
    {CURLE_SSL_CIPHER, kFinal, TaskReason::kTls},
    {CURLE_SSL_CACERT_BADFILE, kFinal, TaskReason::kTls},
    {CURLE_SSL_CRL_BADFILE, kFinal, TaskReason::kTls},
    {CURLE_SSL_ISSUER_ERROR, kFinal, TaskReason::kTls},
    {CURLE_SSL_PINNEDPUBKEYNOTMATCH, kFinal, TaskReason::kTls},
    {CURLE_SSL_INVALIDCERTSTATUS, kFinal, TaskReason::kTls},
    {CURLE_WEIRD_SERVER_REPLY, kAgain, TaskReason::kProtocol},
};

bool IsRedirect(const Answer& answer) {
    return answer.status >= 300 && answer.status < 400;
}

}  // namespace

Judgement JudgeAnswer(const Answer& answer, const Asked& asked, const Known& known) {
    switch (answer.status) {
        case 200:
        case 203:  // the same from a proxy that has changed it
        case 204:  // the same without a byte
            return JudgeWhole(answer, asked, known);
        case 206:
            return JudgePart(answer, asked, known);
        case 416:
            // Without anything known it is the empty file that has no first byte.
            if (asked.range) return known.any ? Stale() : Unfit("HTTP 416");
            return JudgeStatus(answer, asked);
        default:
            return JudgeStatus(answer, asked);
    }
}

Judgement JudgeError(CURLcode code, const std::string& text, const Answer& answer, bool proxied,
                     long connect) {
    if (connect >= 300) {
        const int status = static_cast<int>(connect);
        return {IsPassing(status) ? kAgain : kFinal, TaskReason::kProxy,
                "the proxy answers HTTP " + std::to_string(status)};
    }
    if (code == CURLE_OK) return {kAgain, TaskReason::kBrokenOff, "the answer ended too early"};
    const auto* found = std::find_if(std::begin(kErrors), std::end(kErrors),
                                     [code](const ErrorClass& each) { return each.code == code; });
    const bool known = found != std::end(kErrors);
    Judgement judged{known ? found->verdict : Verdict::kAgain,
                     known ? found->reason : TaskReason::kBrokenOff,
                     text.empty() ? curl_easy_strerror(code) : strutil::trimRight(text)};
    if (code == CURLE_OUT_OF_MEMORY) judged.message = NO_MEMORY;
    // libcurl has no other code for a header line beyond its limit.
    if (code == CURLE_OUT_OF_MEMORY && answer.status != 0) {
        return {kFinal, TaskReason::kProtocol,
                "a header line of the answer is too long, or there is no memory for it"};
    }
    if (proxied && code == CURLE_COULDNT_CONNECT) {
        judged.reason = TaskReason::kProxy;
        judged.message = "the proxy: " + judged.message;
    }
    if (code == CURLE_UNSUPPORTED_PROTOCOL && IsRedirect(answer)) {
        judged.reason = TaskReason::kRedirects;
        judged.message =
            "redirected to what is neither http nor https: " + WithoutLogin(answer.location);
    }
    if (code == CURLE_URL_MALFORMAT) judged.message = "the address is malformed";
    constexpr std::string_view kCertificate = "SSL certificate problem: ";
    if (judged.message.starts_with(kCertificate)) {
        judged.message.replace(0, kCertificate.size(), "certificate: ");
    }
    return judged;
}

}  // namespace engine
