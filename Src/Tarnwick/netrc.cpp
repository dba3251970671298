#include "Tarnwick/netrc.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "common/file.h"
#include "common/stringutility.h"
#include "common/sysutility.h"

namespace {

constexpr std::size_t kMost = 1024 * 1024;
constexpr std::string_view kBetween = " \t\r\n";

void SkipBlanks(std::string_view& text) {
    text.remove_prefix(std::min(text.find_first_not_of(kBetween), text.size()));
}

// Takes the text up to and with `end` off its beginning, or all of it.
void SkipPast(std::string_view& text, std::string_view end) {
    const std::size_t found = text.find(end);
    text.remove_prefix(found == text.npos ? text.size() : found + end.size());
}

void TakeQuoted(std::string_view& text, std::string* word) {
    text.remove_prefix(1);
    for (; !text.empty() && text.front() != '"'; text.remove_prefix(1)) {
        char c = text.front();
        if (c == '\\' && text.size() > 1) {
            text.remove_prefix(1);
            c = text.front();
            c = c == 'n' ? '\n' : c == 'r' ? '\r' : c == 't' ? '\t' : c;
        }
        if (word != nullptr) *word += c;
    }
    text.remove_prefix(std::min<std::size_t>(1, text.size()));
}

// Takes the next word off the text; nothing at its end. Without a `word`, which is empty before,
// it leaves no copy anywhere.
void TakeWord(std::string_view& text, std::string* word) {
    SkipBlanks(text);
    if (text.starts_with('"')) return TakeQuoted(text, word);
    const std::size_t size = std::min(text.find_first_of(kBetween), text.size());
    if (word != nullptr) *word = text.substr(0, size);
    text.remove_prefix(size);
}

// What stood in memory that is given back can be found there.
void Wipe(std::string& text) {
    volatile char* bytes = text.data();
    for (std::size_t i = 0; i < text.size(); ++i) bytes[i] = 0;
}

// Names of hosts in the file may be written in brackets when they are addresses, or without.
std::string_view Bare(std::string_view host) {
    const bool brackets = host.starts_with('[') && host.ends_with(']');
    return brackets ? host.substr(1, host.size() - 2) : host;
}

}  // namespace

void FindLogin(std::string_view text, std::string_view host, std::string& user,
               std::string& password) {
    user.clear();
    password.clear();
    bool found = false;
    for (SkipBlanks(text); !text.empty(); SkipBlanks(text)) {
        if (text.starts_with('#')) {
            SkipPast(text, "\n");
            continue;
        }
        std::string keyword;
        TakeWord(text, &keyword);
        if (keyword == "machine" || keyword == "default") {
            if (found) return;
            std::string name;
            if (keyword == "machine") TakeWord(text, &name);
            found = keyword == "default" || Bare(strutil::toLower(name)) == Bare(host);
        } else if (keyword == "macdef") {
            SkipPast(text, "\n\n");
        } else if (keyword == "login" || keyword == "password" || keyword == "account") {
            std::string& value = keyword == "login" ? user : password;
            const bool wanted = found && keyword != "account";
            if (wanted) value.clear();
            TakeWord(text, wanted ? &value : nullptr);
        }
    }
}

std::string ReadNetrc(const std::string& path, std::string_view host, std::string& user,
                      std::string& password) {
    const std::string cannot = "cannot read the netrc file " + path;
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0) {
        return sysutility::SystemFault(cannot, errno);
    }
    if (!S_ISREG(status.st_mode)) return cannot + ": it is not a regular file";
    if (static_cast<std::uint64_t>(status.st_size) > kMost) return cannot + ": it is too long";
    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    const ssize_t size = pread(file.Get(), text.data(), text.size(), 0);
    if (size == -1) return sysutility::SystemFault(cannot, errno);
    FindLogin(std::string_view(text).substr(0, static_cast<std::size_t>(size)), host, user,
              password);
    Wipe(text);
    return "";
}
