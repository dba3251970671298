#include "Console/get/target.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <utility>

#include "Console/get/digest.h"
#include "Console/get/numbering.h"
#include "Console/get/rights.h"
#include "Console/get/standardoutput.h"
#include "Console/screen/text.h"
#include "TaskMan/othermanagers.h"
#include "TaskMan/partrecord.h"
#include "TaskMan/taskcontext.h"
#include "common/file.h"
#include "common/platform.h"
#include "common/sysutility.h"

namespace {

constexpr std::size_t kLongestPath = sizeof(tagTaskInfo::szFilePath) - 1;
// The worker of a killed command stores how far it came before it exits, and a sweep locks a part
// for moments, to see whether it is in use.
constexpr std::chrono::seconds kPartPatience{1};

std::string Fault(const char* what, const std::string& path, int error) {
    return sysutility::SystemFault(what + (" " + path), error);
}

Outcome Local(std::string message) {
    return {EndResult::kFailed, EXIT_STATUS_LOCAL, std::move(message)};
}

// The path of the regular file that a link leads to; the path itself when it is no such link.
std::string Followed(const std::string& path) {
    struct stat named {};
    struct stat file {};
    if (lstat(path.c_str(), &named) != 0 || !S_ISLNK(named.st_mode)) return path;
    // In a sticky directory the kernel may refuse other users' links (protected_symlinks): trust
    // stat, not readlink.
    if (stat(path.c_str(), &file) != 0 || !S_ISREG(file.st_mode)) return path;
    std::error_code error;
    std::string real = std::filesystem::canonical(path, error);
    const bool same = !error && lstat(real.c_str(), &named) == 0 && SameFile(named, file);
    return same ? real : path;
}

// A finished outcome when the file has the digest, or any when that is empty.
Outcome DigestFault(int file, const std::string& path, const std::string& sha256) {
    if (sha256.empty()) return {};
    const std::string digest = FileDigest(file);
    if (digest.empty()) return Local(Fault("cannot read", path, errno));
    if (SameDigest(digest, sha256)) return {};
    return {EndResult::kMismatch, EXIT_STATUS_MISMATCH, path + " has the SHA-256 digest " + digest};
}

// Makes the directory of the file, and those above it. Returns the fault in one line.
std::string MakeDirectory(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) return Fault("cannot create", path, ENOENT);
    const std::string directory = path.substr(0, slash);
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    return error ? Fault("cannot make the directory", directory, error.value()) : "";
}

// Renames without replacing, atomically where the file system can. Returns 0 or an error number,
// EEXIST when `to` exists.
int RenameToNew(const char* from, const char* to) {
    const int error = platform::RenameToNew(from, to);
    if (error != EINVAL && error != ENOSYS && error != ENOTSUP) return error;
    if (link(from, to) == 0) {
        unlink(from);
        return 0;
    }
    if (errno == EEXIST || errno == ENOENT || errno == ENOSPC || errno == EDQUOT) return errno;
    // Without hard links, too, only a check that another process may overtake is left.
    struct stat status {};
    if (lstat(to, &status) == 0) return EEXIST;
    return rename(from, to) == 0 ? 0 : errno;
}

}  // namespace

int SyncFile(int descriptor) {
    return fsync(descriptor) == 0 ? 0 : errno;
}

Target::Target(const std::string& path, Existing existing, PartRule rule, Naming naming)
    : base_(Followed(path)),
      path_(naming == Naming::kNow ? base_ : ""),
      part_(base_ + TASK_PART_ENDING),
      naming_(naming),
      existing_(existing),
      rule_(rule) {}

void Target::Name(const std::string& path) {
    base_ = path_ = Followed(path);
    number_ = 0;
    struct stat old {};
    if (Replaces(old)) fchmod(Part(), RightsToReplace(old));
}

bool Target::NextName() {
    if (hopeless_ || (existing_ != Existing::kNumber && !path_.empty())) return false;
    number_ = path_.empty() ? number_ + 1 : FreeNumber(base_, number_ + 1);
    const std::string path = NumberedPath(base_, number_);
    if (!IsOpen()) part_ = path + TASK_PART_ENDING;
    if (!path_.empty()) path_ = path;
    return true;
}

