// What happens too rarely to wait for: functions of the system that the tests replace.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cmath>
#include <cstdarg>

#include "Console/get/fetch.h"
#include "Console/get/target.h"
#include "common/file.h"
#include "common/platform.h"
#include "support/helpers.h"

using namespace test_support;

static std::string g_synced;  // what the directory held at the time of fsync
static std::string g_at;      // the directory
static long g_refused = -1;   // a system call that the kernel does not know
static uid_t g_user = 0;

extern "C" int fsync(int) {
    g_synced += NamesIn(g_at);
    return 0;
}
extern "C" long syscall(long number, ...) noexcept {
    if (number == g_refused) return errno = ENOSYS, -1;
    va_list list;
    va_start(list, number);
    long a[6];
    for (long& argument : a) argument = va_arg(list, long);
    va_end(list);
    static const auto real = reinterpret_cast<long (*)(long, ...)>(dlsym(RTLD_NEXT, "syscall"));
    return real(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}
extern "C" int statvfs(const char*, struct statvfs* disk) noexcept {
    *disk = {};
    disk->f_frsize = disk->f_blocks = 1000;
    disk->f_bfree = 100;
    disk->f_bavail = 10;
    return 0;
}
extern "C" uid_t geteuid() noexcept {
    return g_user;
}

namespace {

TEST(Target, IsOnTheDiskBeforeItHasItsName) {
    const TempDir directory;
    g_at = directory.Path();
    for (const long refused : {-1L, long{SYS_renameat2}}) {
        g_refused = refused;
        g_synced.clear();
        Target target(directory.Path(std::to_string(refused)));
        EXPECT_EQ(target.Open(), "");
        EXPECT_EQ(write(target.Part(), "abc", 3), 3);
        EXPECT_EQ(target.Store(3, "").reason, "");
        EXPECT_TRUE(g_synced.ends_with(std::to_string(refused) + ".part")) << g_synced;
        EXPECT_EQ(ReadFile(directory.Path(std::to_string(refused))), "abc");
        Target taken(directory.Path("taken"));
        EXPECT_EQ(taken.Open(), "");
        WriteFile(directory.Path("taken"), "other");
        EXPECT_TRUE(Has(taken.Store(0, "").reason, "appeared meanwhile"));
        unlink(directory.Path("taken").c_str());
    }
    g_refused = -1;
}

TEST(Space, ThatIsReservedIsForRoot) {
    const std::string path = "/no-such-file";
    for (const auto& [user, room] : {std::pair(0U, 100'000), {1U, 10'000}}) {
        g_user = user;
        EXPECT_FALSE(LacksSpace(path, room)) << user;
        EXPECT_TRUE(LacksSpace(path, room + 1)) << user;
    }
}

TEST(ProcessWatch, FollowsWithoutDescriptors) {
    g_refused = SYS_pidfd_open;
    EXPECT_FALSE(platform::ProcessWatch(getpid()).Gone());
    EXPECT_TRUE(platform::ProcessWatch(1 << 30).Gone());
    g_refused = -1;
}

TEST(Fetch, BelievesNoNumber) {
    const WakePipe wake;
    EventQueue events(wake);
    const GetOptions options;
    Fetch fetch({"http://host/file", "", "", ""}, options, events);
    const auto note = [&](int code, double value) {
        fetch.NoteState({Event::Kind::kState, "", code, value});
        return fetch.View();
    };
    EXPECT_EQ(note(DOWNLOAD_STATE_FILE_SIZE, 1e300).size, 1e18);
    EXPECT_EQ(note(DOWNLOAD_STATE_FILE_SIZE, std::nan("")).size, 0);
    EXPECT_EQ(note(DOWNLOAD_STATE_PROGRESS, 1000).percent, 100);
    EXPECT_EQ(note(DOWNLOAD_STATE_PROGRESS, -1).tries, 2) << "less is another try";
}

}  // namespace
