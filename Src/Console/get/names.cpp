#include "Console/get/names.h"

#include <unistd.h>

#include <algorithm>
#include <functional>

#include "TaskMan/partrecord.h"

namespace {

// Finished files that are remembered, at some 40 bytes each; then all are forgotten.
constexpr std::size_t kMostRemembered = 1'000'000;

std::size_t Hash(const std::string& path) {
    return std::hash<std::string>{}(path);
}

// Whether the name is the part, or the record beside it. A name that is not known yet is neither.
bool Takes(const std::string& part, const std::string& name) {
    return name == part || name == part + PART_RECORD_ENDING;
}

}  // namespace

std::string Names::Collision(const Fetch& file, const std::vector<const Fetch*>& others) const {
    const std::string& path = file.View().path;
    const std::string part = file.PartPath();
    if (part.empty()) return "";
    const auto clashes = [&](const Fetch* other) {
        const std::string theirs = other->PartPath();
        const std::string& name = other->View().path;
        return other != &file && !theirs.empty() &&
               (theirs == part || (!path.empty() && name == path) || Takes(part, name) ||
                Takes(theirs, path));
    };
    const bool collides = Wrote(path) || Wrote(part) || Wrote(part + PART_RECORD_ENDING) ||
                          std::any_of(others.begin(), others.end(), clashes);
    return collides ? "another URL of this command goes to " + (path.empty() ? part : path) : "";
}

bool Names::Wrote(const std::string& path) const {
    return written_.count(Hash(path)) > 0 && access(path.c_str(), F_OK) == 0;
}

void Names::NoteWritten(const std::string& path) {
    if (written_.size() == kMostRemembered) written_.clear();
    written_.insert(Hash(path));
}
