#include "Console/base/noproxy.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>

#include "common/address.h"
#include "common/stringutility.h"

namespace {

// The bytes of a numeric address, most significant first; empty for a name.
std::string BytesOf(const std::string& host) {
    char bytes[sizeof(in6_addr)];
    if (inet_pton(AF_INET6, host.c_str(), bytes) == 1) return {bytes, sizeof(in6_addr)};
    // Also "127.1" and "0x7f.1", which libcurl takes for an address, too.
    if (inet_aton(host.c_str(), reinterpret_cast<in_addr*>(bytes)) == 0) return "";
    return {bytes, sizeof(in_addr)};
}

// Whether two addresses begin with the same bits; false when they have not that many.
bool ShareBits(const std::string& one, const std::string& other, std::size_t bits) {
    if (one.size() != other.size() || bits > 8 * one.size()) return false;
    const auto byte = [bits](const std::string& bytes, std::size_t i) {
        const std::size_t dropped = 8 * (i + 1) > bits ? 8 * (i + 1) - bits : 0;
        return static_cast<unsigned char>(bytes[i]) >> dropped;
    };
    for (std::size_t i = 0; 8 * i < bits; ++i) {
        if (byte(one, i) != byte(other, i)) return false;
    }
    return true;
}

// A whole number; most of all when it is none.
std::size_t NumberOf(std::string_view digits) {
    std::size_t number = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    return error == std::errc() && end == digits.data() + digits.size() ? number : digits.npos;
}

// A host as it is compared: without brackets, zone and the dot that may end a name.
std::string Bare(std::string host) {
    if (host.starts_with('[')) host = host.substr(1, host.find_first_of("]%") - 1);
    if (host.ends_with('.')) host.pop_back();
    return host;
}

// Whether an entry without a port covers the host.
bool Covers(std::string entry, const std::string& host) {
    const std::string address = BytesOf(host);
    const std::size_t slash = entry.find('/');
    const std::string number = BytesOf(Bare(entry.substr(0, slash)));
    if (slash != entry.npos) {
        if (entry.ends_with(']')) entry.pop_back();
        return !address.empty() && ShareBits(address, number, NumberOf(entry.substr(slash + 1)));
    }
    if (!address.empty()) return address == number;
    entry = Bare(entry);
    if (entry.starts_with('.')) entry.erase(0, 1);
    return !entry.empty() && (host == entry || host.ends_with("." + entry));
}

}  // namespace

bool IsExempt(std::string_view list, std::string_view address) {
    const Authority asked = AuthorityOf(address);
    const std::string host = Bare(asked.host);
    const bool secure = strutil::toLower(address.substr(0, 6)) == "https:";
    const std::size_t port = asked.port.empty() ? (secure ? 443 : 80) : NumberOf(asked.port);
    const std::vector<std::string> entries = strutil::split(strutil::toLower(list), ", \t");
    return std::any_of(entries.begin(), entries.end(), [&](const std::string& entry) {
        const std::size_t colon = entry.find(':', entry.find(']') + 1);
        // Several colons without brackets are those of an IPv6 address.
        const bool ported = colon != entry.npos && colon == entry.rfind(':');
        if (ported && NumberOf(entry.substr(colon + 1)) != port) return false;
        const std::string covered = entry.substr(0, ported ? colon : entry.npos);
        return covered == "*" || Covers(covered, host);
    });
}
