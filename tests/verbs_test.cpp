// The verbs that look after managers: top, stop and clean; and what they may meet in a section.
#include <linux/capability.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <cmath>

#include "TaskMan/sweep/sweep.h"
#include "support/http_server.h"
#include "support/processes.h"

using namespace test_support;

namespace {

// Shared memory of its own for this program and what it starts: the verbs mean all managers of the
// user, and other tests have some.
class OwnSharedMemory : public testing::Environment {
    void SetUp() override {
        if (!TakeOwnSharedMemory()) GTEST_SKIP();
        // The verbs look at this process, which must have no more rights for that than they.
        __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct none[2]{};
        if (getuid() != 0) syscall(SYS_capset, &header, none);
    }
};
const auto* const g_environment = testing::AddGlobalTestEnvironment(new OwnSharedMemory);

// How the verb ended and what it wrote.
std::string Verb(const std::string& verb, const std::vector<std::string>& arguments) {
    CommandRun run(verb);
    run.Start(arguments);
    const std::string end = run.End();
    return end + "\n" + run.Out() + run.Err();
}

// The task that writes NAME.part, once the file grows.
OtherTask Running(const std::string& name) {
    OtherTask found;
    EXPECT_TRUE(WaitUntil([&] {
        for (const OtherTask& task : ListTasks()) {
            if (task.path.ends_with("/" + name + ".part")) found = task;
        }
        return found.dProgress >= 0;
    }));
    return found;
}

// The section of a manager, attached as long as the object lives.
struct Section {
    explicit Section(int manager) : name(SectionName(manager)) {
        InitShareMem(&handle, name.c_str());
    }
    ~Section() {
        UnInitShareMem(&handle, name.c_str());
        close(handle.hShm);
    }
    bool IsThere() const { return FileExists("/dev/shm/" + name); }
    tagTaskContext& Fill(int index, const std::string& id, const std::string& path) {
        tagTaskContext& slot = *SlotAt(handle, index);
        CopySlot(&slot, TestBytes(TASK_SLOT_SIZE).data());
        SetField(slot.szTaskID, id);
        SetField(slot.szFilePath, path);
        slot.nCmd = TASK_CMD_DOWNLOAD;
        return slot;
    }

