// Logins that a user keeps in a netrc file, as ftp(1) and curl(1) read it.
#pragma once

#include <string>
#include <string_view>

// Reads the text of such a file: words, which blanks and lines separate; a word in quotation marks
// may hold blanks, and \n, \r, \t, \" and \\. "machine NAME" or "default" begins an entry, "login",
// "password" and "account" each tell one thing of it; "macdef" reaches to the next empty line, "#"
// before a keyword to the end of its line. The first entry for the host counts, or "default" when
// that comes before. `host` is in lower case. Sets `user` and `password`, both empty when there is
// no such entry or it has no login.
void FindLogin(std::string_view text, std::string_view host, std::string& user,
               std::string& password);

// The same with a regular file of at most 1 MiB. Returns why it cannot be read, in one line; empty
// when it was.
std::string ReadNetrc(const std::string& path, std::string_view host, std::string& user,
                      std::string& password);
