// The manager with extended tasks: requests, answers, the channel, and what stays of a download.
#include <sys/mman.h>

#include "TaskMan/deadmanagers.h"
#include "TaskMan/partrecord.h"
#include "support/campaign.h"
#include "support/http_server.h"

using namespace test_support;

namespace {

TEST(Extended, TellsWhatBecameOfIt) {
    Campaign campaign;
    HttpServer server([](const std::string& request, std::size_t) {
        if (Has(request, "login") && !Has(request, "Basic am9lOnNlY3JldA==")) {
            return Reply::Head("0\r\nWWW-Authenticate: Basic realm=x", "", 401);
        }
        return Has(request, "none") ? Reply::Status(404, "x") : Reply::Ok("body");
    });
    const std::string died = "the worker died";
    const struct {
        std::string address;
        int code;
        TaskReason reason;
        int requests;
        std::string remark = "";
    } rows[] = {
        {server.Url("/") + std::string(TASK_ADDRESS_MOST - 100, 'a'), 3, TaskReason::kNone, 1},
        {server.Url("/none"), 7, TaskReason::kHttpStatus, 1},
        {"http://joe:secret@" + server.Url("/login").substr(7), 3, TaskReason::kNone, 2},
        {"http://name.invalid/", 7, TaskReason::kNameNotFound, 1},
        {"http://fault/claim,flood,answer,finish", 3, TaskReason::kNone, 7},
        {"http://fault/claim,answer,size,taken,lock,tear,kill", 7, TaskReason::kNone, 7, died},
        {"http://fault/claim,answer,lock,kill", 7, TaskReason::kNone, 7, died},
    };
    std::vector<Course*> courses;
    for (const auto& row : rows) {
        tagTaskRequest request;
        request.strUrl = row.address;
        request.nTries = 1;
        tagTaskInfo task = campaign.Task("");
        SetField(task.szOrgUrl, row.address);
        courses.push_back(&campaign.Add(task, &request));
    }
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        SCOPED_TRACE(rows[i].address.substr(0, 50));
        Campaign::Follow(*courses[i]);
        EXPECT_EQ(rows[i].code, courses[i]->code);
        EXPECT_EQ(rows[i].remark, courses[i]->remark);
        EXPECT_EQ(rows[i].reason, courses[i]->answer.Reason) << courses[i]->answer.strMessage;
        EXPECT_EQ(rows[i].requests, courses[i]->answer.nRequests);
    }
    EXPECT_EQ("body", ReadFile(campaign.Output(*courses[0])));
    EXPECT_EQ(4U, server.RequestCount());
    // A record that says so, but has no request, is plain: its worker asks twice.
    tagTaskInfo plain = campaign.Task(server.Url());
    plain.nReserved1 = TASK_EXTENDED;
    Campaign::Follow(campaign.Add(plain));
    EXPECT_EQ(6U, server.RequestCount());
}

TEST(Extended, RefusesWhatItCannotAccept) {
    const Campaign campaign;
    const std::string connections = "the number of connections is not 1 to 10";
    using Task = tagTaskInfo;
    using Request = tagTaskRequest;
    const std::pair<std::string, std::function<void(Task&, Request&)>> rows[] = {
        {connections, [](Task& task, Request&) { task.nBlockCount = 0; }},
        {connections, [](Task& task, Request&) { task.nBlockCount = 11; }},
        {"the address is longer than 16384 bytes",
         [](Task&, Request& request) { request.strUrl = "http://" + std::string(16384, 'a'); }},
        {"the address holds a control character",
         [](Task& task, Request&) { SetField(task.szDownloadUrl, "http://h/\n"); }},
        {"the user holds a colon", [](Task&, Request& request) { request.strUser = "a:b"; }},
        {"there is a password and no user",
         [](Task&, Request& request) { request.strPassword = "secret"; }},
        {"the netrc file: its path is not absolute",
         [](Task&, Request& request) { request.strNetrc = ".netrc"; }},
        {"the authorities: its path is not absolute",
         [](Task&, Request& request) { request.strCaFile = "x"; }},
        {"there is a key and no certificate",
         [](Task&, Request& request) { request.strKeyFile = "/x"; }},
        {"a header is NAME: VALUE", [](Task&, Request& request) { request.Headers = {"X"}; }},
        {"the header If-Range is the worker's own",
         [](Task&, Request& request) {
             request.Headers = {"X:", "If-Range: \"1\""};
         }},
        {"the header X holds a control character",
         [](Task&, Request& request) { request.Headers = {"X: secret\r\nRange: 1"}; }},
        {"there are more than 64 headers",
         [](Task&, Request& request) { request.Headers.assign(65, "X: 1"); }},
        {"the request is longer than 65536 bytes",
         [](Task&, Request& request) {
             request.Headers.assign(64, "X: " + Repeated(102, "1234567890"));
         }},
        {"the rate is below 0", [](Task&, Request& request) { request.nRate = -1; }},
        {"the task id is empty", [](Task& task, Request&) { SetField(task.szTaskID, ""); }},
        {"the address of a page belongs into the task",
         [](Task& task, Request& request) { task.nCmd = 0, request.strUrl = "http://h/"; }},
    };
    for (const auto& [expected, change] : rows) {
        tagTaskInfo task = campaign.Task("http://h/");
        tagTaskRequest request;
        change(task, request);
        std::string reason;
        EXPECT_EQ(-1, AddTask(task, request, reason));
        EXPECT_EQ(expected, reason);
    }
}

