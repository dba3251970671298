#include "Tarnwick/engine/recordfile.h"

#include <fcntl.h>
#include <unistd.h>

#include "common/platform.h"

namespace engine {

void RecordFile::Open(const std::string& path) {
    const std::string name = path + PART_RECORD_ENDING;
    constexpr int flags = O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    file_ = Descriptor(open(name.c_str(), flags, 0600));
    struct stat status {};
    if (fstat(file_.Get(), &status) == 0 && IsOwnRegular(status) && status.st_nlink == 1) return;
    unlink(name.c_str());
    file_ = Descriptor(open(name.c_str(), flags | O_EXCL, 0600));
}

void RecordFile::Replace(const PartRecord& record) {
    const std::string first = EncodePartRecord(record);
    const std::string text = first + EncodePartHave(record, first);
    if (text.size() > PART_RECORD_COPY) return;
    for (const std::size_t offset : {PART_RECORD_COPY, std::size_t{0}}) {
        if (!WriteAt(file_.Get(), text, offset) || platform::SyncData(file_.Get()) != 0) {
            return Note(record);
        }
    }
    first_ = first;
}

// One that is written only partly does not count: `synced` does then. What was longer before goes
// on behind the end, where no reader looks.
void RecordFile::Note(const PartRecord& record) {
    if (!Written()) return;
    const std::string text = EncodePartHave(record, first_);
    if (first_.size() + text.size() > PART_RECORD_COPY) return;
    static_cast<void>(WriteAt(file_.Get(), text, first_.size()));
}

// After a restart of the machine an old record must not meet new data: its end reaches the disk
// first.
void RecordFile::Empty() {
    first_.clear();
    struct stat status {};
    if (fstat(file_.Get(), &status) != 0 || status.st_size == 0) return;
    if (ftruncate(file_.Get(), 0) == 0) static_cast<void>(platform::SyncData(file_.Get()));
}

void RecordFile::Remove(const std::string& path) {
    const std::string name = path + PART_RECORD_ENDING;
    if (unlink(name.c_str()) != 0) return;
    const std::size_t slash = name.rfind('/');
    const std::string directory = slash == name.npos ? "." : name.substr(0, slash + 1);
    const Descriptor opened(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (opened.IsOpen()) fsync(opened.Get());
}

}  // namespace engine
