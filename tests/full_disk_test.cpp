// Disks that are full before the file is there, in several ways: the file never counts as finished.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include "common/fieldtext.h"
#include "support/http_server.h"
#include "support/processes.h"

namespace {

using namespace test_support;
constexpr std::size_t kSizes[] = {8191, 8192};

// Calls `start`; the files of what it starts grow to `size` bytes at most.
void Limited(rlim_t size, const std::function<void()>& start) {
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit limit{size, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
    start();
    setrlimit(RLIMIT_FSIZE, &before);
}

// Has a worker fetch `size` bytes into `path`. Where some of them fit, it may try for ever.
void Fetch(std::size_t size, const std::string& path, rlim_t limit = RLIM_INFINITY) {
    SCOPED_TRACE(path + ", bytes: " + std::to_string(size));
    HttpServer server({Reply::Ok(TestBytes(size))});
    WorkerRun run;
    run.Request(server.Url());
    SetField(run.Slot().szFilePath, path);
    Limited(limit, [&] { run.Start(); });
    WaitUntil([&] { return run.Wait({}) || server.RequestCount() > 5; });
    run.Stop();
    run.Wait();
    EXPECT_EQ(run.End(), limit == RLIM_INFINITY ? "exit 0" : "signal 25");
    EXPECT_EQ(run.Slot().nStateBits >> DOWNLOAD_STATE_DOWNLOAD_FINISH & 1, 0u);
    EXPECT_LT(path == "/dev/full" ? 0 : ReadFile(path).size(), size);
}

// Has `taskman get` do the same; neither the file nor a part of it may be left.
void Get(std::size_t size, const TempDir& at, const char* end, const char* says, rlim_t limit) {
    HttpServer server({Reply::Ok(TestBytes(size))});
    CommandRun get;
    Limited(limit, [&] { get.Start({"-d", at.Path(), server.Url()}); });
    EXPECT_EQ(get.End(), end);
    EXPECT_NE(get.Err().find(says), std::string::npos) << get.Err();
    EXPECT_FALSE(FileExists(at.Path("file")) || FileExists(at.Path("file.part")));
}

TEST(FullDisk, OfAFewPages) {
    if (!TakeOwnMounts()) GTEST_SKIP() << "nothing can be mounted";
    InParallel(std::size(kSizes), [](std::size_t i) {
        const std::size_t size = kSizes[i];
        const TempDir disk;
        ASSERT_EQ(mount("none", disk.Path().c_str(), "tmpfs", 0, "size=64k"), 0);
        WriteFile(disk.Path("other"), std::string(61'440, 'x'));
        Fetch(size, disk.Path("file.part"));
        Get(size, disk, "exit 3", "file: failed: no space left", RLIM_INFINITY);
        umount2(disk.Path().c_str(), MNT_DETACH);
    });
}

TEST(FullDisk, OrADeviceOrALimit) {
    const TempDir directory;
    Fetch(8192, "/dev/full");
    Fetch(8192, directory.Path("file.part"), 8191);
    // The limit is more than the section needs.
    Get(200'000, directory, "exit 3", "may not grow beyond 199000 bytes", 199'000);
}

}  // namespace
