#include "TaskMan/section/taskid.h"

#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <system_error>

#include "TaskMan/manager.h"

namespace {

constexpr std::size_t kPidDigits = 6;
constexpr std::size_t kMadeLength = kPidDigits + 3 * 8;

bool IsIdCharacter(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-';
}

}  // namespace

bool IsTaskID(std::string_view id) {
    return !id.empty() && id.size() < sizeof(tagTaskInfo::szTaskID) &&
           std::all_of(id.begin(), id.end(), IsIdCharacter);
}

int ProcessOfTaskID(std::string_view id) {
    if (id.size() != kMadeLength || id.find_first_not_of("0123456789abcdef") != id.npos) return -1;
    return static_cast<int>(std::stol(std::string(id.substr(0, kPidDigits)), nullptr, 16));
}

bool IdsCollide(const std::string& one, const std::string& other) {
    return one.starts_with(other) || other.starts_with(one);
}

std::string MakeTaskID() {
    unsigned random[2] = {};
    if (getentropy(random, sizeof random) != 0) {
        throw std::system_error(errno, std::generic_category(), "no random numbers");
    }
    char text[32];
    std::snprintf(text, sizeof text, "%06x%08x%08x%08x", static_cast<unsigned>(getpid()) & 0xFFFFFF,
                  static_cast<unsigned>(std::time(nullptr)), random[0], random[1]);
    return text;
}
