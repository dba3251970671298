// What the manager and its workers share: locks, files, the section and its records.
#include <sys/mman.h>
#include <sys/stat.h>

#include <csignal>
#include <cstring>
#include <new>
#include <stdexcept>

#include "TaskMan/taskcontext.h"
#include "common/AutoLock.h"
#include "common/sysutility.h"
#include "support/helpers.h"

using namespace sysutility;
using namespace test_support;
using Threading::AutoLock;
using Threading::Mutex;

namespace {

TEST(Locks, AreSemaphores) {
    const std::string name = UniqueName();
    const mode_t mask = umask(0);
    Mutex lock(name.c_str());
    umask(mask);
    struct stat status {};
    EXPECT_EQ(stat(("/dev/shm/sem." + name).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0644u);
    EXPECT_TRUE(lock.Lock());
    { const Mutex second(name.c_str()); }
    EXPECT_EQ(SemaphoreValue(name), -1) << "any of them removes the name";
    EXPECT_TRUE(lock.UnLock());
    EXPECT_DEATH(Mutex(""), AssertionLine("NULL != m_NamedLock", "Mutex", "common/mutex"));
}

TEST(Locks, AreWaitedForInSpiteOfSignals) {
    static std::atomic<int> signals{0};
    struct sigaction action {};
    action.sa_handler = [](int) { ++signals; };
    sigaction(SIGUSR1, &action, nullptr);
    Mutex lock(UniqueName().c_str());
    lock.Lock();
    std::atomic<bool> had{false};
    std::thread waiter([&] {
        had = lock.Lock();
        lock.UnLock();
    });
    for (int sent = 1; sent <= 20; ++sent) {
        pthread_kill(waiter.native_handle(), SIGUSR1);
        EXPECT_TRUE(WaitUntil([sent] { return signals == sent; }));
    }
    EXPECT_FALSE(had);
    lock.UnLock();
    waiter.join();
    EXPECT_TRUE(had);
}

TEST(Locks, AreReleasedByTheirScope) {
    const std::string name = UniqueName();
    Mutex lock(name.c_str());
    try {
        AutoLock hold(&lock);
        EXPECT_TRUE(hold && SemaphoreValue(name) == 0);
        throw std::runtime_error("");
    } catch (const std::runtime_error&) {
        EXPECT_EQ(SemaphoreValue(name), 1);
    }
    { AutoLock(&lock).UnLock(); }
    EXPECT_EQ(SemaphoreValue(name), 1) << "released twice";
    { AutoLock(&lock).SetUnlock(); }
    EXPECT_EQ(SemaphoreValue(name), 0) << "released although forgotten";
    EXPECT_FALSE(AutoLock(nullptr));
}

TEST(Files, AreToldApartAndMade) {
    const TempDir directory;
    const std::string path = directory.Path("dir"), file = directory.Path("file");
    const mode_t mask = umask(0);
    EXPECT_FALSE(CreateDir(path)) << "false says that it was made";
    umask(mask);
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0755});
    EXPECT_TRUE(CreateDir(path));
    WriteFile(file, std::string(500, 'x'));
    EXPECT_TRUE(CreateNewFileWithSize(file, 100));
    EXPECT_EQ(ReadFile(file), std::string(100, '\0') + '\xFF');
    EXPECT_FALSE(CreateNewFileWithSize(file, 1U << 31));
    EXPECT_EQ(std::filesystem::file_size(file), 101u) << "as it was";
    EXPECT_FALSE(CreateNewFileWithSize(directory.Path("missing/file"), 1));
    EXPECT_FALSE(CreateNewFileWithSize("/dev/full", 0)) << "nothing was written";
    for (const std::string& other : {path + "/", path + "-missing", std::string("/dev/null")}) {
        EXPECT_FALSE(sysutility::FileExists(other)) << other;
        EXPECT_EQ(DirectoryExists(other), other.ends_with("dir/")) << other;
    }
    EXPECT_TRUE(sysutility::FileExists(file) && !DirectoryExists(file) && !DirectoryExists("/"));
    EXPECT_EQ(GetCurrentPath(false) + "/", GetCurrentPath(true));
    EXPECT_TRUE(sysutility::FileExists(GetCurrentPath(true) + "common_test"));
}

template <class Value>
void Put(std::string& bytes, Value value, std::initializer_list<std::size_t> offsets) {
    for (const std::size_t offset : offsets) std::memcpy(&bytes[offset], &value, sizeof value);
}

