// What a request may hold.
#include <algorithm>
#include <iterator>

#include "TaskMan/tasktext.h"
#include "common/stringutility.h"

namespace {

constexpr std::size_t kUserAgentMost = 512;
constexpr std::size_t kHeadersMost = 64;

// What the worker says itself, or what belongs to a connection and not to a file.
constexpr std::string_view kWorkersHeaders[] = {
    "connection",          "content-length",    "expect",   "if-match",
    "if-modified-since",   "if-none-match",     "if-range", "if-unmodified-since",
    "keep-alive",          "proxy-connection",  "range",    "te",
    "proxy-authorization", "transfer-encoding", "trailer",  "upgrade",
};

bool IsDigest(std::string_view text) {
    return text.size() == 64 &&
           text.find_first_not_of("0123456789abcdefABCDEF") == std::string_view::npos;
}

bool Within(std::int32_t value, std::int32_t least, std::int32_t most) {
    return value >= least && value <= most;
}

std::string RefusalOfHeaders(const std::vector<std::string>& lines) {
    if (lines.size() > kHeadersMost) return "there are more than 64 headers";
    for (const std::string& line : lines) {
        if (std::string refusal = RefusalOfHeader(line); !refusal.empty()) return refusal;
    }
    return {};
}

std::string RefusalOfLogin(const tagTaskRequest& request) {
    constexpr std::size_t kMost = 1024;
    for (const std::string& text : {request.strUser, request.strPassword}) {
        if (text.size() > kMost || strutil::holdsControl(text)) {
            return "user or password is longer than 1024 bytes or holds a control character";
        }
    }
    if (request.strUser.find(':') != std::string::npos) return "the user holds a colon";
    return request.strUser.empty() && !request.strPassword.empty()
               ? "there is a password and no user"
               : "";
}

// The worker may run in another directory.
std::string RefusalOfFile(const char* what, const std::string& path) {
    constexpr std::size_t kMost = 4095;
    if (path.empty()) return {};
    if (!path.starts_with('/')) return std::string(what) + ": its path is not absolute";
    return path.size() > kMost || strutil::holdsControl(path)
               ? std::string(what) + ": its path is too long or holds a control character"
               : "";
}

}  // namespace

bool IsHttpAddress(std::string_view address) {
    for (const std::string_view scheme : {"http://", "https://"}) {
        const bool more = address.size() > scheme.size();
        if (more && strutil::toLower(address.substr(0, scheme.size())) == scheme) return true;
    }
    return false;
}

std::string RefusalOfHeader(std::string_view line) {
    constexpr std::string_view kToken =
        "!#$%&'*+-.^_`|~0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
    std::string name(line.substr(0, line.find(':')));
    if (name.size() == line.size()) return "a header is NAME: VALUE";
    if (name.empty() || name.find_first_not_of(kToken) != name.npos) {
        return "the name of a header consists of letters, digits and some signs";
    }
    // The value may be a password.
    if (strutil::holdsControl(line)) return "the header " + name + " holds a control character";
    const auto* end = std::end(kWorkersHeaders);
    return std::find(std::begin(kWorkersHeaders), end, strutil::toLower(name)) == end
               ? ""
               : "the header " + name + " is the worker's own";
}

std::string RefusalOf(const tagTaskRequest& request) {
    const std::string& url = request.strUrl;
    if (url.size() > TASK_ADDRESS_MOST) return "the address is longer than 16384 bytes";
    if (!url.empty() && !IsHttpAddress(url)) return "the address is neither http nor https";
    if (strutil::holdsControl(url)) return "the address holds a control character";
    const std::string& agent = request.strUserAgent;
    if (agent.size() > kUserAgentMost || strutil::holdsControl(agent)) {
        return "the user agent is longer than 512 bytes or holds a control character";
    }
    if (!request.strSha256.empty() && !IsDigest(request.strSha256)) {
        return "the SHA-256 digest is not of 64 hexadecimal digits";
    }
    constexpr std::int32_t kDay = 86400;
    if (!Within(request.nAnswerSeconds, 0, kDay) || !Within(request.nStallSeconds, 0, kDay)) {
        return "a time limit is not of 0 to 86400 seconds";
    }
    if (!Within(request.nTries, 1, 100)) return "the number of tries is not 1 to 100";
    if (!Within(request.nWaitSeconds, 0, 300)) return "the longest pause is not 0 to 300 seconds";
    if (request.nRate < 0) return "the rate is below 0";
    if (!Within(request.nRetryAfter, 0, kDay)) return "the longest wait is not 0 to 86400 seconds";
    if (strutil::holdsControl(request.strIfNoneMatch + request.strIfModifiedSince)) {
        return "a condition holds a control character";
    }
    if (!Within(request.nStaySeconds, 0, 3600)) return "the worker is to stay for over an hour";
    for (std::string refusal : {RefusalOfHeaders(request.Headers), RefusalOfLogin(request),
                                RefusalOfFile("the netrc file", request.strNetrc),
                                RefusalOfFile("the authorities", request.strCaFile),
                                RefusalOfFile("the certificate", request.strCertFile),
                                RefusalOfFile("the certificate's key", request.strKeyFile)}) {
        if (!refusal.empty()) return refusal;
    }
    if (request.strCertFile.empty() && !request.strKeyFile.empty()) {
        return "there is a key and no certificate";
    }
    return EncodeRequest(request).size() > TASK_REQUEST_MOST
               ? "the request is longer than 65536 bytes"
               : "";
}
