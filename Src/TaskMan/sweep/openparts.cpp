#include "TaskMan/openparts.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <utility>
#include <vector>

#include "TaskMan/sweep/leftlist.h"
#include "TaskMan/taskman.h"
#include "common/AutoLock.h"
#include "common/fieldtext.h"
#include "common/platform.h"

namespace {

constexpr int kCreateTries = 5;

Threading::Mutex g_list_mutex;
int g_list TS_GUARDED_BY(g_list_mutex) = -1;  // descriptor; -1 while there is no list
std::string g_list_name TS_GUARDED_BY(g_list_mutex);
std::vector<bool> g_noted TS_GUARDED_BY(g_list_mutex);  // by the numbers of the notes

void RemoveList() TS_REQUIRES(g_list_mutex) {
    if (g_list == -1) return;
    shm_unlink(g_list_name.c_str());
    close(std::exchange(g_list, -1));
    g_noted.clear();
}

// Makes the list, unless there is one. Returns whether there is.
bool OpenList() TS_REQUIRES(g_list_mutex) {
    for (int tries = 0; g_list == -1 && tries < kCreateTries; ++tries) {
        g_list_name = PART_LIST_NAME + MakeTaskID();
        g_list = shm_open(g_list_name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
        if (g_list == -1) return false;
        // A sweep that comes before the lock takes the list for a dead one's.
        struct stat status {};
        if (flock(g_list, LOCK_EX | LOCK_NB) != 0 || fstat(g_list, &status) != 0 ||
            status.st_nlink != 1) {
            RemoveList();
        }
    }
    return g_list != -1;
}

bool Write(std::size_t number, const std::string& path) TS_REQUIRES(g_list_mutex) {
    char record[PART_RECORD_SIZE];
    SetField(record, path);
    const auto offset = static_cast<off_t>(number * sizeof record);
    return platform::WriteSharedMemory(g_list, record, sizeof record, offset);
}

}  // namespace

int NotePart(const std::string& path) {
    std::error_code error;
    const std::string absolute = std::filesystem::absolute(path, error);
    if (error || absolute.size() >= PART_RECORD_SIZE) return -1;
    Threading::AutoLock hold(&g_list_mutex);
    if (!OpenList()) return -1;
    const auto free = std::find(g_noted.begin(), g_noted.end(), false);
    const auto number = static_cast<std::size_t>(free - g_noted.begin());
    if (number == PART_RECORD_COUNT) return -1;
    if (!Write(number, absolute)) {
        if (g_noted.empty()) RemoveList();
        return -1;
    }
    g_noted.resize(std::max(g_noted.size(), number + 1));
    g_noted[number] = true;
    return static_cast<int>(number);
}

void ForgetPart(int nNote) {
    Threading::AutoLock hold(&g_list_mutex);
    if (nNote == -1 || g_list == -1) return;
    const auto number = static_cast<std::size_t>(nNote);
    g_noted[number] = false;
    if (std::find(g_noted.begin(), g_noted.end(), true) == g_noted.end()) {
        RemoveList();
    } else {
        Write(number, "");
    }
}

void ForgetParts() {
    Threading::AutoLock hold(&g_list_mutex);
    RemoveList();
}