TEST(Extended, HasARateThatMayChange) {
    Campaign campaign;
    HttpServer server({Reply::Ok(std::string(3'000'000, 'x'))});
    tagTaskRequest request;
    request.nRate = 1;
    Course& course = campaign.Add(campaign.Task(server.Url()), &request);
    std::size_t came = 0;
    const auto comes = [&] { return (came = ReadFile(campaign.Output(course)).size()) > 0; };
    EXPECT_TRUE(WaitUntil(comes));
    EXPECT_LT(came, 10'000U);
    EXPECT_EQ(-1, SetTaskRate(course.id.c_str(), -1));
    EXPECT_EQ(0, SetTaskRate(course.id.c_str(), 0));
    Campaign::Follow(course);
    EXPECT_EQ(3, course.code);
    EXPECT_EQ(-1, SetTaskRate(course.id.c_str(), 1));
    Course& plain = campaign.Add("claim,stop");
    EXPECT_EQ(-1, SetTaskRate(plain.id.c_str(), 1));
    KillWorkers();
}

// Has a download of which a part came, then tells its worker and sleeps.
void RunManager(const std::string& path, pid_t& worker) {
    HttpServer server(
        {Reply()
             .Send("HTTP/1.1 200 X\r\nETag: \"1\"\r\nContent-Length: 9000\r\n\r\nbody")
             .Silence()});
    std::string reason;
    StartTaskManager(TARNWICK_PATH, "", reason);
    tagTaskInfo task(MakeTaskID().c_str());
    SetField(task.szDownloadUrl, server.Url());
    SetField(task.szFilePath, path);
    task.nCmd = TASK_CMD_DOWNLOAD;
    task.nTaskKind = 0;
    task.nBlockCount = 1;
    task.pCallbackParam = &worker;
    task.pfnStateCallback = [](void* param, const char*, int code, double, int) {
        if (code == DOWNLOAD_STATE_DOWNLOAD_START) *static_cast<pid_t*>(param) = g_WorkerPid[0];
    };
    tagTaskRequest request;
    request.bContinue = true;
    AddTask(task, request, reason);
    sleep(60);
}

TEST(Extended, GoesWithItsManagerAndLeavesWhatCanBeContinued) {
    if (!TakeOwnSharedMemory()) GTEST_SKIP() << "nothing can be mounted";
    const TempDir directory;
    const std::vector part{directory.Path("f.part")};
    void* shared = mmap(nullptr, sizeof(pid_t), PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    pid_t& worker = *static_cast<pid_t*>(shared);
    const pid_t manager = fork();
    if (manager == 0) RunManager(part[0], worker), _exit(0);
    // A manager of another test may see the worker without its manager first, and kill it.
    EXPECT_TRUE(WaitUntil([&] { return worker != 0 && HasPartRecord(part[0]); }));
    const platform::ProcessWatch process(worker);
    kill(manager, SIGKILL);
    waitpid(manager, nullptr, 0);
    EXPECT_TRUE(WaitUntil([&] { return process.Gone(); }));
    EXPECT_EQ(part, SweepDeadManagers(true).continuable);
    EXPECT_EQ("f.part f.part.info", directory.Names());
    EXPECT_EQ(part, SweepDeadManagers(false, true).parts);
    EXPECT_EQ("", directory.Names());
    munmap(shared, sizeof(pid_t));
}

}  // namespace
