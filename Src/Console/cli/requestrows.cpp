// The options that say what each request to a server carries.
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <utility>

#include "Console/base/textfile.h"
#include "Console/cli/forms.h"
#include "common/file.h"
#include "common/sysutility.h"

namespace {

// A header line, or "@FILE" for one in each line of that file.
std::string AddHeaders(const std::string& text, std::vector<std::string>& headers) {
    std::vector<std::string> lines{text};
    if (text.starts_with('@')) {
        if (std::string fault = ReadLines(text.substr(1), lines); !fault.empty()) return fault;
    }
    for (std::string& line : lines) {
        if (line.empty()) continue;
        if (std::string fault = RefusalOfHeader(line); !fault.empty()) return fault;
        headers.push_back(std::move(line));
    }
    return "";
}

// "USER" or "USER:PASSWORD", also from the first line of "@FILE".
std::string SetUser(const std::string& text, tagTaskRequest& request) {
    std::string login = text;
    if (text.starts_with('@')) {
        if (std::string fault = ReadFirstLine(text.substr(1), login); !fault.empty()) return fault;
    }
    const std::size_t colon = login.find(':');
    tagTaskRequest alone;  // what other options give may not be complete yet
    alone.strUser = login.substr(0, colon);
    alone.strPassword = colon == std::string::npos ? "" : login.substr(colon + 1);
    request.strUser = alone.strUser;
    request.strPassword = alone.strPassword;
    return alone.strUser.empty() ? "the user is empty" : RefusalOf(alone);
}

// A file that the workers are to read, which may run elsewhere.
std::string SetFile(const std::string& text, std::string& path) {
    std::error_code error;
    path = std::filesystem::absolute(text, error);
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0) {
        return sysutility::SystemFault("cannot read " + path, errno);
    }
    return S_ISREG(status.st_mode) ? "" : path + " is not a regular file";
}

std::string SetNetrc(const std::string& text, std::string& path) {
    if (!text.empty()) return SetFile(text, path);
    const char* home = std::getenv("HOME");
    if (home == nullptr || *home == '\0') return "HOME is not set: name the file";
    return SetFile(std::string(home) + "/.netrc", path);
}

Option FileRow(const char* names, const char* help, std::string& path) {
    return {names, "FILE", help, [&path](const std::string& text) { return SetFile(text, path); }};
}

}  // namespace

std::vector<Option> LoginRows(tagTaskRequest& request) {
    return {
        {"-H,--header", "LINE|@FILE...",
         "\"NAME: VALUE\", sent with each request; without\n"
         "VALUE not sent at all; @FILE reads lines of a file",
         [&request](const std::string& text) { return AddHeaders(text, request.Headers); }},
        {"-u,--user", "USER[:PASSWORD]|@FILE",
         "login, basic or digest; @FILE reads it from the\n"
         "first line of a file",
         [&request](const std::string& text) { return SetUser(text, request); }, "--netrc"},
        {"--netrc", "[=FILE]", "logins of hosts from FILE, or from ~/.netrc",
         [&request](const std::string& text) { return SetNetrc(text, request.strNetrc); }},
    };
}

std::vector<Option> TrustRows(tagTaskRequest& request) {
    return {
        FileRow("--cacert", "certificates (PEM) of the only authorities to trust",
                request.strCaFile),
        FileRow("--cert", "the client's certificate (PEM)", request.strCertFile),
        FileRow("--key", "its key, if it is not in the same file", request.strKeyFile),
        {"--insecure", "", "check no certificate of a server", Set(request.bInsecure, true),
         "--cacert"},
    };
}

std::string CompleteRequest(tagTaskRequest& request) {
    for (const char* name : {"CURL_CA_BUNDLE", "SSL_CERT_FILE"}) {
        const char* path = std::getenv(name);
        if (path == nullptr || *path == '\0') continue;
        if (!request.strCaFile.empty() || request.bInsecure) break;
        const std::string fault = SetFile(path, request.strCaFile);
        if (!fault.empty()) return std::string("the environment's ") + name + ": " + fault;
    }
    return RefusalOf(request);
}
