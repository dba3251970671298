#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <csignal>
#include <new>
#include <stdexcept>
#include <thread>
#include <type_traits>

#include "common/AutoLock.h"
#include "common/mutex.h"
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

TEST(Mutex, NamedFormIsASemaphore) {
    const std::string name = UniqueName();
    const mode_t mask = umask(0);
    {
        Mutex lock(name.c_str());
        umask(mask);
        struct stat status {};
        ASSERT_EQ(stat(("/dev/shm/sem." + name).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777, 0644u);
        EXPECT_EQ(SemaphoreValue(name), 1);
        EXPECT_TRUE(lock.Lock());
        EXPECT_EQ(SemaphoreValue(name), 0);
        EXPECT_TRUE(lock.UnLock());
        EXPECT_EQ(SemaphoreValue(name), 1);
    }
    EXPECT_EQ(SemaphoreValue(name), -1);
}

TEST(Mutex, KeepsTheValueItFindsAndOutlivesItsName) {
    const std::string name = UniqueName();
    Mutex survivor(name.c_str());
    survivor.Lock();
    auto* second = new Mutex(name.c_str());
    EXPECT_EQ(SemaphoreValue(name), 0) << "the value found is kept";
    delete second;
    EXPECT_EQ(SemaphoreValue(name), -1) << "any of them removes the name";
    Mutex other(name.c_str());
    EXPECT_EQ(SemaphoreValue(name), 1) << "a new lock of that name is another one";
    survivor.UnLock();
    survivor.Lock();
    EXPECT_EQ(SemaphoreValue(name), 1);
    survivor.UnLock();
}

// Adds one many times to a word that `lock` guards, in a way that loses some without exclusion.
void AddSlowly(Mutex& lock, volatile int& word) {
    for (int i = 0; i < 2000; ++i) {
        AutoLock hold(&lock);
        const int was = word;
        if (i % 50 == 0) std::this_thread::yield();
        word = was + 1;
    }
}

TEST(Mutex, BothFormsExclude) {
    const std::string name = UniqueName();
    Mutex unnamed;
    Mutex first(name.c_str());
    Mutex second(name.c_str());
    for (auto [one, other] : {std::pair(&unnamed, &unnamed), std::pair(&first, &second)}) {
        volatile int word = 0;
        std::thread thread([&word, lock = one] { AddSlowly(*lock, word); });
        AddSlowly(*other, word);
        thread.join();
        EXPECT_EQ(word, 4000);
    }
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
        lock.Lock();
        had = true;
        lock.UnLock();
    });
    for (int sent = 1; sent <= 20; ++sent) {
        pthread_kill(waiter.native_handle(), SIGUSR1);
        EXPECT_TRUE(WaitUntil([sent] { return signals == sent; }));
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
    EXPECT_DEATH(UseDestroyed(&Mutex::Lock),
                 "function Lock, file common/mutex, line 105\\.|invalid vptr");
    EXPECT_DEATH(UseDestroyed(&Mutex::UnLock),
                 "function UnLock, file common/mutex, line 133\\.|invalid vptr");
}

TEST(AutoLock, ReleasesWhatItHoldsAndNothingElse) {
    const std::string name = UniqueName();
    Mutex lock(name.c_str());
    const auto value = [&name] { return SemaphoreValue(name); };
    {
        AutoLock hold(&lock);
        EXPECT_TRUE(hold && value() == 0);
        hold.UnLock();
        EXPECT_TRUE(!hold && value() == 1);
    }
    EXPECT_EQ(value(), 1) << "released twice";
    {
        AutoLock hold(&lock);
        hold.UnLock();
        hold.Lock();
        EXPECT_TRUE(hold && value() == 0);
    }
    EXPECT_EQ(value(), 1) << "taken again, and not released by the end of the scope";
    try {
        AutoLock hold(&lock);
        throw std::runtime_error("");
    } catch (const std::runtime_error&) {
        EXPECT_EQ(value(), 1) << "not released by an exception";
    }
    {
        AutoLock hold(&lock);
        hold.SetUnlock();
        EXPECT_FALSE(hold);
    }
    EXPECT_EQ(value(), 0) << "released although forgotten";
    {
        AutoLock hold(nullptr);
        EXPECT_FALSE(hold);
        hold.Lock();
        EXPECT_FALSE(hold);
        hold.UnLock();
    }
}

}  // namespace
