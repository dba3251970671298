// The manager with real workers: what it refuses, what it gives up, how it starts and ends.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>

#include "support/campaign.h"
#include "support/http_server.h"

using namespace test_support;

namespace {

void ExpectRefusal(const tagTaskInfo& task, const std::string& expected, bool passes) {
    std::string reason;
    TaskRefusal refusal = TaskRefusal::kNone;
    EXPECT_EQ(-1, AddTask(task, reason, &refusal)) << expected;
    EXPECT_EQ(expected, reason);
    EXPECT_EQ(passes ? TaskRefusal::kLater : TaskRefusal::kNever, refusal) << expected;
}

void ExpectEnd(Course& course, int code, const std::string& remark) {
    Campaign::Follow(course);
    EXPECT_EQ(code, course.code) << course.id;
    EXPECT_EQ(remark, course.remark) << course.id;
}

TEST(Manager, RefusesWhatItCannotAccept) {
    Campaign campaign;
    HttpServer silent({Reply().Silence()});
    Course& live = campaign.Add(silent.Url());
    const std::string used = "the task id is in use", link = campaign.Output(live) + "-link";
    std::filesystem::create_symlink(campaign.Output(live), link);  // where nothing is yet
    using Task = tagTaskInfo;
    const std::pair<std::string, std::function<void(Task&)>> rows[] = {
        {"the task id is empty", [](Task& t) { SetField(t.szTaskID, ""); }},
        {"the task id is longer than 63 bytes", [](Task& t) { std::fill_n(t.szTaskID, 64, 'a'); }},
        {"the task id holds something else than letters, digits, \"_\" and \"-\"",
         [](Task& t) { t.szTaskID[0] = '/'; }},
        {used, [&](Task& t) { SetField(t.szTaskID, live.id.substr(0, 29)); }},
        {used, [&](Task& t) { SetField(t.szTaskID, live.id + "a"); }},
        {"the task is neither a parse job nor a download job", [](Task& t) { t.nCmd = 2; }},
        {"the address is neither http nor https", [](Task& t) { t.szDownloadUrl[0] = 'f'; }},
        {"the address is longer than 1023 bytes",
         [](Task& t) { std::fill_n(t.szDownloadUrl + 7, 1017, 'a'); }},
        {"the path is longer than 1023 bytes",
         [](Task& t) { std::fill_n(t.szFilePath, 1024, 'a'); }},
        {"the path holds a backslash", [](Task& t) { SetField(t.szFilePath, "C:\\v"); }},
        {"more than 10 blocks are asked for", [](Task& t) { t.nBlockCount = 11; }},
        {"more than 10 blocks are asked for", [](Task& t) { t.nBlockCount = -1; }},
        {"another task writes this file",
         [&](Task& t) { SetField(t.szFilePath, campaign.Output(live) + "/.././" + live.id); }},
        {"another task writes this file", [&](Task& t) { SetField(t.szFilePath, link); }},
    };
    for (const auto& [reason, change] : rows) {
        tagTaskInfo task = campaign.Task(silent.Url());
        change(task);
        ExpectRefusal(task, reason, reason == used || reason.starts_with("another task"));
    }
    std::vector<Course*> others;
    while (others.size() < 7) others.push_back(&campaign.Add(silent.Url()));
    ExpectRefusal(campaign.Task(silent.Url()), "all slots are taken", true);
    EXPECT_EQ(0, FreeSlotCount());
    EXPECT_EQ(-1, StopTask("nobody"));
    for (const std::string& name : {SectionName(getpid()), "sem." + live.id}) {
        struct stat status {};
        EXPECT_EQ(0, stat(("/dev/shm/" + name).c_str(), &status));
        EXPECT_EQ(0600U, status.st_mode & 0777U) << name;
    }
    // Another process asks a task to stop, whose worker dies before the supervisor sees it.
    EXPECT_TRUE(WaitUntil([&] { return silent.RequestCount() == 8; }));
    Course& last = *others.back();
    sem_wait(last.lock);
    StoreControl(*SlotAt(g_VideoInfoSection, 7), TASK_CONTROL_STOP);
    sem_post(last.lock);
    last.worker.Signal(SIGKILL);
    ExpectEnd(last, 8, "the worker died");
    for (Course* course : others) course->worker.Signal(SIGKILL);
    live.worker.Signal(SIGKILL);
    ExpectEnd(live, 7, "the worker died");
    campaign.End();
    ExpectRefusal(campaign.Task(silent.Url()), "the task manager is not running", false);
}

TEST(Manager, StopsWhatStartsOverWithoutGettingFurther) {
    static constexpr std::size_t kSize = 4'000'000;
    const std::string body = TestBytes(kSize);
    // Serves the first `first` bytes, and `more` with every further request, then resets.
    const auto breaking = [&](std::size_t first, std::size_t more) {
        return [&body, first, more](const std::string&, std::size_t number) {
            const std::size_t part = std::min(first + number * more, +kSize);
            Reply reply = Reply::Head(std::to_string(kSize));
            // Only bytes that come a few at a time give the worker its tries back.
            reply.Send(body.substr(0, part), 5 * part);
            if (part < kSize) reply.Pause(milliseconds(100)).Reset();
            return reply;
        };
    };
    Campaign campaign;
    SetTaskLimits({30, 60, 4});
    HttpServer early(breaking(100'000, 0));
    HttpServer further(breaking(100'000, 300'000));
    HttpServer endless({Reply::Head("1000000000000000000", body).Silence()});
    Course& growing = campaign.Add(further.Url());
    Course& large = campaign.Add(endless.Url());
    Course& hopeless = campaign.Add(early.Url());
    ExpectEnd(hopeless, 8, TASK_REMARK_STARTS_OVER);
    ExpectEnd(large, 8, TASK_REMARK_NO_SPACE);
    ExpectEnd(growing, 3, "");
    SetTaskLimits({});
}

TEST(Manager, TakesNoTaskForAWhileWhenItsWorkersDoNotStart) {
    {
        Campaign campaign("/nonexistent/worker");
        std::vector<Course*> courses;
        while (courses.size() < 3) courses.push_back(&campaign.Add("missing"));
        for (Course* course : courses) {
            ExpectEnd(*course, 7, "the worker ended before it took the task");
        }
        ExpectRefusal(campaign.Task("exit"),
                      "three workers ended before they took their task; no new one for ten seconds",
                      true);
        EXPECT_EQ(0, FreeSlotCount());
    }
    const Campaign another;
    EXPECT_EQ(8, FreeSlotCount());
    shm_unlink(SectionName(getpid()).c_str());
    ExpectRefusal(another.Task("exit"), "the section has lost its name (RemoveIPC=?)", false);
}

TEST(Manager, HandsOverArgumentsAndNothingElse) {
    for (int number = 1; number < 32; ++number) signal(number, SIG_DFL);
    signal(SIGTERM, SIG_IGN);
    const TempDir directory;
    const std::string script = directory.Path("worker");
    WriteFile(script, R"(#!/usr/bin/perl
        open O, '>', "$0.told"; print O "@ARGV\n$_" for </proc/self/fd/1*>;
        open S, '/proc/self/status'; print O "\n", grep { /Sig(Blk|Ign)/ } <S>;)");
    chmod(script.c_str(), 0755);
    Campaign campaign(script.c_str());
    const int inherited = fcntl(0, F_DUPFD, 100);  // without close-on-exec
    tagTaskInfo task = campaign.Task("any");
    task.nTaskKind = 1;
    task.nBlockCount = 99;
    Course& course = campaign.Add(task);
    ExpectEnd(course, 7, "the worker ended before it took the task");
    // Signal 8 is ignored by the interpreter itself.
    EXPECT_EQ(course.id + " 0 " + std::to_string(getpid()) +
                  "\n/proc/self/fd/1\nSigBlk:\t0000000000000002\nSigIgn:\t0000000000000080\n",
              ReadFile(script + ".told"));
    close(inherited);
    signal(SIGTERM, SIG_DFL);
}

TEST(Manager, IsItsProcessesAlone) {
    Campaign campaign;
    const std::string name = SectionName(getpid());
    const int section = shm_open(name.c_str(), O_RDONLY, 0);
    const pid_t leaves = fork();
    if (leaves == 0) std::exit(0);
    EXPECT_TRUE(WaitUntil([&] { return kill(leaves, 0) == -1; }));
    EXPECT_TRUE(FileExists("/dev/shm/" + name));
    const pid_t stays = fork();
    if (stays == 0) _exit(static_cast<int>(sleep(30)));
    campaign.End();
    EXPECT_TRUE(WaitUntil([&] { return flock(section, LOCK_EX | LOCK_NB) == 0; }));
    for (const pid_t child : {leaves, stays}) kill(child, SIGKILL);
    EXPECT_TRUE(WaitUntil([&] { return kill(stays, 0) == -1; }));
    close(section);
    errno = EPERM;
    proc_child(SIGCHLD);
    EXPECT_EQ(EPERM, errno);
}

// In a child: the test program itself cannot leave.
TEST(Manager, IsWaitedForByTheExit) {
    const TempDir directory;
    InChild([&directory] {
        signal(SIGCHLD, proc_child);
        std::string reason;
        ASSERT_EQ(0, StartTaskManager(FAULT_WORKER_PATH, "", reason)) << reason;
        WriteFile(directory.Path("pid"), std::to_string(getpid()));
        tagTaskInfo task(MakeTaskID().c_str());
        SetField(task.szDownloadUrl, "http://fault/claim,lock,finish,kill");
        task.nCmd = TASK_CMD_DOWNLOAD;
        task.nTaskKind = 0;
        // The number of a worker that is gone is not kept for as long as its last callback takes.
        task.pfnStateCallback = [](void*, const char*, int, double, int) {
            EXPECT_TRUE(WaitUntil([] { return g_WorkerPid[0] == 0; }));
        };
        EXPECT_EQ(0, AddTask(task, reason)) << reason;
        std::thread(EndTaskManager).detach();
        EXPECT_TRUE(WaitUntil([] { return FreeSlotCount() == 0; }));
        std::exit(testing::Test::HasFailure() ? 1 : 0);
    });
    EXPECT_FALSE(FileExists("/dev/shm/" + SectionName(std::stoi(ReadFile(directory.Path("pid"))))));
}

TEST(Manager, RunsNoHandlerInAWorker) {
    InChild([] {
        static const pid_t self = getpid();
        static std::atomic<bool> strayed{false}, over{false};
        setpgid(0, 0);
        signal(SIGCHLD, SIG_IGN);
        signal(SIGUSR1, [](int) { strayed = strayed || getpid() != self; });
        std::thread storm([] {
            while (!over) kill(0, SIGUSR1);
        });
        for (int i = 0; i < 50; ++i) {
            auto* start = new tagStartParam;
            SetField(start->szProgramPath, "/bin/true");
            pthread_t thread{};
            pthread_create(&thread, nullptr, StartProgram, start);
            pthread_join(thread, nullptr);
        }
        over = true;
        storm.join();
        EXPECT_FALSE(strayed);
    });
}

TEST(Manager, TellsWhyItCannotStart) {
    InChild([] {
        const auto refusal = [](const std::string& directory) {
            std::string reason;
            EXPECT_EQ(-1, StartTaskManager("w", directory.c_str(), reason));
            return reason;
        };
        const std::string name = SectionName(getpid());
        EXPECT_EQ("the directory of the info files is longer than 1024 bytes",
                  refusal(std::string(1025, 'd')));
        const int taken = shm_open(name.c_str(), O_RDWR | O_CREAT, 0600);
        flock(taken, LOCK_EX);
        EXPECT_EQ("another manager has the task section of this process id", refusal(""));
        close(taken);
        // A section that was left behind, and no room for a new one.
        signal(SIGXFSZ, SIG_IGN);
        const rlimit small{4096, RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &small);
        EXPECT_EQ("cannot create the task section: File too large", refusal(""));
        EXPECT_FALSE(FileExists("/dev/shm/" + name));
        EXPECT_EQ(-1, EndTaskManager());
    });
}

}  // namespace
