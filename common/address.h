// What an address says before its path: scheme, login, host and port.
//
// Texts of any bytes will do. Nothing here keeps state; any thread may call.
#pragma once

#include <string>
#include <string_view>

// Whom an address asks: the part between "http://" and the path.
struct Authority {
    std::string host{};  // ASCII letters in lower case; a name is decoded, "[IPv6]" as it stands
    std::string port{};  // as it stands there; empty: the usual one of the scheme
};

// Reads any text; what has no "://" begins with the authority. As for libcurl, the login ends at
// the first "@".
Authority AuthorityOf(std::string_view address);

// Why nobody can be asked so, in one line, without any part of the login; empty when it can be
// tried. Names of any letters and numeric addresses are hosts; a port is 1 to 65535.
std::string AuthorityFault(const Authority& authority);

// The address without the login that it may hold, whatever its scheme: all up to the last "@"
// before the path, so that nothing of a password is left.
std::string WithoutLogin(std::string_view address);

// Takes the login off the address and decodes its percent escapes. Returns why it is of no use, in
// one line and without any part of it. Empty: `user` and `password` are those of the address; or as
// before, when it has none.
std::string TakeLogin(std::string& address, std::string& user, std::string& password);

// Whether both addresses have the same scheme, http or https, the same host and port (RFC 6454, 4).
// Hosts are compared as texts: two names of one host are two hosts.
bool SameOrigin(std::string_view one, std::string_view other);

// Replaces every %XX by the byte; anything else stays as it is.
std::string PercentDecode(std::string_view text);
