// A manager whose workers wait for another task: which of them serve it, and what they remember.
#include "TaskMan/partrecord.h"
#include "TaskMan/task/idleworkers.h"
#include "support/campaign.h"
#include "support/http_server.h"

using namespace test_support;

namespace {

// Sockets that a process has open.
int Sockets(pid_t pid) {
    namespace fs = std::filesystem;
    int sockets = 0;
    for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
        std::error_code closed;
        if (fs::read_symlink(entry, closed).string().starts_with("socket:")) ++sockets;
    }
    return sockets;
}

class IdleWorkers : public testing::Test {
  protected:
    // No limit on the claim but that of a task that is handed over.
    IdleWorkers() {
        SetTaskLimits({.nAnswerSeconds = 0, .nIdleSeconds = 3600, .nTasksPerWorker = 3});
    }
    ~IdleWorkers() override { SetTaskLimits({}); }

    // Waits until the task has ended and nothing but idle workers is left.
    static void Follow(const Course& course) {
        EXPECT_TRUE(WaitUntil([&] { return course.finals > 0 && FreeSlotCount() == 8; }));
    }
    static pid_t Worker() { return *std::max_element(g_WorkerPid, g_WorkerPid + 8); }
    // No task that is being added may end before the test knows its worker and its lock.
    Course& Add(const tagTaskInfo& task, const tagTaskRequest* request) {
        adding_ = true;
        Course& course = campaign_.Add(task, request);
        adding_ = false;
        return course;
    }
    Course& Add(const HttpServer& server, const tagTaskRequest& request = {}) {
        return Add(campaign_.Task(server.Url()), &request);
    }

    std::atomic<bool> adding_{false};
    const HttpServer::Script patient_ = [this](const std::string&, std::size_t) {
        WaitUntil([this] { return !adding_; });
        return Reply::Ok("body");
    };
    Campaign campaign_;
};

TEST_F(IdleWorkers, ServeOneTaskAfterTheOtherAndRememberTheirConnectionsOnly) {
    const int before = Sockets(getpid());
    const std::string answer = "HTTP/1.1 200 X\r\nContent-Length: 4\r\n\r\nbody";
    // Each connection carries two requests; a third one meets an answer that is not its own.
    HttpServer server(
        {Reply().Send(answer).Receive().Send(answer).Pause(milliseconds(1)).Send(answer)});
    std::vector<pid_t> workers;
    std::size_t asked = 0;
    Clock::time_point begin;
    for (int i = 0, slow = 0; i < 4; ++i) {
        // Half a second after a task its connection is ended: then all of it is done again.
        if (i == 0) workers.clear(), begin = Clock::now(), asked = server.RequestCount();
        tagTaskRequest request;
        if (i == 0) request.strUserAgent = "first", request.bContinue = true;
        if (i == 1) request.strIfNoneMatch = "\"tag\"", request.strSha256 = std::string(64, '0');
        const Course& course = campaign_.Add(campaign_.Task(server.Url()), &request);
        Follow(course);
        EXPECT_EQ(course.code, 3) << course.remark;
        EXPECT_EQ(course.answer.nTries, 0);
        EXPECT_EQ(course.answer.nRequests, 1);
        EXPECT_EQ(ReadFile(campaign_.Output(course)), "body");
        workers.push_back(Worker());
        if (i != 2 || Clock::now() - begin < milliseconds(400) || ++slow == 20) continue;
        i = -1;
    }
    EXPECT_GT(workers[0], 0);
    EXPECT_EQ(workers, (std::vector{workers[0], workers[0], 0, workers[3]}));
    std::vector<std::string> requests = server.Requests();
    requests.erase(requests.begin(), requests.begin() + static_cast<std::ptrdiff_t>(asked));
    ASSERT_EQ(requests.size(), 3U);
    // Its connection ends soon: the server and the channel stay.
    EXPECT_TRUE(WaitUntil([&] { return Sockets(getpid()) == before + 2; }));
    EXPECT_EQ(requests[1], requests[2]);  // of the third task, and of the first one of a worker
    // What a worker may not do for others.
    const HttpServer slow(patient_);
    const Course& other = Add(slow);
    EXPECT_EQ(other.worker.Pid(), workers[3]);
    Follow(other);
    SetTaskLimits({.nIdleSeconds = 3600, .nTasksPerWorker = 1});  // no further one waits
    const std::function<void(tagTaskInfo&, tagTaskRequest&)> changes[] = {
        [](tagTaskInfo&, tagTaskRequest& request) { request.Headers = {"Cookie: x"}; },
        [](tagTaskInfo&, tagTaskRequest& request) { request.strNetrc = "/none"; },
        [](tagTaskInfo& task, tagTaskRequest&) {
            WriteFile(task.szFilePath + std::string(PART_RECORD_ENDING), "a record");
        },
        [](tagTaskInfo& task, tagTaskRequest&) {
            std::filesystem::create_symlink("elsewhere", FieldText(task.szFilePath));
        },
        [](tagTaskInfo& task, tagTaskRequest&) { task.nReserved1 = -2; },
        // Who finds out late does not let it go to its task.
        [](tagTaskInfo& task, tagTaskRequest& request) {
            request.bContinue = true;
            WriteFile(task.szFilePath + std::string(PART_RECORD_ENDING), "");
        },
    };
    for (const auto& change : changes) {
        tagTaskRequest request;
        tagTaskInfo task = campaign_.Task(slow.Url());
        change(task, request);
        EXPECT_EQ(kill(workers[3], 0), 0);  // it still waits
        const Course& course = Add(task, task.nReserved1 == -2 ? nullptr : &request);
        EXPECT_NE(course.worker.Pid(), workers[3]);
        Follow(course);
    }
}

