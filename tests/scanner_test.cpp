// The scanner against slots that the test fills in the workers' place, and what surrounds it: the
// checks on tasks, the counters, the start of programs.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/stat.h>

#include <csignal>
#include <cstring>
#include <map>

#include "TaskMan/taskman.h"
#include "common/AutoLock.h"
#include "common/fieldtext.h"
#include "support/helpers.h"

using test_support::TempDir;
using test_support::UniqueName;
using test_support::WaitUntil;

namespace {

struct Call {
    std::string id;
    int code;
    double value;
    std::string text;
    std::uint32_t length;
    bool operator==(const Call&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Call& call) {
    return out << call.id << ": code " << call.code << ", value " << call.value << ", text of "
               << call.length;
}

// A section and a map of its own, and every call of the scanner.
class ScannerTest : public testing::Test {
  protected:
    ScannerTest() : name_(UniqueName("scan")) {
        EXPECT_EQ(0, InitShareMem(&g_VideoInfoSection, name_.c_str()));
        std::memcpy(g_VideoInfoSection.pCommDataPrt, "/info", 6);
    }
    ~ScannerTest() override {
        for (sem_t* lock : locks_) {
            if (lock != nullptr) sem_close(lock);
        }
        UnInitShareMem(&g_VideoInfoSection, name_.c_str());
        g_VideoInfoSection = {};
    }

    tagTaskNode& Add(const std::string& id, int index, int nCmd, int nTaskKind) {
        auto* node = new tagTaskNode(id.c_str());
        node->nTaskIndex = index;
        node->nCmd = nCmd;
        node->nTaskKind = nTaskKind;
        node->pCallbackParam = this;
        node->pfnStateCallback = OnState;
        node->pfnResultCallback = OnResult;
        node->mutexLock = new Threading::Mutex(id.c_str());
        if (locks_[index & 7] != nullptr) sem_close(locks_[index & 7]);
        locks_[index & 7] = sem_open(id.c_str(), 0);
        SetField(Slot(index).szTaskID, id);
        Threading::AutoLock hold(&g_access_taskmap_mutex);
        g_TaskInfo_map[id] = node;
        return *node;
    }
    static tagTaskContext& Slot(int index) { return *SlotAt(g_VideoInfoSection, index & 7); }
    // Looks at or changes the slot as a worker does, with the task's lock.
    template <class Step>
    auto Locked(int index, Step step) {
        sem_t* lock = locks_[index & 7];
        while (sem_wait(lock) != 0) {
        }
        const auto result = step(Slot(index));
        sem_post(lock);
        return result;
    }
    void Report(int index, std::uint32_t bits) {
        Locked(index, [&](tagTaskContext& slot) {
            slot.bStateChanged = 1;
            return slot.nStateBits |= bits;
        });
    }
    std::uint32_t PendingBits(int index) {
        return Locked(index, [](tagTaskContext& slot) { return slot.nStateBits; });
    }
    void Rename(int index, const std::string& id) {
        Locked(index, [&](tagTaskContext& slot) {
            SetField(slot.szTaskID, id);
            return 0;
        });
    }
    void StartScanner() {
        g_ScanThradIsExit = false;
        pthread_t thread{};
        ASSERT_EQ(0, pthread_create(&thread, nullptr, StartScanData, nullptr));
        pthread_detach(thread);
    }
    // Parse jobs, download jobs, all.
    static std::vector<int> Counters() {
        Threading::AutoLock hold(&g_access_taskcount_mutex);
        return {g_ParseCount, g_DownloadCount, g_TaskCount};
    }
    static bool ScannerEnded() {
        pthread_mutex_lock(&g_ScanThradIsExit_Lock);
        const bool ended = g_ScanThradIsExit;
        pthread_mutex_unlock(&g_ScanThradIsExit_Lock);
        return ended;
    }
    std::vector<Call> CallsFor(const std::string& id) {
        Threading::AutoLock hold(&mutex_);
        std::vector<Call> calls;
        for (const Call& call : calls_) {
            if (call.id == id) calls.push_back(call);
        }
        return calls;
    }

  private:
    static void OnState(void* param, const char* id, int code, double value, int) {
        static_cast<ScannerTest*>(param)->Note({id, code, value, "", 0});
    }
    static void OnResult(void* param, const char* id, int code, const char* text,
                         std::uint32_t length) {
        static_cast<ScannerTest*>(param)->Note({id, code, 0.0, text, length});
    }
    void Note(Call call) {
        Threading::AutoLock hold(&mutex_);
        calls_.push_back(std::move(call));
    }

