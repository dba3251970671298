#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <csignal>
#include <new>
#include <stdexcept>
#include <thread>
#include <type_traits>

#include "common/AutoLock.h"
#include "support/helpers.h"

using test_support::SemaphoreValue;
using test_support::UniqueName;
using test_support::WaitUntil;
using Threading::AutoLock;
using Threading::Mutex;

static_assert(std::has_virtual_destructor_v<Mutex> && !std::is_copy_constructible_v<Mutex>);
static_assert(std::has_virtual_destructor_v<AutoLock> && !std::is_copy_constructible_v<AutoLock>);
static_assert(!std::is_polymorphic_v<Uncopyable>);

namespace {

TEST(Mutex, NamedFormIsASemaphoreThatOutlivesItsName) {
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
    const Mutex other(name.c_str());
    EXPECT_EQ(SemaphoreValue(name), 1) << "a new lock of that name is another one";
    EXPECT_TRUE(lock.UnLock());
    lock.Lock();
    EXPECT_EQ(SemaphoreValue(name), 1);
}

TEST(Mutex, UnnamedFormExcludes) {
    Mutex lock;
    volatile int word = 0;
    test_support::InParallel(2, [&](std::size_t) {
        for (int i = 0; i < 50000; ++i) {
            AutoLock hold(&lock);
            word = word + 1;
        }
    });
    EXPECT_EQ(word, 100000);
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
    std::thread waiter([&] { had = lock.Lock(); });
    for (int sent = 1; sent <= 20; ++sent) {
        pthread_kill(waiter.native_handle(), SIGUSR1);
        EXPECT_TRUE(WaitUntil([sent] { return signals == sent; }));
    }
    EXPECT_FALSE(had);
    lock.UnLock();
    waiter.join();
    EXPECT_EQ(SemaphoreValue(name), 0);
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

}  // namespace