TEST(Traits, AreOthersWhereAWorkerMustNotServe) {
    using Task = tagTaskInfo;
    using Request = tagTaskRequest;
    void (*const changes[])(Task&, Request&) = {
        [](Task&, Request& request) { request.Headers = {"Cookie: x"}; },
        [](Task&, Request& request) { request.strUser = "u"; },
        [](Task&, Request& request) { request.strPassword = "p"; },
        [](Task&, Request& request) { request.strCaFile = "/x"; },
        [](Task&, Request& request) { request.strCertFile = "/x"; },
        [](Task&, Request& request) { request.strKeyFile = "/x"; },
        [](Task&, Request& request) { request.bInsecure = true; },
        [](Task& task, Request&) { task.bUseProxy = 0; },
        [](Task& task, Request&) { SetField(task.szProxyHost, "x"); },
        [](Task& task, Request&) { task.nProxyPort = 1; },
        [](Task& task, Request&) { task.nProxyType = 5; },
        [](Task& task, Request&) { SetField(task.szProxyUser, "x"); },
        [](Task& task, Request&) { SetField(task.szProxyPassword, "x"); },
        [](Task&, Request& request) { WriteFile(request.strCaFile, ""); },
        [](Task&, Request& request) { WriteFile(request.strCertFile, ""); },
        [](Task&, Request& request) { WriteFile(request.strKeyFile, ""); },
        [](Task&, Request&) { std::filesystem::current_path("/"); },
    };
    const TempDir directory;
    const auto here = std::filesystem::current_path();
    for (const auto& change : changes) {
        Task task("id");
        task.bUseProxy = 1;
        Request request;
        request.strCaFile = directory.Path("ca");
        request.strCertFile = directory.Path("certificate");
        request.strKeyFile = directory.Path("key");
        const Traits before = TraitsOf(task, request, "");
        EXPECT_EQ(before.reach, TraitsOf(task, request, "").reach);
        change(task, request);
        EXPECT_NE(before.reach, TraitsOf(task, request, "").reach) << &change - changes;
        std::filesystem::current_path(here);
    }
}

TEST_F(IdleWorkers, AreChosenByTheirServers) {
    std::atomic<bool> begun{false};
    const HttpServer one([&](const std::string& request, std::size_t number) {
        WaitUntil([&] { return begun.load(); });
        return patient_(request, number);
    });
    const HttpServer other(patient_);
    const Course& first = Add(one);
    const Course& second = Add(other);
    begun = true;
    Follow(first), Follow(second);
    const Course& next = Add(other);
    EXPECT_EQ(next.worker.Pid(), second.worker.Pid());
}