bool Target::Skips() const {
    struct stat status {};
    return existing_ == Existing::kSkip && stat(path_.c_str(), &status) == 0 &&
           S_ISREG(status.st_mode);
}

Outcome Target::Skip(const std::string& sha256) const {
    Outcome skipped{EndResult::kSkipped};
    skipped.message = path_ + " exists already";
    struct stat status {};
    if (stat(path_.c_str(), &status) != 0) return Local(Fault("cannot read", path_, errno));
    skipped.bytes = static_cast<double>(status.st_size);
    if (sha256.empty()) return skipped;
    const Descriptor file(open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file.IsOpen()) return Local(Fault("cannot read", path_, errno));
    Outcome differs = DigestFault(file.Get(), path_, sha256);
    return differs.result == EndResult::kFinished ? skipped : differs;
}

std::string Target::Open() {
    hopeless_ = true;
    if (part_.size() > kLongestPath) {
        return "the path is longer than " + std::to_string(kLongestPath) + " bytes";
    }
    if (part_.find('\\') != std::string::npos) return "a backslash in the path";
    // The previous owner may rename or unlink the part between our open and our flock: retry.
    for (int tries = 0; tries < 10; ++tries) {
        std::string fault = OpenOnce();
        if (fault.empty() && !IsOpen()) continue;
        // The previous owner may have given its part the final name just before.
        if (IsOpen()) {
            hopeless_ = false;
            fault = Obstacle();
        }
        if (IsOpen() && !fault.empty()) {
            GiveUp();
            file_ = Descriptor();
        }
        return fault;
    }
    return part_ + " keeps changing";
}

std::string Target::Obstacle() const {
    struct stat status {};
    if (path_.empty() || lstat(path_.c_str(), &status) != 0) return "";
    if (S_ISLNK(status.st_mode)) return path_ + " is a link that leads to no regular file";
    if (!S_ISREG(status.st_mode)) return path_ + " is not a regular file";
    if (existing_ == Existing::kNumber) return path_ + " exists already";
    if (existing_ == Existing::kRefuse) return path_ + " exists already (--force replaces it)";
    if (existing_ == Existing::kReplace &&
        faccessat(AT_FDCWD, path_.c_str(), W_OK, AT_EACCESS) != 0) {
        return Fault("cannot replace", path_, errno);
    }
    return existing_ == Existing::kSkip ? path_ + " appeared meanwhile" : "";
}

// Whether a file that is there is to be replaced, and keeps its rights.
bool Target::Replaces(struct stat& old) const {
    return existing_ == Existing::kReplace && rule_ != PartRule::kKeep &&
           lstat(path_.c_str(), &old) == 0 && S_ISREG(old.st_mode);
}

// One try. Leaves the part closed, without a fault, when its directory had to be made, when it lost
// its name meanwhile, or was a stale one that is removed now.
std::string Target::OpenOnce() {
    constexpr int flags = O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    // With another name at hand nothing is waited for.
    const bool numbers = existing_ == Existing::kNumber || path_.empty();
    const auto patience = numbers ? std::chrono::seconds(0) : kPartPatience;
    std::string fault = Obstacle();
    hopeless_ = fault.empty();
    if (!hopeless_) return fault;
    struct stat old {};
    mode_t mode = Replaces(old) ? RightsToReplace(old) : 0666;
    if (naming_ == Naming::kNever) mode = S_IRUSR | S_IWUSR;
    Descriptor file(open(part_.c_str(), flags | O_CREAT | O_EXCL, mode));
    if (!file.IsOpen() && errno == ENOENT) return MakeDirectory(part_);
    const bool found = !file.IsOpen() && errno == EEXIST;
    if (found) file = Descriptor(open(part_.c_str(), flags));
    if (!file.IsOpen()) return Fault("cannot create", part_, errno);
    struct stat status {};
    if (fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        fault = part_ + " is not a regular file";
    } else if (const int error = TryLock(file.Get(), patience); error != 0) {
        hopeless_ = error != EWOULDBLOCK;
        fault = error == EWOULDBLOCK ? "another download writes " + part_
                                     : Fault("cannot lock", part_, error);
    }
    struct stat named {};
    if (!fault.empty() || lstat(part_.c_str(), &named) != 0 || !SameFile(status, named)) {
        return fault;
    }
    found_ = found && rule_ == PartRule::kContinue && HasPartRecord(part_);
    if (!found_) RemoveRecord();
    if (found && !found_) {
        // No download owns it, but a worker whose command was killed may still write into it.
        unlink(part_.c_str());
    } else {
        file_ = std::move(file);
    }
    return "";
}

