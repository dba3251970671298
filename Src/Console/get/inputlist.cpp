#include "Console/get/inputlist.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "Console/get/digest.h"
#include "Console/get/filename.h"
#include "Console/screen/display.h"
#include "Console/screen/text.h"
#include "common/address.h"
#include "common/stringutility.h"
#include "common/sysutility.h"

namespace {

constexpr std::size_t kBlock = 64 * 1024;
constexpr std::size_t kLongestLine = 20 * 1024;  // an address, a name, a digest
constexpr int kMostReads = 16;                   // blocks that one Take may read
constexpr std::string_view kBlanks = " \t";
constexpr std::string_view kMark = "\xEF\xBB\xBF";  // with which some editors begin a UTF-8 file

// Cuts the text at the first TAB and returns what stands before it.
std::string TakeColumn(std::string_view& text) {
    const std::size_t tab = text.find('\t');
    std::string column(text.substr(0, tab));
    text.remove_prefix(tab == std::string_view::npos ? text.size() : tab + 1);
    return column;
}

std::string Trimmed(const std::string& text) {
    const std::size_t begin = text.find_first_not_of(kBlanks);
    if (begin == std::string::npos) return "";
    return text.substr(begin, text.find_last_not_of(kBlanks) + 1 - begin);
}

bool CanBeRead(int file) {
    pollfd news{file, POLLIN, 0};
    return poll(&news, 1, 0) == 1;
}

// The line that gives this request when it is read; empty when the format cannot express it.
std::string ListLine(const Request& request) {
    if (!request.line.empty()) return request.line;
    std::string line = request.address;
    // Trailing empty columns are left out.
    if (!request.name.empty() || !request.sha256.empty()) line += "\t" + request.name;
    if (!request.sha256.empty()) line += "\t" + request.sha256;
    const Request back = ReadListLine(line);
    const bool expressed = line.find('\n') == std::string::npos &&
                           back.address == request.address && back.name == request.name;
    return expressed ? line : "";
}

// Whether a column of the line has a login, also a malformed one, that is more than a user.
bool HoldsPassword(const std::string& line) {
    std::string user, password;
    for (std::string& column : strutil::split(line, "\t")) {
        if (!TakeLogin(column, user, password).empty() || !password.empty()) return true;
    }
    return false;
}

}  // namespace

Request ReadListLine(std::string_view line) {
    const std::string_view whole = line;
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    const std::size_t begin = line.find_first_not_of(kBlanks);
    if (begin == std::string_view::npos || line[begin] == '#') return {};
    Request request;
    std::string_view rest = line;
    request.address = Trimmed(TakeColumn(rest));
    request.name = TakeColumn(rest);
    request.sha256 = Trimmed(TakeColumn(rest));
    if (request.address.empty()) {
        request = {Trimmed(std::string(line)), "", "", "the line begins without an address"};
    } else if (!request.sha256.empty() && !IsDigest(request.sha256)) {
        request.fault = "the third column is no SHA-256 digest";
    } else if (!request.name.empty()) {
        request.fault = NameFault(request.name);
    }
    if (!Trimmed(std::string(rest)).empty()) {
        request.fault = "the line has more than three columns";
    }
    if (!request.fault.empty()) request.line = whole;
    return request;
}

std::string InputList::Open(const std::string& path) {
    path_ = path;
    // O_NONBLOCK: a named pipe may have no writer yet.
    file_ = Descriptor(path == "-" ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)
                                   : open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!file_.IsOpen() || fstat(file_.Get(), &status) != 0) {
        return sysutility::SystemFault("cannot read " + path, errno);
    }
    return S_ISDIR(status.st_mode) ? path + " is a directory" : "";
}

InputList::Taken InputList::Take(Request& request) {
    for (int reads = 0;;) {
        std::size_t end = rest_.find('\n', searched_);
        const bool whole = end != std::string::npos || !file_.IsOpen();
        if (end == std::string::npos) end = rest_.size();
        const std::size_t length = end - begin_;
        if (!whole && length <= kLongestLine) {
            searched_ = end;
            if (!CanBeRead(file_.Get())) return Taken::kNothing;
            if (reads++ == kMostReads) return Taken::kMore;
            if (!Read(request)) return Taken::kRequest;
            continue;
        }
        if (begin_ == rest_.size()) return Taken::kNothing;
        const bool goesOn = std::exchange(skipping_, !whole);
        std::string_view line = std::string_view(rest_).substr(begin_, length);
        if (std::exchange(at_begin_, false) && line.starts_with(kMark)) {
            line.remove_prefix(kMark.size());
        }
        request = ReadListLine(line.substr(0, kLongestLine));
        if (length > kLongestLine) {
            request.fault = "the line is longer than " + std::to_string(kLongestLine) + " bytes";
            request.line = line.substr(0, kLongestLine + 1);  // still too long
        }
        begin_ = searched_ = std::min(end + 1, rest_.size());
        if (!goesOn && !request.address.empty()) return Taken::kRequest;
    }
}

// Reads one block. On an error returns false with a request that says so.
bool InputList::Read(Request& failure) {
    rest_.erase(0, std::exchange(begin_, 0));
    searched_ = rest_.size();
    const std::size_t held = rest_.size();
    rest_.resize(held + kBlock);
    const ssize_t count = read(file_.Get(), &rest_[held], kBlock);
    const int error = errno;
    rest_.resize(held + (count > 0 ? static_cast<std::size_t>(count) : 0));
    if (count > 0 || (count == -1 && (error == EINTR || error == EAGAIN))) return true;
    file_.Close();
    if (count == 0) return true;
    failure = {"", path_, "", sysutility::SystemFault("cannot read the list", error)};
    return false;
}

void InputList::StopWaiting() {
    struct stat status {};
    if (!file_.IsOpen() || (fstat(file_.Get(), &status) == 0 && S_ISREG(status.st_mode))) return;
    file_.Close();
    // Drop an incomplete last line: its beginning would be taken for a different address.
    const std::size_t end = rest_.rfind('\n');
    rest_.resize(std::max(begin_, end == std::string::npos ? 0 : end + 1));
    searched_ = begin_;
}

std::string FailedList::Open(const std::string& path) {
    auto target = std::make_unique<Target>(path, Existing::kReplace, PartRule::kKeep);
    std::string fault = target->Open();
    if (fault.empty()) target_ = std::move(target);
    return fault;
}

void FailedList::Add(const Request& request, bool more) {
    if (!IsOpen() || request.address.empty()) return;
    const std::string line = ListLine(request);
    if (HoldsPassword(line)) target_->MakePrivate();
    if (!line.empty()) lines_ += line + "\n";
    if (!more || lines_.size() > kBlock) Write();
}

void FailedList::Write() {
    if (!WriteAll(target_->Part(), std::exchange(lines_, {}))) written_ = false;
}

std::string FailedList::Finish(bool sync) {
    if (!IsOpen()) return "";
    Write();
    const std::unique_ptr<Target> target = std::move(target_);
    if (!written_) return "cannot write all of " + target->PartPath();
    return target->Store(-1, "", [sync](int file) { return sync ? SyncFile(file) : 0; }).message;
}
