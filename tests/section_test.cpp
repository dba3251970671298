// What processes share: named locks, the section, and its records.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <new>
#include <stdexcept>
#include <thread>

#include "TaskMan/taskcontext.h"
#include "common/AutoLock.h"
#include "support/helpers.h"

using test_support::SemaphoreValue;
using test_support::UniqueName;
using Threading::AutoLock;
using Threading::Mutex;

namespace {

TEST(Mutex, NamedFormIsASemaphore) {
    const std::string name = UniqueName();
    const mode_t mask = umask(0);
    Mutex lock(name.c_str());
    umask(mask);
    struct stat status {};
    EXPECT_EQ(stat(("/dev/shm/sem." + name).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0644u);
    EXPECT_EQ(SemaphoreValue(name), 1);
    EXPECT_TRUE(lock.Lock());
    {
        const Mutex second(name.c_str());
        EXPECT_EQ(SemaphoreValue(name), 0) << "the value found is kept";
    }
    EXPECT_EQ(SemaphoreValue(name), -1) << "any of them removes the name";
    EXPECT_TRUE(lock.UnLock());
}

TEST(Mutex, UnnamedFormExcludes) {
    Mutex lock;
    std::atomic<int> inside{0}, meetings{0}, rounds[2] = {};
    test_support::InParallel(2, [&](std::size_t i) {
        while (rounds[0] < 100 || rounds[1] < 100) {
            AutoLock hold(&lock);
            if (++inside > 1) ++meetings;
            std::this_thread::yield();
            --inside;
            ++rounds[i];
        }
    });
    EXPECT_EQ(meetings, 0);
}

TEST(Mutex, ASignalDoesNotEndTheWait) {
    static std::atomic<int> signals{0};
    struct sigaction action {};
    action.sa_handler = [](int) { ++signals; };
    sigaction(SIGUSR1, &action, nullptr);
    const std::string name = UniqueName();
    Mutex lock(name.c_str());
    lock.Lock();
    std::atomic<bool> had{false};
    std::thread waiter([&] {
        had = lock.Lock();
        lock.UnLock();
    });
    for (int sent = 1; sent <= 20; ++sent) {
        pthread_kill(waiter.native_handle(), SIGUSR1);
        EXPECT_TRUE(test_support::WaitUntil([sent] { return signals == sent; }));
    }
    EXPECT_FALSE(had);
    lock.UnLock();
    waiter.join();
    EXPECT_EQ(SemaphoreValue(name), 1);
}

void UseDestroyed(bool (Mutex::*use)()) {
    const std::string name = UniqueName();
    alignas(Mutex) char place[sizeof(Mutex)];
    auto* lock = new (place) Mutex(name.c_str());
    lock->~Mutex();
    (std::launder(lock)->*use)();
}

TEST(MutexDeath, AMissingSemaphoreFailsTheAssertion) {
    EXPECT_DEATH(Mutex(""),
                 "^Assertion failed: \\(NULL != m_NamedLock\\), function Mutex, file "
                 "common/mutex, line 60\\.\n$");
    // A sanitizer may notice first that the object is gone.
    EXPECT_DEATH(UseDestroyed(&Mutex::Lock), "Lock, file common/mutex, line 105\\.|invalid vptr");
    EXPECT_DEATH(UseDestroyed(&Mutex::UnLock), "file common/mutex, line 133\\.|invalid vptr");
}

TEST(AutoLock, ReleasesWhatItHoldsAndNothingElse) {
    const std::string name = UniqueName();
    Mutex lock(name.c_str());
    try {
        AutoLock hold(&lock);
        EXPECT_TRUE(hold && SemaphoreValue(name) == 0);
        hold.UnLock();
        EXPECT_TRUE(!hold && SemaphoreValue(name) == 1);
        hold.Lock();
        EXPECT_TRUE(hold && SemaphoreValue(name) == 0);
        throw std::runtime_error("");
    } catch (const std::runtime_error&) {
        EXPECT_EQ(SemaphoreValue(name), 1) << "not released by an exception";
    }
    { AutoLock(&lock).UnLock(); }
    EXPECT_EQ(SemaphoreValue(name), 1) << "released twice";
    { AutoLock(&lock).SetUnlock(); }
    EXPECT_EQ(SemaphoreValue(name), 0) << "released although forgotten";
    AutoLock none(nullptr);
    none.Lock();
    EXPECT_FALSE(none);
    none.UnLock();
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
    std::memset(record->szTaskID, 'x', sizeof record->szTaskID);
    std::memset(record->szProxyPassword, 'x', sizeof record->szProxyPassword);
    record->nCmd = record->nBlockCount = 77;
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
    node->mutexLock = new Mutex(name.c_str());
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
    EXPECT_EQ(UnInitShareMem(&second, name.c_str()), 0);
    EXPECT_TRUE(second.pCommDataPrt == nullptr && second.hPrt == mapping);
    EXPECT_EQ(msync(mapping, SHARE_MEM_SIZE, MS_ASYNC), -1) << "still mapped";
    EXPECT_EQ(NameOf(second), name.substr(0, 61) + " (deleted)") << "or the descriptor closed";
    UnInitShareMem(&first, name.c_str());
    close(first.hShm);
    close(second.hShm);
}

TEST(Section, HasADefaultNameAndFailsWithoutOne) {
    char mark;
    tagVideoInfoSection section{7, &mark, &mark};
    EXPECT_EQ(InitShareMem(&section, "/"), -1);
    EXPECT_TRUE(section.hShm == -1 && section.hPrt == &mark && section.pCommDataPrt == &mark);
    EXPECT_EQ(InitShareMem(&section, nullptr), 0);
    EXPECT_EQ(NameOf(section).substr(0, 20), "ZentuTaskmanShareMem");
    UnInitShareMem(&section, nullptr);
    close(section.hShm);
}

TEST(Section, SlotsAreFoundInsideOnly) {
    static char memory[SHARE_MEM_SIZE];
    const tagVideoInfoSection section{-1, memory, nullptr};
    EXPECT_EQ(reinterpret_cast<char*>(SlotAt(section, 7)), memory + 172928);
    for (int outside : {-1, 8}) EXPECT_EQ(SlotAt(section, outside), nullptr);
    EXPECT_EQ(SlotAt(tagVideoInfoSection{}, 1), nullptr);
}

}  // namespace