    const std::string name_;
    sem_t* locks_[TASK_SLOT_COUNT] = {};  // handles on the locks of the tasks added last
    Threading::Mutex mutex_;
    std::vector<Call> calls_;
};

constexpr std::uint32_t Bits(std::initializer_list<int> codes) {
    std::uint32_t bits = 0;
    for (const int code : codes) bits |= 1U << code;
    return bits;
}

TEST_F(ScannerTest, TurnsEveryCodeIntoItsCall) {
    const std::string longText(20000, 'x');
    struct Row {
        const char* name;
        int nCmd, nTaskKind, index;
        std::uint32_t bits;
        std::string text;
        std::vector<Call> calls;  // id left out
        bool parseJob;            // whose counter is lowered
    };
    const Row rows[] = {
        {"informs",
         1,
         0,
         0,
         Bits({10, 2, 4, 5, 0, 9, 11, 15, 17, 31}),
         "",
         {{"", 0, 0, "", 0},
          {"", 2, 0, "", 0},
          {"", 4, 41, "", 0},
          {"", 5, 42, "", 0},
          {"", 10, 43, "", 0}},
         false},
        {"final first", 1, 0, 1, Bits({4, 3}), "", {{"", 3, 0, "", 0}}, false},
        {"marked", 3, 1, 2, Bits({3}), "", {{"", 3, -1, "", 0}}, true},
        {"text", 0, 0, 3, Bits({1}), "hello world!", {{"", 1, 0, "hello world!", 12}}, true},
        {"full text", 0, 0, 4, Bits({1}), longText, {{"", 1, 0, longText, 20000}}, true},
        {"parse fails", 0, 0, 5, Bits({6, 7, 8, 16}), "", {{"", 6, 0, "", 0}}, true},
        {"too long", 0, 0, 6, Bits({16}), "", {{"", 16, 0, "", 0}}, true},
        {"no index", 3, 0, -1, Bits({8}), "", {{"", 8, 0, "", 0}}, false},
    };
    std::map<std::string, std::string> ids;
    for (const Row& row : rows) {
        const std::string id = ids[row.name] = UniqueName("row");
        Add(id, row.index, row.nCmd, row.nTaskKind);
        tagTaskContext& slot = Slot(row.index);
        slot.dProgress = 41;
        slot.dSpeed = 42;
        slot.dFileSize = 43;
        std::memcpy(slot.szVideoInfo, row.text.data(), row.text.size());
        slot.nReserved4 = -1;
        Report(row.index, row.bits);
    }
    CheckAndCalcTaskCount();
    EXPECT_EQ((std::vector{5, 3, 8}), Counters());
    StartScanner();
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string& id = ids[row.name];
        EXPECT_TRUE(WaitUntil([&] { return CallsFor(id).size() >= row.calls.size(); }));
        std::vector<Call> expected = row.calls;
        for (Call& call : expected) call.id = id;
        EXPECT_EQ(expected, CallsFor(id));
    }
    EXPECT_TRUE(WaitUntil([] { return Counters() == std::vector{0, 1, 1}; }));
    EXPECT_EQ(43, g_TaskFileSize[0]);

