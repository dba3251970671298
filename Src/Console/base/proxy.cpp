#include "Console/base/proxy.h"

#include <charconv>
#include <cstdlib>
#include <initializer_list>
#include <utility>

#include "Console/base/noproxy.h"
#include "Console/base/textfile.h"
#include "common/address.h"
#include "common/fieldtext.h"
#include "common/stringutility.h"

namespace {

struct Scheme {
    std::string_view name;
    std::int32_t type;  // libcurl's value for CURLOPT_PROXYTYPE
};
constexpr Scheme kSchemes[] = {
    {"http", 0}, {"socks4", 4}, {"socks5", 5}, {"socks4a", 6}, {"socks5h", 7},
};
constexpr std::int32_t kUsualPort = 1080;

// The type of a scheme; -1 for an unknown one.
std::int32_t TypeOf(std::string_view name) {
    for (const Scheme& scheme : kSchemes) {
        if (scheme.name == name) return scheme.type;
    }
    return -1;
}

// Splits "user:password" and decodes both.
std::string ReadCredentials(std::string_view text, Proxy& proxy) {
    const std::size_t colon = text.find(':');
    proxy.user = PercentDecode(text.substr(0, colon));
    if (colon != std::string_view::npos) {
        proxy.password = PercentDecode(text.substr(colon + 1));
    }
    if (proxy.user.empty() || proxy.user.find(':') != std::string::npos) {
        return "the user must neither be empty nor hold a colon";
    }
    if ((proxy.user + proxy.password).find('\0') != std::string::npos) {
        return "a zero byte in user or password";
    }
    if (proxy.user.size() >= sizeof(tagTaskInfo::szProxyUser) ||
        proxy.password.size() >= sizeof(tagTaskInfo::szProxyPassword)) {
        return "user or password is longer than 127 bytes";
    }
    return "";
}

// Splits "host:port"; a host in brackets keeps them.
std::string ReadServer(std::string_view text, Proxy& proxy) {
    const std::size_t bracket = text.rfind(']');
    const std::size_t colon = text.find(':', bracket == std::string_view::npos ? 0 : bracket);
    proxy.host = text.substr(0, colon);
    proxy.port = kUsualPort;
    if (proxy.host.empty()) return "no host";
    if (proxy.host.size() >= sizeof(tagTaskInfo::szProxyHost)) {
        return "the host is longer than 127 bytes";
    }
    if (colon == std::string_view::npos) return "";
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data() + colon + 1, end, proxy.port);
    if (error != std::errc() || stop != end || proxy.port < 1 || proxy.port > 65535) {
        return "the port must be 1 to 65535";
    }
    return "";
}

// The first of the environment variables that is not empty; a null name when there is none.
struct Variable {
    const char* name = nullptr;
    std::string value{};
};
Variable FirstSet(std::initializer_list<const char*> names) {
    for (const char* name : names) {
        const char* value = std::getenv(name);
        if (value != nullptr && *value != '\0') return {name, value};
    }
    return {};
}

}  // namespace

std::string ParseProxy(std::string_view address, Proxy& proxy) {
    Proxy read;
    if (const std::size_t scheme = address.find("://"); scheme != std::string_view::npos) {
        read.type = TypeOf(strutil::toLower(address.substr(0, scheme)));
        if (read.type == -1) return "the scheme must be http, socks4, socks4a, socks5 or socks5h";
        address.remove_prefix(scheme + 3);
    }
    if (!address.empty() && address.back() == '/') address.remove_suffix(1);
    std::string fault;
    if (const std::size_t at = address.rfind('@'); at != std::string_view::npos) {
        fault = ReadCredentials(address.substr(0, at), read);
        address.remove_prefix(at + 1);
    }
    if (fault.empty()) fault = ReadServer(address, read);
    if (fault.empty()) proxy = read;
    return fault;
}

std::string ProxyRules::Set(const std::string& text) {
    std::string address = text;
    if (text.starts_with('@')) {
        std::string fault = ReadFirstLine(text.substr(1), address);
        if (!fault.empty()) return fault;
        address = strutil::trim(address);
    }
    Proxy proxy;
    std::string fault = text == "none" ? "" : ParseProxy(address, proxy);
    if (!fault.empty()) return fault;
    proxy_ = std::move(proxy);
    given_ = true;
    return "";
}

std::string ProxyRules::For(std::string_view address, Proxy& proxy) const {
    proxy = proxy_;
    if (given_) return "";
    const bool secure = strutil::toLower(address.substr(0, 6)) == "https:";
    const Variable named = secure
                               ? FirstSet({"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"})
                               : FirstSet({"http_proxy", "all_proxy", "ALL_PROXY"});
    if (named.name == nullptr) return "";
    if (IsExempt(FirstSet({"no_proxy", "NO_PROXY"}).value, address)) return "";
    const std::string fault = ParseProxy(named.value, proxy);
    return fault.empty() ? "" : std::string("the environment's ") + named.name + ": " + fault;
}

void Proxy::Fill(tagTaskInfo& task) const {
    if (host.empty()) return;
    task.bUseProxy = 1;
    task.nProxyType = type;
    task.nProxyPort = port;
    SetField(task.szProxyHost, host);
    SetField(task.szProxyUser, user);
    SetField(task.szProxyPassword, password);
}