void Target::MakePrivate() const {
    static_cast<void>(fchmod(Part(), S_IRUSR | S_IWUSR));
}

bool Target::StillNamed() const {
    return IsNamed(Part(), part_);
}

Outcome Target::Store(double size, const std::string& sha256, const std::function<int(int)>& sync) {
    struct stat status {};
    if (fstat(Part(), &status) != 0 || !StillNamed()) return Local(part_ + " was taken away");
    const auto bytes = static_cast<double>(status.st_size);
    // Its name goes first: however the command ends from here on, nothing stays.
    const bool named = naming_ != Naming::kNever;
    if (!named) GiveUp();
    if (size >= 0 && bytes != size) {
        spoiled_ = true;
        return {EndResult::kMismatch, EXIT_STATUS_MISMATCH,
                std::to_string(status.st_size) + " bytes arrived, the server announced " +
                    std::to_string(static_cast<long long>(size))};
    }
    Outcome differs = DigestFault(Part(), named ? part_ : "the file", sha256);
    if (differs.result != EndResult::kFinished) {
        spoiled_ = differs.result == EndResult::kMismatch;
        return differs;
    }
    if (!named) return WriteToOutput(Part());
    struct stat old {};
    if (const int error = Replaces(old) ? TakeRights(Part(), old) : 0; error != 0) {
        return Local(Fault("cannot keep the permissions of", path_, error));
    }
    if (const int error = sync(Part())) return Local(Fault("cannot write", part_, error));
    // Should the command be killed between the two steps, an empty record is not worth staying.
    const bool recorded = HasPartRecord(part_);
    if (!recorded) RemoveRecord();
    std::string fault = Rename();
    if (!fault.empty()) return Local(std::move(fault));
    if (recorded) RemoveRecord();
    stored_ = true;
    return {EndResult::kFinished, EXIT_STATUS_FINISHED, "", bytes};
}

std::string Target::Rename() {
    const bool replace = existing_ == Existing::kReplace;
    int error = EEXIST;
    do {
        error = replace ? (rename(part_.c_str(), path_.c_str()) == 0 ? 0 : errno)
                        : RenameToNew(part_.c_str(), path_.c_str());
    } while (error == EEXIST && NextName());
    if (error == 0) return "";
    if (error == EEXIST) return path_ + " appeared meanwhile (--force replaces it)";
    return Fault("cannot create", path_, error);
}

void Target::RemoveRecord() const {
    // A list of what did not finish has none, and what stands beside it is somebody else's.
    if (rule_ != PartRule::kKeep) RemovePartRecord(part_);
}

double Target::GiveUp() const {
    struct stat status {};
    if (!IsOpen() || stored_) return -1;
    if (!StillNamed()) {
        // Whoever took the part away has left what stood beside it.
        if (access(part_.c_str(), F_OK) != 0) RemoveRecord();
        return -1;
    }
    if (fstat(Part(), &status) != 0) return -1;
    if (rule_ == PartRule::kKeep && status.st_size > 0) return -1;
    const bool may = rule_ == PartRule::kContinue && !spoiled_;
    const double percent =
        may ? ContinuablePercent(part_, static_cast<std::uint64_t>(status.st_size)) : -1;
    if (percent >= 0) return percent;
    RemoveRecord();
    unlink(part_.c_str());
    return -1;
}