    // A slot that carries another id is left alone, bits and all, until it is the task's again.
    const std::string id = ids["informs"];
    Rename(0, id + "x");
    Report(0, Bits({7}));
    const std::string clock = UniqueName("tick");  // shows that passes go by
    Add(clock, 1, 1, 0);
    CheckAndCalcTaskCount();
    Report(1, Bits({7}));
    EXPECT_TRUE(WaitUntil([&] { return !CallsFor(clock).empty(); }));
    EXPECT_EQ(Bits({7}), PendingBits(0));
    EXPECT_EQ(5U, CallsFor(id).size());
    Rename(0, id);
    EXPECT_TRUE(WaitUntil([] { return ScannerEnded(); }));
    EXPECT_EQ((Call{id, 7, 0, "", 0}), CallsFor(id).back());
    const std::string zeros(TASK_COMMDATA_OFFSET, '\0');
    EXPECT_EQ(0, std::memcmp(g_VideoInfoSection.hPrt, zeros.data(), zeros.size()));
    EXPECT_STREQ("/info", g_VideoInfoSection.pCommDataPrt);
    EXPECT_EQ((std::vector{0, 0, 0}), Counters());
}

TEST_F(ScannerTest, WorksThreePassesAfterTheShutdownFlag) {
    const std::string id = UniqueName("shut");
    tagTaskNode& node = Add(id, 0, 1, 0);
    CheckAndCalcTaskCount();
    g_Exit = true;
    Report(0, Bits({2}));
    StartScanner();
    // Every pass takes the bit once; it is set again after each.
    ASSERT_TRUE(WaitUntil([&] {
        if (PendingBits(0) == 0) Report(0, Bits({2}));
        return ScannerEnded();
    }));
    EXPECT_EQ(3U, CallsFor(id).size());
    g_Exit = false;
    Threading::AutoLock hold(&g_access_taskmap_mutex);
    g_TaskInfo_map.clear();
    delete &node;
}

TEST(Admission, ChecksTasksAndPaths) {
    struct Row {
        const char* name;
        const char* id;
        const char* path;
        int nCmd, nTaskKind, nBlockCount;
        bool admitted;
        int blocksAfter;
    };
    const Row rows[] = {
        {"no id", "", "/tmp/v", 0, 0, 3, false, 3},
        {"parse, anything", "a", "C:\\v", 0, 0, 99, true, 99},
        {"download", "a", "/tmp/v", 1, 0, 10, true, 10},
        {"backslash", "a", "C:\\v", 3, 0, 3, false, 3},
        {"blocks", "a", "/tmp/v", 1, 0, 11, false, 10},
        {"blocks below 0", "a", "", 3, 0, -1, false, 10},
        {"blocks of kind 1", "a", "/tmp/v", 1, 1, 99, true, 99},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        tagTaskInfo task(row.id);
        SetField(task.szFilePath, row.path);
        task.nCmd = row.nCmd;
        task.nTaskKind = row.nTaskKind;
        task.nBlockCount = row.nBlockCount;
        testing::internal::CaptureStderr();
        EXPECT_EQ(row.admitted, CheckTaskParam(&task, "Row"));
        EXPECT_EQ(row.blocksAfter, task.nBlockCount);
        const std::string told = testing::internal::GetCapturedStderr();
        const bool pathRefused = std::strcmp(row.name, "backslash") == 0;
        EXPECT_EQ(pathRefused ? "ERROR: Tarnwicker szFilePath has problem,FilePath: C:\\v\n"
                                "Error!! \xCE\xC4\xBC\xFE\xC3\xFB\xBB\xF2\xC2\xB7\xBE\xB6\xC3\xFB"
                                "\xD3\xD0\xCE\xCA\xCC\xE2!! Function: Row\n"
                              : "",
                  told);
    }
}

TEST_F(ScannerTest, ListsTheMap) {
    const std::string id(40, 'p');
    tagTaskNode& node = Add(id, 0, 3, 0);
    SetField(node.szOrgUrl, "http://site/page");
    testing::internal::CaptureStderr();
    tagTaskInfo any("any");
    {
        Threading::AutoLock hold(&g_access_taskmap_mutex);
        PrintTaskMapInfo(&any);
        g_TaskInfo_map.clear();
    }
    delete &node;
    EXPECT_EQ("DEBUG PrintTaskMapInfo Taskid: " + id +
                  "(40), CMD: 3, Other  Pic, OrgUrl: http://site/page \r\n\r\n",
              testing::internal::GetCapturedStderr());
}

// Runs StartProgram with a program that is a shell script; what the thread returned.
void* RunStartProgram(const std::string& program) {
    auto* start = new tagStartParam{};
    SetField(start->szProgramPath, program);
    SetField(start->szTaskID, "the-id");
    SetField(start->szTaskIndex, "5");
    SetField(start->szMainPid, "4711");
    pthread_t thread{};
    EXPECT_EQ(0, pthread_create(&thread, nullptr, StartProgram, start));
    void* result = &thread;
    pthread_join(thread, &result);
    return result;
}

TEST(StartProgram, HandsOverArgumentsAndNothingElse) {
    struct sigaction reap {};
    reap.sa_handler = proc_child;
    reap.sa_flags = SA_RESTART | SA_NOCLDSTOP;
    sigaction(SIGCHLD, &reap, nullptr);
    signal(SIGTERM, SIG_IGN);
    TempDir directory;
    const std::string script = directory.Path("program");
    const std::string told = directory.Path("told");
    test_support::WriteFile(script, "#!/usr/bin/perl\nopen O, '>', '" + told +
                                        ".new'; print O \"$0 @ARGV\\n\"; "
                                        "print O \"$_ \" for </proc/self/fd/1*>; "
                                        "open S, '/proc/self/status'; "
                                        "print O grep { /Sig(Blk|Ign)/ } <S>; close O; rename '" +
                                        told + ".new', '" + told + "';\n");
    ASSERT_EQ(0, chmod(script.c_str(), 0755));
    const int inherited = fcntl(0, F_DUPFD, 100);  // without close-on-exec
    EXPECT_EQ(nullptr, RunStartProgram(script));
    ASSERT_TRUE(WaitUntil([&] { return test_support::FileExists(told); }));
    // Signal 8 is ignored by the interpreter itself.
    EXPECT_EQ(script +
                  " the-id 5 4711\n/proc/self/fd/1 SigBlk:\t0000000000000002\n"
                  "SigIgn:\t0000000000000080\n",
              test_support::ReadFile(told));
    close(inherited);
    signal(SIGTERM, SIG_DFL);
    EXPECT_TRUE(WaitUntil([] { return kill(g_WorkerPid[5], 0) == -1; }));  // reaped

    EXPECT_EQ(nullptr, RunStartProgram(directory.Path("missing")));
    const pid_t child = g_WorkerPid[5];
    EXPECT_GT(child, 0);
    EXPECT_TRUE(WaitUntil([&] { return kill(child, 0) == -1; }));
}

}  // namespace