    const std::string name;
    tagVideoInfoSection handle{};
};

pid_t DeadManager() {
    const pid_t pid = fork();
    if (pid == 0) _exit(0);
    waitpid(pid, nullptr, 0);
    return pid;
}

TEST(Clean, BelievesNoSection) {
    TempDir directory;
    const pid_t child = fork();
    if (child == 0) _exit(pause());
    Section dead(DeadManager()), reused(getppid()), living(getpid()), young(child);
    int index = 0;
    const char* const files[]{"left.part", "locked.part", "used.part",
                              "other",     "link.part",   "folder.part"};
    for (const char* file : files) {
        dead.Fill(index++, "dead-task", directory.Path(file)).nPid = getpid();
        if (index < 5) WriteFile(directory.Path(file), "x");
    }
    std::filesystem::create_symlink(directory.Path("other"), directory.Path("link.part"));
    std::filesystem::create_directory(directory.Path("folder.part"));
    const int locked = open(directory.Path("locked.part").c_str(), O_RDWR);
    ASSERT_EQ(flock(locked, LOCK_EX), 0);
    dead.Fill(index++, "../no-id", directory.Path("locked.part"));
    dead.Fill(index++, "living-task", "relative.part");
    living.Fill(0, "living-task", directory.Path("used.part"));
    for (const Section* section : {&reused, &living}) {
        const timespec longAgo[2]{};
        futimens(section->handle.hShm, longAgo);
    }
    const char* const ids[]{"dead-task", "living-task", "unknown-task"};
    for (const char* id : ids) sem_close(sem_open(id, O_CREAT, 0600, 1));
    const std::string empty = "/dev/shm/" + SectionName(DeadManager());
    WriteFile(empty, "");
    const std::string left = directory.Path(files[0]) + ": ";
    EXPECT_TRUE(Has(Verb("clean", {"-n"}), left + "would be removed\n"));
    EXPECT_TRUE(FileExists(directory.Path(files[0])));
    EXPECT_TRUE(Has(Verb("clean", {}), left + "removed\n"));
    for (const char* file : files) {
        EXPECT_EQ(FileExists(directory.Path(file)), file != files[0]) << file;
    }
    // The living one by its mapping alone; the manager of a young one may be about to map it.
    for (const auto& [name, stays] : {std::pair(dead.name, false),
                                      {reused.name, false},
                                      {living.name, true},
                                      {young.name, true},
                                      {empty.substr(9), false}}) {
        EXPECT_EQ(FileExists("/dev/shm/" + name), stays) << name;
    }
    for (const char* id : ids) {
        EXPECT_EQ(SemaphoreValue(id), id == ids[0] ? -1 : 1) << id;
        sem_unlink(id);
    }
    close(locked);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

TEST(Clean, IsDoneAgainThreeSecondsAfterTheStartOfAManager) {
    const auto start = std::chrono::steady_clock::now();
    BeginSweep(start);
    const Section late(DeadManager());
    for (const int seconds : {2, 4}) {
        SweepAgain(start + std::chrono::seconds(seconds));
        EXPECT_EQ(FileExists("/dev/shm/" + late.name), seconds == 2);
    }
}

// Whether the process is stopped.
bool IsStopped(pid_t pid) {
    return Has(ReadFile("/proc/" + std::to_string(pid) + "/stat"), ") T ");
}

TEST(Top, GivesTheTerminalBackBeforeItIsSuspended) {
    CommandRun top("top");
    top.output = STDERR_FILENO;
    top.Start({}, 40);
    EXPECT_TRUE(top.Says("\x1b[2J"));
    EXPECT_FALSE(top.Echoes());
    top.Type('\x1a');
    EXPECT_TRUE(WaitUntil([&] { return IsStopped(top.Pid()); }));
    EXPECT_TRUE(top.Echoes());
    top.Signal(SIGCONT);
    EXPECT_TRUE(WaitUntil([&] { return !top.Echoes(); }));
    top.Type('q');
    EXPECT_EQ(top.End(), "exit 0");
}

TEST(Top, ShowsHostileSlotsHarmlessly) {
    Section section(getpid());
    section.Fill(1, "../no-id", "");
    tagTaskContext& slot = section.Fill(0, "hostile", "/x/\x1b[2J\n\xff\u202e.part");
    slot.nStateBits = 0;
    slot.dFileSize = slot.dProgress = std::nan("");
    slot.dSpeed = -1e308;
    slot.nControl = -1;
    slot.nPid = getpid();  // a word of the slot, not a worker
    const std::string table = Verb("top", {"--once", std::to_string(getpid())});
    EXPECT_TRUE(Has(table, "hostile  probing  -     -      -    ")) << table;
    EXPECT_TRUE(Has(table, "gone    -     download")) << table;
    EXPECT_TRUE(Has(table, "\\x1b[2J\\x0a\\xff\\xe2\\x80\\xae\n")) << table;
    EXPECT_TRUE(Has(Verb("top", {"--json"}), "\"name_hex\":\"1b5b324a0affe280ae\""));
    EXPECT_EQ(Verb("top", {"1"}), "exit 1\ntaskman: no manager 1\n");
    EXPECT_TRUE(Has(Verb("top", {"0"}), "exit 2\ntaskman: PID: Value 0 not in range"));
    for (const char key : {'q', '\x03'}) {
        CommandRun live("top");
        live.output = STDERR_FILENO;
        live.Start({}, 40);
        EXPECT_TRUE(live.Says("1 task of 1 manager") && live.Says("probing"));
        EXPECT_FALSE(Has(live.Err(), "COMMAND  NAME"));  // in so few columns
        live.Type(key);
        EXPECT_EQ(live.End(), key == 'q' ? "exit 0" : "signal 2");
    }
}

TEST(Stop, AsksTheTasksThatAreNamed) {
    HttpServer server({Reply::Head("10000000").Stream(100000)});
    CommandRun one, two;
    one.Start({server.Url("/one")});
    const std::string id = Running("one").id;
    two.Start({server.Url("/two"), server.Url("/three")});
    Running("three");
    const std::string common = Running("two").id.substr(0, 8);
    EXPECT_EQ(Verb("stop", {"no-such"}), "exit 1\ntaskman: no task no-such\n");
    EXPECT_EQ(Verb("stop", {common}), "exit 1\ntaskman: 2 tasks begin with " + common + "\n");
    EXPECT_TRUE(Has(Verb("stop", {}), "exit 2\n") && Has(Verb("stop", {"--all", id}), "exit 2\n"));
    EXPECT_EQ(Verb("stop", {id.substr(0, 16)}), "exit 0\nasked to stop " + id + "\n");
    EXPECT_EQ(one.End(), "exit 6");
    EXPECT_TRUE(Has(Verb("stop", {"--all"}), "exit 0\nasked to stop "));
    EXPECT_EQ(two.End(), "exit 6");
    EXPECT_EQ(Verb("stop", {"--all"}), "exit 0\nno task runs\n");
}

TEST(Usage, IsToldInAFewWords) {
    EXPECT_TRUE(
        Has(Verb("clean", {"-n", "--", "b"}), "exit 2\ntaskman: unexpected argument \"b\""));
    EXPECT_TRUE(Has(Verb("", {}), "exit 2\ntaskman: unknown verb \"\""));
    EXPECT_TRUE(Has(Verb("--", {}), "Examples:"));
    for (const char* verb : {"-h", "get", "info", "top", "stop", "clean"}) {
        std::istringstream help(Verb(verb, {"-h"}));
        for (std::string line; std::getline(help, line);) EXPECT_LE(line.size(), 80U) << line;
    }
}

}  // namespace
