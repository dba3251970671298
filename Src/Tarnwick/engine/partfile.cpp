#include "Tarnwick/engine/partfile.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <thread>
#include <utility>

#include "common/file.h"
#include "common/platform.h"

namespace engine {
namespace {

using namespace std::chrono_literals;

// What other writers of the file system are left.
constexpr std::uint64_t kReserve = 64 * 1024 * 1024;
// A smaller file arrives sooner than its room could be reserved.
constexpr std::uint64_t kWorthReserving = 1024 * 1024;
constexpr std::uint64_t kPushed = 8 * 1024 * 1024;
// A transfer that is over sooner than this does not begin to write early: that would cost it time.
constexpr auto kPushFrom = 2s;
constexpr auto kSyncEvery = 5s;
constexpr auto kWriterPatience = 3s;
// A writer elsewhere lives as long as its record is younger than this, in seconds.
constexpr std::int64_t kWriterAge = 30;

std::int64_t Started(pid_t pid) {
    const double age = platform::ProcessAge(pid);
    return age < 0 ? 0
                   : static_cast<std::int64_t>(std::time(nullptr)) - static_cast<std::int64_t>(age);
}

void NoteIn(PartRecord& record, const std::vector<ByteRange>& have) {
    record.have = have;
    record.time = static_cast<std::int64_t>(std::time(nullptr));
}

// Whether the process that is called so in a record is one that lives.
bool Lives(const PartWriter& writer) {
    const std::int64_t started = Started(writer.pid);
    constexpr std::int64_t kRounding = 2;
    return started != 0 && std::abs(started - writer.started) <= kRounding;
}

}  // namespace

PartWriter ThisWriter() {
    // A confined process cannot look anew.
    static const PartWriter writer = [] {
        char host[256] = "";
        gethostname(host, sizeof host - 1);
        return PartWriter{host, platform::BootId(), getpid(), Started(getpid())};
    }();
    return writer;
}

PartFile::PartFile(const std::string& path, bool keeps) : path_(path), keeps_(keeps) {}

Fault PartFile::LocalFault(const char* what, int number) const {
    const bool full = number == ENOSPC || number == EDQUOT;
    return {full ? TaskReason::kNoSpace : TaskReason::kLocal, number,
            std::string(full ? "no space for" : what) + " " + path_ + ": " + std::strerror(number)};
}

MaybeFault PartFile::Open(const std::function<bool()>& patient) {
    if (MaybeFault fault = OpenFile()) return fault;
    PartRecord record;
    bool sound = ReadPartRecord(path_, record);
    if (record.size != 0) {
        if (MaybeFault fault = WaitForWriter(record.writer, record.time, patient)) return fault;
        // It may have written something at last.
        sound = ReadPartRecord(path_, record);
    }
    if (!sound) disregarded_ = "the record of the partial file is damaged";
    if (!keeps_) {
        RecordFile::Remove(path_);
        return std::nullopt;
    }
    record_file_.Open(path_);
    if (record.size == 0) return std::nullopt;
    struct stat status {};
    if (fstat(file_.Get(), &status) != 0 ||
        !FitsPartFile(record, static_cast<std::uint64_t>(status.st_size))) {
        disregarded_ = "the record of the partial file does not fit its size";
    } else if (!record.have.empty()) {
        found_ = std::move(record);
    }
    return std::nullopt;
}

// A pipe without a reader would block for ever; what is neither pipe nor file cannot be continued
// or measured.
MaybeFault PartFile::OpenFile() {
    if (path_.empty()) return Fault{TaskReason::kLocal, EINVAL, "no output path"};
    constexpr int flags = O_RDWR | O_CREAT | O_CLOEXEC | O_NONBLOCK;
    file_ = Descriptor(open(path_.c_str(), flags, 0666));
    if (!file_.IsOpen()) return LocalFault("cannot open", errno);
    return Begin();
}

MaybeFault PartFile::Take(Descriptor file, Descriptor record) {
    file_ = std::move(file);
    record_file_.Take(std::move(record));
    return Begin();
}

MaybeFault PartFile::Begin() {
    self_ = ThisWriter();
    started_ = synced_ = Clock::now();
    if (fstat(file_.Get(), &opened_) != 0) return LocalFault("cannot look at", errno);
    if (!S_ISREG(opened_.st_mode)) {
        return Fault{TaskReason::kLocal, EINVAL, path_ + " is not a regular file"};
    }
    return std::nullopt;
}

MaybeFault PartFile::WaitForWriter(const PartWriter& writer, std::int64_t time,
                                   const std::function<bool()>& patient) {
    const Fault inUse{TaskReason::kLocal, EBUSY, "another process writes " + path_};
    if (writer.host != self_.host || writer.boot != self_.boot) {
        // A machine that was started anew has no writer of before.
        if (writer.host == self_.host) return std::nullopt;
        const std::int64_t age = static_cast<std::int64_t>(std::time(nullptr)) - time;
        return std::abs(age) < kWriterAge ? MaybeFault(inUse) : std::nullopt;
    }
    const Clock::time_point until = Clock::now() + kWriterPatience;
    while (writer.pid != self_.pid && Lives(writer)) {
        if (!patient() || Clock::now() >= until) return inUse;
        std::this_thread::sleep_for(20ms);
    }
    return std::nullopt;
}

MaybeFault PartFile::Restart() {
    found_.reset();
    DropRecord();
    struct stat status {};
    if (fstat(file_.Get(), &status) != 0) return LocalFault("cannot look at", errno);
    // A file system takes its time to cut a file, also one that is empty. Blocks without a size
    // were reserved for what was there before.
    if ((status.st_size > 0 || status.st_blocks > 0) && ftruncate(file_.Get(), 0) != 0)
        return LocalFault("cannot empty", errno);
    return std::nullopt;
}

MaybeFault PartFile::Describe(const PartRecord& about, std::uint64_t missing) {
    if (described_) return std::nullopt;
    struct statvfs system {};
    if (fstatvfs(file_.Get(), &system) == 0 && system.f_blocks != 0) {
        struct stat status {};
        const std::uint64_t room = std::uint64_t{system.f_bavail} * system.f_frsize;
        fstat(file_.Get(), &status);
        // What was reserved in an earlier run counts as room.
        const std::uint64_t taken = static_cast<std::uint64_t>(status.st_blocks) * 512;
        const std::uint64_t needed = std::min(missing, about.size - std::min(about.size, taken));
        if (needed > room) {
            const bool large = needed >= 10'000'000;
            const std::uint64_t unit = large ? 1'000'000 : 1'000;
            const std::string are = large ? " MB are " : " kB are ";
            return Fault{TaskReason::kNoSpace, ENOSPC,
                         "no space for " + path_ + ": " + std::to_string(needed / unit + 1) + are +
                             "needed, " + std::to_string(room / unit) + are + "free"};
        }
        if (needed >= kWorthReserving && room - needed >= kReserve) {
            const int error = platform::ReserveRoom(file_.Get(), static_cast<off_t>(about.size));
            reserved_ = error == 0;
            if (error == ENOSPC) return LocalFault("cannot reserve", error);
        }
    }
    if (!keeps_ || (about.validator.empty() && about.sha256.empty())) return std::nullopt;
    record_ = about;
    record_.writer = self_;
    described_ = true;
    return std::nullopt;
}

MaybeFault PartFile::Write(const char* bytes, std::size_t size, std::uint64_t offset) {
    if (!WriteAt(file_.Get(), {bytes, size}, offset)) return LocalFault("cannot write", errno);
    unpushed_ += size;
    if (described_ && unpushed_ >= kPushed && Clock::now() - started_ >= kPushFrom) {
        platform::StartWriting(file_.Get());
        unpushed_ = 0;
    }
    return std::nullopt;
}

MaybeFault PartFile::StillThere() const {
    struct stat named {};
    if (stat(path_.c_str(), &named) == 0 && SameFile(named, opened_)) return std::nullopt;
    return Fault{TaskReason::kLocal, ENOENT, "the partial file was taken away: " + path_};
}

MaybeFault PartFile::Tick(const std::vector<ByteRange>& have) {
    if (MaybeFault fault = StillThere()) return fault;
    if (!described_) return std::nullopt;
    if (Clock::now() - synced_ >= kSyncEvery) {
        if (const int error = platform::SyncData(file_.Get())) {
            // What was lost the system tells only once.
            DropRecord();
            return LocalFault("cannot write", error);
        }
        synced_ = Clock::now();
        unpushed_ = 0;
        record_.synced = have;
        ReplaceRecord(have);
    } else if (!record_file_.Written()) {
        ReplaceRecord(have);
    } else {
        NoteHave(have);
    }
    return std::nullopt;
}

MaybeFault PartFile::Finish(const std::vector<ByteRange>& have, std::uint64_t size,
                            std::time_t modified) {
    struct stat status {};
    if (fstat(file_.Get(), &status) != 0) return LocalFault("cannot look at", errno);
    const auto length = static_cast<off_t>(size);
    if (status.st_size != length && ftruncate(file_.Get(), length) != 0) {
        return LocalFault("cannot cut", errno);
    }
    // A file system that keeps no such time makes no other file of it.
    const timespec times[] = {{0, UTIME_OMIT}, {modified, 0}};
    if (modified >= 0) static_cast<void>(futimens(file_.Get(), times));
    // Whoever asked for the file brings it to the disk before it gets its name.
    NoteHave(have);
    return StillThere();
}

void PartFile::Leave(const std::vector<ByteRange>& have) {
    struct stat status {};
    if (fstat(file_.Get(), &status) != 0) return;
    // Gives back what was reserved behind the end.
    if (reserved_) reserved_ = ftruncate(file_.Get(), status.st_size) != 0;
    // Without the file, a record would only be in the way.
    if (access(path_.c_str(), F_OK) != 0) return DropRecord();
    if (!described_ || have.empty() || StillThere()) return;
    NoteHave(have);  // should the process not be given the time that the disk takes
    if (platform::SyncData(file_.Get()) != 0) return DropRecord();
    record_.synced = have;
    ReplaceRecord(have);
}

void PartFile::ReplaceRecord(const std::vector<ByteRange>& have) {
    NoteIn(record_, have);
    record_file_.Replace(record_);
}

void PartFile::NoteHave(const std::vector<ByteRange>& have) {
    NoteIn(record_, have);
    record_file_.Note(record_);
}

void PartFile::DropRecord() {
    described_ = false;
    record_file_.Empty();
}

}  // namespace engine
