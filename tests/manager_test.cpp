// The manager with real workers: adding, stopping, ending, and workers that die.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <map>

#include "TaskMan/taskman.h"
#include "common/AutoLock.h"
#include "common/fieldtext.h"
#include "support/helpers.h"
#include "support/http_server.h"

using test_support::HttpServer;
using test_support::Reply;
using test_support::TempDir;
using test_support::WaitUntil;

namespace {

struct Outcome {
    std::vector<int> codes;
    std::string remark;
    double size = 0.0;
};

int OpenDescriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<int>(std::distance(begin(all), end(all)));
}

// A running manager, and what its callbacks have said.
class ManagerTest : public testing::Test {
  protected:
    explicit ManagerTest(const std::string& worker = TARNWICK_PATH) {
        struct sigaction reap {};
        reap.sa_handler = proc_child;
        reap.sa_flags = SA_RESTART | SA_NOCLDSTOP;
        sigaction(SIGCHLD, &reap, nullptr);
        std::string reason;
        EXPECT_EQ(0, StartTaskManager(worker.c_str(), "/info", reason)) << reason;
    }
    ~ManagerTest() override {
        EndTaskManager();
        EXPECT_EQ(-1, shm_open(SectionName(getpid()).c_str(), O_RDONLY, 0));
        for (const auto& [id, outcome] : outcomes_) {
            EXPECT_EQ(SEM_FAILED, sem_open(id.c_str(), 0)) << id;
        }
    }

    tagTaskInfo Download(const std::string& url, const std::string& id = MakeTaskID()) {
        tagTaskInfo task(id.c_str());
        SetField(task.szDownloadUrl, url);
        SetField(task.szFilePath, directory.Path(id));
        task.nCmd = 1;
        task.nTaskKind = 0;
        task.nTryCount = 1;
        task.nTryInterval = 0;
        task.pCallbackParam = this;
        task.pfnStateCallback = OnState;
        return task;
    }
    // A page that the server, as a proxy, is asked about.
    tagTaskInfo Page(const HttpServer& server) {
        tagTaskInfo task = Download("");
        SetField(task.szOrgUrl, "http://www.youtube.com/watch?v=a");
        SetField(task.szProxyHost, "127.0.0.1");
        task.nProxyPort = server.Port();
        task.bUseProxy = 1;
        task.nCmd = 0;
        return task;
    }
    // Adds the task, waiting for a free slot; its id.
    std::string Add(const tagTaskInfo& task) {
        std::string reason;
        EXPECT_TRUE(WaitUntil([] { return FreeSlotCount() > 0; }));
        EXPECT_EQ(0, AddTask(task, reason)) << reason;
        return FieldText(task.szTaskID);
    }
    Outcome Of(const std::string& id) {
        Threading::AutoLock hold(&mutex_);
        return outcomes_[id];
    }
    bool Has(const std::string& id, int code) {
        const std::vector<int> codes = Of(id).codes;
        return std::find(codes.begin(), codes.end(), code) != codes.end();
    }
    bool Ended(const std::string& id) { return FinalCodes(id) > 0; }
    int FinalCodes(const std::string& id) {
        const std::vector<int> codes = Of(id).codes;
        return static_cast<int>(std::count_if(codes.begin(), codes.end(), [](int code) {
            return (FINAL_STATE_BITS >> code & 1U) != 0;
        }));
    }
    void ExpectEnd(const std::string& id, int code, const std::string& remark = "") {
        SCOPED_TRACE(id);
        EXPECT_TRUE(WaitUntil([&] { return Ended(id); }));
        EXPECT_EQ(code, Of(id).codes.back());
        EXPECT_EQ(1, FinalCodes(id));
        EXPECT_EQ(remark, Of(id).remark);
    }
    static pid_t WorkerOf(const std::string& id) {
        Threading::AutoLock hold(&g_access_taskmap_mutex);
        const auto found = g_TaskInfo_map.find(id);
        return found == g_TaskInfo_map.end() ? -1 : g_WorkerPid[found->second->nTaskIndex].load();
    }

    TempDir directory;