TEST_F(IdleWorkers, AreThoseThatWereStoppedAsWellUntilTheirTimeIsOver) {
    SetTaskLimits({.nIdleSeconds = 3});
    HttpServer silent({Reply().Silence()});
    const Course& course = Add(silent);
    EXPECT_TRUE(WaitUntil([&] { return silent.RequestCount() == 1; }));
    StopTask(course.id.c_str());
    Follow(course);
    EXPECT_EQ(course.code, 8);
    EXPECT_EQ(Worker(), course.worker.Pid());
    // By itself: the manager kills it after ten seconds more.
    EXPECT_TRUE(WaitUntil([] { return Worker() == 0; }, milliseconds(12'000)));
}

TEST_F(IdleWorkers, MayBreakAndTheNextTaskIsServed) {
    const struct {
        const char* steps;
        int code = 3;
        const char* remark = "";
        const char* ended = "finish";
        void (*then)() = [] {};
    } rows[] = {
        {"exit"},
        {"deaf"},
        {"stop"},
        {"next,exit"},
        {"next,lock,kill"},
        {"next,claim,kill", 7, "the worker died"},
        {"next,claim,kill", 3, "", "fail"},  // gets no next task
        {"next,deaf", 7, "the worker ended before it took the task", "finish", KillWorkers},
    };
    const HttpServer server({Reply::Ok("body")});
    for (const auto& [steps, code, remark, ended, then] : rows) {
        SCOPED_TRACE(steps);
        tagTaskRequest request;
        request.Headers = {std::string("Row: ") + steps + ended};  // for no worker of another row
        const std::string first = std::string("claim,") + ended + ",idle," + steps;
        Follow(campaign_.Add(campaign_.Task(first), &request));
        const Course& next = campaign_.Add(campaign_.Task(server.Url()), &request);
        then();
        Follow(next);
        EXPECT_EQ(next.code, code);
        EXPECT_EQ(next.remark, remark);
    }
}

TEST_F(IdleWorkers, GetAnotherLockWhenTheLastOneIsHeldOrWasReleasedTwice) {
    const HttpServer server(patient_);
    const Course* course = &Add(server);
    for (int (*spoil)(sem_t*) : {sem_trywait, sem_post}) {
        Follow(*course);
        EXPECT_EQ(0, spoil(course->lock));
        course = &Add(server);
        Follow(*course);
        EXPECT_EQ(course->code, 3) << course->remark;
        int value = -1;
        sem_getvalue(course->lock, &value);
        EXPECT_EQ(value, 1);
    }
}

TEST_F(IdleWorkers, LeaveNoLocksWhenAllAreKilled) {
    tagTaskRequest request;
    Follow(campaign_.Add(campaign_.Task("claim,finish,idle,next"), &request));
    request.Headers = {"X: for another worker"};
    const Course& running = campaign_.Add(campaign_.Task("stop"), &request);
    KillWorkers();
    const std::string own = running.id.substr(0, 6);  // the process id
    for (const std::string& name : platform::OwnSemaphoreNames()) {
        EXPECT_TRUE(!name.starts_with(own) || name == running.id) << name;
    }
}

TEST_F(IdleWorkers, HaveTheirChannelsAloneLikeOthers) {
    tagTaskRequest request;
    Follow(campaign_.Add(campaign_.Task("claim,finish,idle,next"), &request));
    request.Headers = {"X: for another worker"};
    const pid_t worker = campaign_.Add(campaign_.Task("stop"), &request).worker.Pid();
    EXPECT_TRUE(WaitUntil([worker] { return Sockets(worker) == 1; }));
    const pid_t child = fork();
    if (child == 0) _exit(static_cast<int>(sleep(30)));
    EXPECT_TRUE(WaitUntil([child] { return Sockets(child) == 0; }));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    KillWorkers();
}

}  // namespace
