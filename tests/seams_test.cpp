// What meets an old kernel, a full disk or a broken slot.
#include "support/seams.h"

#include <fcntl.h>

#include <atomic>
#include <cmath>

#include "Console/get/fetch.h"
#include "Console/get/target.h"
#include "TaskMan/task/extended.h"
#include "common/fieldtext.h"
#include "common/file.h"
#include "common/platform.h"

using namespace test_support;

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
        EXPECT_EQ(target.Store(3, "").message, "");
        EXPECT_TRUE(g_synced.ends_with(std::to_string(refused) + ".part")) << g_synced;
        EXPECT_EQ(ReadFile(directory.Path(std::to_string(refused))), "abc");
        Target taken(directory.Path("taken"));
        EXPECT_EQ(taken.Open(), "");
        WriteFile(directory.Path("taken"), "other");
        EXPECT_TRUE(Has(taken.Store(0, "").message, "appeared meanwhile"));
        unlink(directory.Path("taken").c_str());
        EXPECT_EQ(taken.Store(1, "").status, EXIT_STATUS_MISMATCH);
    }
    g_refused = -1;
    Target next(directory.Path("x.y"), Existing::kNumber);
    EXPECT_EQ(next.Open(), "");
    for (const char* name : {"x.y", "x.1.y"}) WriteFile(directory.Path(name), "other");
    EXPECT_EQ(next.Store(0, "").message, "");
    EXPECT_EQ(next.Path(), directory.Path("x.2.y"));
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
    // A child that nobody has reaped.
    const pid_t child = fork();
    if (child == 0) _exit(0);
    const platform::ProcessWatch watch(child);
    EXPECT_TRUE(WaitUntil([&] { return watch.Gone(); }));
    watch.Reap();
    EXPECT_EQ(waitpid(child, nullptr, WNOHANG), -1);
    g_refused = -1;
}

TEST(Fetch, BelievesNoNumber) {
    const WakePipe wake;
    EventQueue events(wake);
    const GetOptions options;
    Helpers helpers;
    Fetch fetch({"http://host/file", "", "", ""}, options, events, helpers);
    const auto note = [&](int code, double value) {
        fetch.NoteState({Event::Kind::kState, "", code, value});
        return fetch.View();
    };
    EXPECT_EQ(note(DOWNLOAD_STATE_FILE_SIZE, 1e300).size, 1e18);
    EXPECT_EQ(note(DOWNLOAD_STATE_FILE_SIZE, std::nan("")).size, 0);
    EXPECT_LT(note(DOWNLOAD_STATE_FILE_SIZE, -1).size, 0);
    EXPECT_EQ(note(DOWNLOAD_STATE_PROGRESS, 1000).percent, 100);
    EXPECT_EQ(note(DOWNLOAD_STATE_PROGRESS, -1).percent, 0);
}

TEST(Helpers, LetNothingWaitForAPieceThatIsHeldUp) {
    Helpers helpers;
    std::atomic<bool> quick{false};
    std::atomic<bool> freed{false};
    std::atomic<bool> ended{false};
    helpers.Run([&] { quick = true; });
    ASSERT_TRUE(WaitUntil([&] { return quick.load(); }));
    helpers.Run([&] {
        WaitUntil([&] { return freed.load(); });
        ended = freed.load();
    });
    helpers.Run([&] { freed = true; });
    EXPECT_TRUE(WaitUntil([&] {
        helpers.Hurry();
        return ended.load();
    }));
}

TEST(Slots, HoldNoLogin) {
    for (const int command : {TASK_CMD_PARSE, TASK_CMD_DOWNLOAD}) {
        for (const bool own : {false, true}) {
            tagTaskInfo task("id");
            task.nCmd = command;
            task.nTaskKind = 0;
            task.nBlockCount = 1;
            tagTaskRequest request;
            request.strUser = "other";
            SetField(task.szDownloadUrl, "http://joe:secret@h/file");
            SetField(task.szOrgUrl, "http://joe:secret@h/page");
            if (own && command == TASK_CMD_DOWNLOAD) request.strUrl = "http://joe:secret@h/file";
            EXPECT_EQ(RefusalOfExtended(task, request), "");
            EXPECT_EQ(FieldView(task.szDownloadUrl), "http://h/file");
            EXPECT_EQ(FieldView(task.szOrgUrl), "http://h/page");
            EXPECT_EQ(request.strUser + request.strPassword, "joesecret");
            EXPECT_EQ(request.strUrl, command == TASK_CMD_DOWNLOAD ? "http://h/file" : "");
        }
    }
}

}  // namespace