  private:
    static void OnState(void* param, const char* id, int code, double value, int) {
        auto* self = static_cast<ManagerTest*>(param);
        const std::string remark = TaskRemark(id);
        const double size = TaskFileSize(id);
        Threading::AutoLock hold(&self->mutex_);
        Outcome& outcome = self->outcomes_[id];
        outcome.codes.push_back(code);
        outcome.remark = remark;
        outcome.size = code == DOWNLOAD_STATE_FILE_SIZE ? value : size;
    }

    Threading::Mutex mutex_;
    std::map<std::string, Outcome> outcomes_;
};

TEST_F(ManagerTest, RefusesWhatItCannotAccept) {
    HttpServer silent({Reply().Silence()});
    const std::string live = Add(Download(silent.Url(), "abc"));
    struct Row {
        const char* name;
        std::function<void(tagTaskInfo&)> change;
        const char* reason;
    };
    const Row rows[] = {
        {"empty id", [](tagTaskInfo& t) { SetField(t.szTaskID, ""); }, "the task id is empty"},
        {"long id", [](tagTaskInfo& t) { std::fill_n(t.szTaskID, 64, 'a'); },
         "the task id is longer than 63 bytes"},
        {"odd id", [](tagTaskInfo& t) { SetField(t.szTaskID, "a/b"); },
         "the task id holds something else than letters, digits, \"_\" and \"-\""},
        {"id in use", [](tagTaskInfo& t) { SetField(t.szTaskID, "abc"); }, "the task id is in use"},
        {"begin of one", [](tagTaskInfo& t) { SetField(t.szTaskID, "ab"); },
         "the task id is in use"},
        {"longer than one", [](tagTaskInfo& t) { SetField(t.szTaskID, "abcd"); },
         "the task id is in use"},
        {"no kind", [](tagTaskInfo& t) { t.nCmd = 2; },
         "the task is neither a parse job nor a download job"},
        {"file", [](tagTaskInfo& t) { SetField(t.szDownloadUrl, "file:///etc/hostname"); },
         "the address is neither http nor https"},
        {"no page", [](tagTaskInfo& t) { t.nCmd = 0; }, "the address is neither http nor https"},
        {"long address", [](tagTaskInfo& t) { std::fill_n(t.szDownloadUrl + 7, 1017, 'a'); },
         "the address is longer than 1023 bytes"},
        {"long path", [](tagTaskInfo& t) { std::fill_n(t.szFilePath, 1024, 'a'); },
         "the path is longer than 1023 bytes"},
        {"backslash", [](tagTaskInfo& t) { SetField(t.szFilePath, "C:\\v"); },
         "the path holds a backslash"},
        {"blocks", [](tagTaskInfo& t) { t.nBlockCount = 11; }, "more than 10 blocks are asked for"},
        {"path in use",
         [&](tagTaskInfo& t) { SetField(t.szFilePath, directory.Path("./none/../abc")); },
         "another task writes this file"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        tagTaskInfo task = Download(silent.Url());
        row.change(task);
        std::string reason;
        EXPECT_EQ(-1, AddTask(task, reason));
        EXPECT_EQ(row.reason, reason);
    }
    for (int i = 1; i < TASK_SLOT_COUNT; ++i) Add(Download(silent.Url()));
    std::string reason;
    EXPECT_EQ(-1, AddTask(Download(silent.Url()), reason));
    EXPECT_EQ("all slots are taken", reason);
    EXPECT_EQ(0, FreeSlotCount());
    EXPECT_EQ(-1, StopTask("nobody"));
    for (const auto& entry : std::filesystem::directory_iterator("/dev/shm")) {
        const std::string name = entry.path().filename();
        if (name != SectionName(getpid()) && name != "sem." + live) continue;
        struct stat status {};
        stat(entry.path().c_str(), &status);
        EXPECT_EQ(0600U, status.st_mode & 0777U) << name;
    }
    // The end of the manager finds eight workers that hang in a size probe.
    EXPECT_EQ(0, EndTaskManager());
    ExpectEnd(live, 8, "the worker did not stop by itself");
}

TEST_F(ManagerTest, CarriesTasksToTheirEnds) {
    const std::string body = test_support::TestBytes(300000);
    HttpServer server([&](const std::string& request, std::size_t) {
        if (request.find("/none") != std::string::npos) return Reply::Status(404, "nothing");
        if (request.find("/slow") != std::string::npos) {
            return Reply::Head("1000000").Send(std::string(1000000, 's'), 50000);
        }
        return Reply::Ok(body);
    });
    const int descriptors = OpenDescriptors();
    // More tasks than slots: slots are used again, ids are not.
    std::vector<std::string> good;
    for (int i = 0; i < 12; ++i) good.push_back(Add(Download(server.Url())));
    for (const std::string& id : good) {
        ExpectEnd(id, 3);
        EXPECT_EQ(body.size(), Of(id).size);
        EXPECT_EQ(body, test_support::ReadFile(directory.Path(id)));
    }
    ExpectEnd(Add(Download(server.Url("/none"))), 7);
    tagTaskInfo page(MakeTaskID().c_str());
    page = Download("", FieldText(page.szTaskID));
    SetField(page.szOrgUrl, server.Url("/page?v=1"));
    page.nCmd = 0;
    ExpectEnd(Add(page), 6);

    const std::string stopped = Add(Download(server.Url("/slow")));
    EXPECT_TRUE(WaitUntil([&] { return Has(stopped, 2); }));
    EXPECT_EQ(0, StopTask(stopped.c_str()));
    ExpectEnd(stopped, 8);
    EXPECT_TRUE(WaitUntil([] { return FreeSlotCount() == TASK_SLOT_COUNT; }));
    // Fewer when another process has died meanwhile that this manager found at its start.
    EXPECT_GE(descriptors, OpenDescriptors());
    EXPECT_EQ(0, EndTaskManager());
    std::string reason;
    EXPECT_EQ(-1, AddTask(Download(server.Url()), reason));
    EXPECT_EQ("the task manager is not running", reason);
    EXPECT_EQ(0, StartTaskManager(TARNWICK_PATH, "", reason));
    ExpectEnd(Add(Download(server.Url())), 3);
}

TEST_F(ManagerTest, NoticesWorkersThatDie) {
    HttpServer silent({Reply().Silence()});
    const std::string killed = Add(Download(silent.Url()));
    const std::string holder = Add(Download(silent.Url()));
    const std::string stuck = Add(Download(silent.Url()));
    const std::string page = Add(Page(silent));
    EXPECT_TRUE(WaitUntil([&] { return silent.RequestCount() == 4; }));

    kill(WorkerOf(killed), SIGKILL);
    kill(WorkerOf(page), SIGKILL);
    ExpectEnd(killed, 7, "the worker died");
    ExpectEnd(page, 6, "the worker died");

    // A worker that dies with its task's lock, and one that lives on with it.
    sem_t* lock = sem_open(holder.c_str(), 0);
    ASSERT_NE(SEM_FAILED, lock);
    sem_wait(lock);
    kill(WorkerOf(holder), SIGKILL);
    ExpectEnd(holder, 7, "the worker died");
    EXPECT_TRUE(WaitUntil([&] {
        int value = 0;
        return sem_getvalue(lock, &value) == 0 && value == 1;
    }));
    sem_close(lock);
    lock = sem_open(stuck.c_str(), 0);
    ASSERT_NE(SEM_FAILED, lock);
    sem_wait(lock);
    ExpectEnd(stuck, 7, "the worker hung with the task's lock");
    sem_close(lock);
}

TEST_F(ManagerTest, GivesASilentServerUp) {
    HttpServer silent({Reply().Silence()});
    HttpServer slow({Reply::Head("40000").Send(std::string(40000, 's'), 10000)});
    SetTaskLimits({3, 1});
    const std::string started = Add(Download(slow.Url()));
    const std::string unanswered = Add(Download(silent.Url()));
    const std::string page = Add(Page(silent));
    ExpectEnd(unanswered, 7, "the server did not answer in time");
    ExpectEnd(page, 6, "the server did not answer in time");
    ExpectEnd(started, 3);
    SetTaskLimits({});
}

TEST_F(ManagerTest, StopsWhatStartsOverWithoutGettingFurther) {
    static constexpr std::size_t kSize = 4'000'000;
    const std::string body = test_support::TestBytes(kSize);
    // Serves the first `first` bytes, and `more` with every further request, then resets.
    const auto breaking = [&](std::size_t first, std::size_t more) {
        return [&body, first, more](const std::string&, std::size_t number) {
            const std::size_t part = std::min(first + number * more, +kSize);
            Reply reply = Reply::Head(std::to_string(kSize));
            // Only bytes that come a few at a time give the worker its tries back.
            reply.Send(body.substr(0, part), 5 * part);
            if (part < kSize) reply.Pause(std::chrono::milliseconds(100)).Reset();
            return reply;
        };
    };
    SetTaskLimits({30, 60, 4});
    HttpServer early(breaking(1000, 0));
    HttpServer late(breaking(3'000'000, 0));
    HttpServer further(breaking(100'000, 300'000));
    HttpServer endless({Reply::Head("1000000000000000000", body).Silence()});
    const auto addTried = [this](const HttpServer& server) {
        tagTaskInfo task = Download(server.Url());
        task.nTryCount = 3;
        return Add(task);
    };
    const std::string hopeless[] = {addTried(early), addTried(late)};
    const std::string large = addTried(endless);
    const std::string growing = addTried(further);
    for (const std::string& id : hopeless) ExpectEnd(id, 8, TASK_REMARK_STARTS_OVER);
    ExpectEnd(large, 8, TASK_REMARK_NO_SPACE);
    ExpectEnd(growing, 3);
    SetTaskLimits({});
}

// Another process asks workers to stop: one that cannot see it, and one that dies before the
// supervisor does.
TEST_F(ManagerTest, SeesToAStrangersStop) {
    HttpServer silent({Reply().Silence()});
    const std::string id = Add(Download(silent.Url()));
    const std::string dying = Add(Download(silent.Url()));
    EXPECT_TRUE(WaitUntil([&] { return silent.RequestCount() == 2; }));
    for (const int slot : {0, 1}) {
        StoreControl(*SlotAt(g_VideoInfoSection, slot), TASK_CONTROL_STOP);
    }
    kill(WorkerOf(dying), SIGKILL);
    ExpectEnd(dying, 8, "the worker died");
    ExpectEnd(id, 8, "the worker did not stop by itself");
}

class NoWorkerTest : public ManagerTest {
  protected:
    NoWorkerTest() : ManagerTest("/nonexistent/worker") {}
};

TEST_F(NoWorkerTest, EndsTheTasksOfAMissingProgram) {
    for (int i = 0; i < 3; ++i) {
        ExpectEnd(Add(Download("http://127.0.0.1/")), 7,
                  "the worker ended before it took the task");
    }
    std::string reason;
    EXPECT_EQ(-1, AddTask(Download("http://127.0.0.1/"), reason));
    EXPECT_EQ("three workers ended before they took their task; no new one for ten seconds",
              reason);
}

// Takes tasks like a worker that was stopped before it could claim its slot.
class IdleWorkerTest : public ManagerTest {
  protected:
    IdleWorkerTest() : ManagerTest(Script()) {}

  private:
    static std::string Script() {
        static const TempDir scripts;
        const std::string path = scripts.Path("worker");
        test_support::WriteFile(path, "#!/bin/sh\nexec sleep 100\n");
        chmod(path.c_str(), 0755);
        return path;
    }
};

TEST_F(IdleWorkerTest, EndsTheTaskOfAWorkerThatNeverTakesIt) {
    SetTaskLimits({1, 60, 10});
    ExpectEnd(Add(Download("http://127.0.0.1/")), 7, "the worker did not take the task");
    SetTaskLimits({});
}

TEST(Manager, TellsWhyItCannotStart) {
    test_support::InChild([] {
        std::string reason;
        // A section that was left behind, and no room for a new one.
        tagVideoInfoSection old{};
        ASSERT_EQ(0, InitShareMem(&old, SectionName(getpid()).c_str()));
        signal(SIGXFSZ, SIG_IGN);
        const rlimit small{4096, RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &small);
        EXPECT_EQ(-1, StartTaskManager("w", "", reason));
        EXPECT_EQ("cannot create the task section: File too large", reason);
        EXPECT_EQ(-1, shm_open(SectionName(getpid()).c_str(), O_RDONLY, 0));
        EXPECT_EQ(-1, StartTaskManager("w", std::string(1025, 'd').c_str(), reason));
        EXPECT_EQ(-1, EndTaskManager());
    });
}

TEST(Manager, MakesIdsOfOneLengthThatDiffer) {
    const std::string one = MakeTaskID();
    EXPECT_EQ(30U, one.size());
    EXPECT_EQ(std::string::npos, one.find_first_not_of("0123456789abcdef"));
    EXPECT_NE(one, MakeTaskID());
}

}  // namespace
