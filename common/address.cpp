#include "common/address.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>

#include "common/stringutility.h"

namespace {

constexpr const char* kAtSign = "\"@\" in a user or password must be written %40";

// What libcurl refuses in the name of a host. A "%" that begins no encoded byte is let through.
constexpr std::string_view kInNoHost = " !\"#$&'()*+,/:;<=>?@[\\]^`{}";

// "[ADDRESS]" or "[ADDRESS%ZONE]"
std::string Ipv6Fault(std::string_view host) {
    const std::size_t zone = host.find('%');
    const std::string address(host.substr(1, std::min(zone, host.size() - 1) - 1));
    in6_addr bytes{};
    const bool sound = host.ends_with(']') && inet_pton(AF_INET6, address.c_str(), &bytes) == 1 &&
                       (zone == host.npos || zone + 2 < host.size());
    return sound ? "" : "the brackets hold no IPv6 address";
}

std::string HostFault(std::string_view host) {
    if (host.empty()) return "the address names no host";
    if (host.starts_with('[')) return Ipv6Fault(host);
    for (const char c : host) {
        if (static_cast<unsigned char>(c) < ' ' || c == '\x7F') return "a control byte in the host";
        if (kInNoHost.find(c) == kInNoHost.npos) continue;
        if (c == '@') return kAtSign;
        return std::string("no host has a \"") + c + "\" in its name";
    }
    return "";
}

struct Span {
    std::size_t begin;
    std::size_t end;
};

// Where the login and its "@" stand in the address.
Span LoginIn(std::string_view address) {
    const std::size_t scheme = address.find("://");
    const std::size_t path = address.find_first_of("/?#");
    std::size_t begin = 0;
    if (scheme != address.npos && scheme < path) {
        // libcurl takes "http:///host" for "http://host".
        begin = std::min(address.find_first_not_of('/', scheme + 1), address.size());
    }
    const std::string_view rest = address.substr(begin);
    const std::size_t at = rest.substr(0, rest.find_first_of("/?#")).rfind('@');
    return {begin, at == rest.npos ? begin : begin + at + 1};
}

// "https://host:443"; empty for other schemes, and without a host.
std::string Origin(std::string_view address) {
    const std::string scheme = strutil::toLower(address.substr(0, address.find("://")));
    if (scheme != "http" && scheme != "https") return "";
    const Authority authority = AuthorityOf(address);
    if (authority.host.empty()) return "";
    const std::string usual = scheme == "http" ? "80" : "443";
    return scheme + "://" + authority.host + ":" +
           (authority.port.empty() ? usual : authority.port);
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

std::string WithoutLogin(std::string_view address) {
    const Span login = LoginIn(address);
    return std::string(address.substr(0, login.begin)).append(address.substr(login.end));
}

std::string TakeLogin(std::string& address, std::string& user, std::string& password) {
    const Span span = LoginIn(address);
    const std::string text = address.substr(span.begin, span.end - span.begin);
    address = WithoutLogin(address);
    if (text.size() < 2) return "";
    const std::string_view login = std::string_view(text).substr(0, text.size() - 1);
    const std::size_t colon = login.find(':');
    if (login.find('@') != login.npos) return kAtSign;
    if (colon == 0) return "the address holds a password without a user";
    user = PercentDecode(login.substr(0, colon));
    password = colon == login.npos ? "" : PercentDecode(login.substr(colon + 1));
    return "";
}

Authority AuthorityOf(std::string_view address) {
    const std::size_t scheme = address.find("://");
    const std::size_t path = address.find_first_of("/?#");
    // A "://" further on is part of the path or of what follows it.
    if (scheme != address.npos && scheme < path) address.remove_prefix(scheme + 3);
    address = address.substr(0, address.find_first_of("/?#"));
    Authority authority;
    if (const std::size_t at = address.find('@'); at != address.npos) address.remove_prefix(at + 1);
    const std::size_t bracket = address.starts_with('[') ? address.find(']') : address.npos;
    const std::size_t colon = address.find(':', bracket == address.npos ? 0 : bracket);
    const std::string_view host = address.substr(0, colon);
    authority.host =
        strutil::toLower(bracket == address.npos ? PercentDecode(host) : std::string(host));
    if (colon != address.npos) authority.port = address.substr(colon + 1);
    return authority;
}

std::string AuthorityFault(const Authority& authority) {
    const std::string& port = authority.port;
    std::string fault = HostFault(authority.host);
    if (!fault.empty() || port.empty()) return fault;
    int number = 0;
    const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), number);
    const bool sound = error == std::errc() && end == port.data() + port.size();
    return sound && number >= 1 && number <= 65535 ? "" : "the port must be 1 to 65535";
}

bool SameOrigin(std::string_view one, std::string_view other) {
    const std::string origin = Origin(one);
    return !origin.empty() && origin == Origin(other);
}

std::string PercentDecode(std::string_view text) {
    std::string decoded;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const int high = i + 2 < text.size() ? HexDigit(text[i + 1]) : -1;
        const int low = high >= 0 ? HexDigit(text[i + 2]) : -1;
        if (text[i] != '%' || low < 0) {
            decoded += text[i];
        } else {
            decoded += static_cast<char>(high * 16 + low);
            i += 2;
        }
    }
    return decoded;
}
