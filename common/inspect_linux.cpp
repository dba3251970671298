// What /proc and /dev/shm tell of other processes, of what they share, and of the machine.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <sstream>

#include "common/platform.h"

namespace platform {
namespace {

constexpr const char* kSharedMemory = "/dev/shm/";
constexpr std::string_view kSemaphorePrefix = "sem.";
constexpr std::size_t kMostOfArguments = 4096;

std::string ProcessFile(pid_t pid, const char* name) {
    return "/proc/" + std::to_string(pid) + "/" + name;
}

// The first kilobyte of a file; empty when it cannot be read. Without a stream, whose locale costs
// a worker memory.
std::string FirstBytes(const std::string& path) {
    char bytes[1024];
    FILE* file = std::fopen(path.c_str(), "re");
    if (file == nullptr) return {};
    const std::size_t size = std::fread(bytes, 1, sizeof bytes, file);
    std::fclose(file);
    return {bytes, size};
}

// Whether both paths lead to the same file.
bool SameFile(const std::string& one, const std::string& other) {
    struct stat first {};
    struct stat second {};
    return stat(one.c_str(), &first) == 0 && stat(other.c_str(), &second) == 0 &&
           ::SameFile(first, second);
}

bool IsMine(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && status.st_uid == geteuid();
}

// The first descriptor of the process that is of this file; -1 when there is none.
int FindDescriptor(pid_t pid, const struct stat& file) {
    const std::string path = ProcessFile(pid, "fd");
    DIR* directory = opendir(path.c_str());
    if (directory == nullptr) return -1;
    int found = -1;
    while (const dirent* entry = readdir(directory)) {
        struct stat status {};
        if (*entry->d_name == '.' || fstatat(dirfd(directory), entry->d_name, &status, 0) != 0 ||
            !::SameFile(status, file)) {
            continue;
        }
        found = static_cast<int>(std::strtol(entry->d_name, nullptr, 10));
        break;
    }
    closedir(directory);
    return found;
}

// The position of a descriptor; -1 when it is not open.
std::int64_t Position(pid_t pid, int descriptor) {
    const std::string path = ProcessFile(pid, "fdinfo/") + std::to_string(descriptor);
    FILE* info = std::fopen(path.c_str(), "re");
    if (info == nullptr) return -1;
    long long position = -1;
    if (std::fscanf(info, "pos: %lld", &position) != 1) position = -1;
    std::fclose(info);
    return position;
}

}  // namespace

std::vector<std::string> SharedMemoryNames() {
    std::vector<std::string> names;
    DIR* directory = opendir(kSharedMemory);
    if (directory == nullptr) return names;
    while (const dirent* entry = readdir(directory)) names.emplace_back(entry->d_name);
    closedir(directory);
    return names;
}

std::vector<std::string> OwnSemaphoreNames() {
    std::vector<std::string> names;
    for (const std::string& name : SharedMemoryNames()) {
        if (!name.starts_with(kSemaphorePrefix) || !IsMine(kSharedMemory + name)) continue;
        names.push_back(name.substr(kSemaphorePrefix.size()));
    }
    return names;
}

std::vector<std::string> ProcessArguments(pid_t pid) {
    std::string text(kMostOfArguments, '\0');
    std::ifstream file(ProcessFile(pid, "cmdline"), std::ios::binary);
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(file.gcount()));
    std::vector<std::string> arguments;
    if (text.size() == kMostOfArguments) return arguments;
    std::istringstream rest(text);
    for (std::string argument; std::getline(rest, argument, '\0');) arguments.push_back(argument);
    return arguments;
}

std::vector<Process> OwnProcesses() {
    std::vector<Process> processes;
    // A /proc that belongs to another namespace has other ids.
    if (!SameFile("/proc/self", ProcessFile(getpid(), ""))) return processes;
    DIR* directory = opendir("/proc");
    if (directory == nullptr) return processes;
    while (const dirent* entry = readdir(directory)) {
        const auto pid = static_cast<pid_t>(std::strtol(entry->d_name, nullptr, 10));
        if (pid < 1 || !IsMine(ProcessFile(pid, "")) ||
            !SameFile(ProcessFile(pid, "ns/pid"), "/proc/self/ns/pid")) {
            continue;
        }
        processes.push_back({pid, ProcessArguments(pid)});
    }
    closedir(directory);
    return processes;
}

double ProcessAge(pid_t pid) {
    const std::string text = FirstBytes(ProcessFile(pid, "stat"));
    // The second field, the name, may hold blanks and brackets; the state is the third, the start
    // the 22nd.
    const std::size_t name = text.rfind(')');
    if (name == std::string::npos) return -1;
    char state = 'Z';
    double started = 0;
    timespec now{};
    if (std::sscanf(
            &text[name + 1],
            " %c %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %lf",
            &state, &started) != 2 ||
        state == 'Z' || state == 'X' || clock_gettime(CLOCK_BOOTTIME, &now) != 0) {
        return -1;
    }
    const double age = static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9 -
                       started / static_cast<double>(sysconf(_SC_CLK_TCK));
    return std::max(age, 0.0);
}

bool MapsSharedMemory(pid_t pid, const std::string& name) {
    const std::string path = kSharedMemory + name;
    std::ifstream file(ProcessFile(pid, "maps"));
    for (std::string line; std::getline(file, line);) {
        if (line.ends_with(path)) return true;
    }
    return false;
}

OpenFile LookAtOpenFile(pid_t pid, const std::string& path, int nDescriptor) {
    struct stat file {};
    struct stat open {};
    const auto look = [&](int descriptor) {
        const std::string link = ProcessFile(pid, "fd/") + std::to_string(descriptor);
        return stat(link.c_str(), &open) == 0 && ::SameFile(open, file);
    };
    if (stat(path.c_str(), &file) != 0 || !S_ISREG(file.st_mode)) return {};
    if (nDescriptor == -1 || !look(nDescriptor)) {
        nDescriptor = FindDescriptor(pid, file);
        if (nDescriptor == -1 || !look(nDescriptor)) return {};
    }
    OpenFile found{nDescriptor, 0, 0, Modified(open), 0};
    found.nPosition = Position(pid, nDescriptor);
    if (!look(nDescriptor)) return {};
    found.nSize = open.st_size;
    found.nModifiedAfter = Modified(open);
    return found;
}

std::string BootId() {
    std::string id = FirstBytes("/proc/sys/kernel/random/boot_id");
    return id.substr(0, id.find('\n'));
}

}  // namespace platform