// Makes a record with `id` in memory full of rubbish, overwrites it and ends its life.
template <class Record, class... Arguments>
void ExpectDefaults(const std::string& defaults, const std::string& id, Arguments... arguments) {
    alignas(Record) static char place[sizeof(Record)];
    std::memset(place, 0x5a, sizeof place);
    auto* record = new (place) Record(arguments...);
    EXPECT_EQ(std::string(std::launder(place), sizeof place), id + defaults.substr(id.size()));
    std::memset(static_cast<void*>(record), 'x', sizeof place);
    record->~Record();
    EXPECT_EQ(std::string(std::launder(place), sizeof place), defaults);
}

TEST(Records, AreBornAndDieWithTheirDefaults) {
    std::string slot(TASK_SLOT_SIZE, '\0');
    Put(slot, -1, {4160, 4164, 4168, 4172, 4652, 4688, 4692, 4696});
    Put(slot, 3, {4572, 4576, 4580});
    Put(slot, -1.0, {4672, 4680});
    ExpectDefaults<tagTaskContext>(slot, "");
    std::string info(sizeof(tagTaskInfo), '\0');
    Put(info, -1, {2112, 2116, 2120, 2124, 3552, 3556});
    const std::string id(64, 'i');
    ExpectDefaults<tagTaskInfo>(info, id.substr(1), id.c_str());
    const std::string name = UniqueName();
    auto* node = new tagTaskNode(name.c_str());
    EXPECT_EQ(node->nTaskIndex, -1);
    node->mutexLock = new Threading::Mutex(name.c_str());
    delete node;
    EXPECT_EQ(SemaphoreValue(name), -1) << "a node owns its lock";
}

// The name under which the section was opened.
std::string NameOf(const tagVideoInfoSection& section) {
    const std::string link = "/proc/self/fd/" + std::to_string(section.hShm);
    return std::filesystem::read_symlink(link).filename();
}

TEST(Section, IsMadeOnceAndLosesItsNameAtTheEnd) {
    std::string name = UniqueName();
    name.resize(80, 'n');
    const mode_t mask = umask(0);
    tagVideoInfoSection first{};
    ASSERT_EQ(InitShareMem(&first, name.c_str()), 0);
    umask(mask);
    struct stat status {};
    fstat(first.hShm, &status);
    EXPECT_EQ(status.st_mode & 0777, 0644u);
    EXPECT_EQ(status.st_size, 198657);
    EXPECT_EQ(NameOf(first), name.substr(0, 61));
    EXPECT_EQ(first.pCommDataPrt, first.hPrt + 197632);
    EXPECT_EQ(std::string(first.hPrt, SHARE_MEM_SIZE), std::string(SHARE_MEM_SIZE, '\0'));
    std::memset(first.hPrt, 'k', SHARE_MEM_SIZE);
    tagVideoInfoSection second{};
    ASSERT_EQ(InitShareMem(&second, name.c_str()), 0);
    EXPECT_EQ(std::string(second.hPrt, SHARE_MEM_SIZE), std::string(SHARE_MEM_SIZE, 'k'));
    char* const mapping = second.hPrt;
    EXPECT_EQ(reinterpret_cast<char*>(SlotAt(second, 7)), mapping + 172928);
    for (int outside : {-1, 8}) EXPECT_EQ(SlotAt(second, outside), nullptr);
    EXPECT_EQ(UnInitShareMem(&second, name.c_str()), 0);
    EXPECT_TRUE(second.pCommDataPrt == nullptr && second.hPrt == mapping);
    EXPECT_EQ(msync(mapping, SHARE_MEM_SIZE, MS_ASYNC), -1) << "still mapped";
    EXPECT_EQ(NameOf(second), name.substr(0, 61) + " (deleted)") << "or the descriptor closed";
    UnInitShareMem(&first, name.c_str());
    EXPECT_EQ(SlotAt(tagVideoInfoSection{}, 1), nullptr);
    char mark;
    tagVideoInfoSection none{7, &mark, &mark};
    EXPECT_EQ(InitShareMem(&none, "/"), -1);
    EXPECT_TRUE(none.hShm == -1 && none.hPrt == &mark && none.pCommDataPrt == &mark);
    for (const auto& section : {first, second}) close(section.hShm);
}

}  // namespace
