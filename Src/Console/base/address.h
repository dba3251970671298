// Whom an address asks: the part between "http://" and the path.
#pragma once

#include <string>
#include <string_view>

struct Authority {
    std::string login{};  // "user:password" as it stands there, percent-encoded; empty: none
    std::string host{};   // ASCII letters in lower case; a name is decoded, "[IPv6]" as it stands
    std::string port{};   // as it stands there; empty: the usual one of the scheme
};

// Reads any text; what has no "://" begins with the authority. As for libcurl, the login ends at
// the first "@".
Authority AuthorityOf(std::string_view address);

// Why nobody can be asked so, in one line, without any part of the login; empty when it can be
// tried. Names of any letters and numeric addresses are hosts; a port is 1 to 65535.
std::string AuthorityFault(const Authority& authority);

// The text with its ASCII letters in lower case.
std::string LowerCase(std::string_view text);
