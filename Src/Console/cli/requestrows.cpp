// The options that say what each request to a server carries.
#include <utility>

#include "Console/base/textfile.h"
#include "Console/cli/forms.h"

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

}  // namespace

Option HeaderRow(tagTaskRequest& request) {
    return {"-H,--header", "LINE|@FILE...",
            "\"NAME: VALUE\", sent with each request; without\n"
            "VALUE not sent at all; @FILE reads lines of a file",
            [&request](const std::string& text) { return AddHeaders(text, request.Headers); }};
}

Option UserAgentRow(tagTaskRequest& request) {
    return {"-A,--user-agent", "TEXT", "what the command calls itself; not to pages",
            Text(request.strUserAgent)};
}
