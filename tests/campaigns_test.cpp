// Workers and managers that die at any moment, and tasks that come, stop and end all at once: the
// short forms. The long ones take their numbers from the environment (docs/reliability.md).
#include <cstdio>
#include <map>

#include "support/campaign.h"
#include "support/http_server.h"
#include "support/processes.h"

using namespace test_support;

namespace {

constexpr const char* kQuick = "claim,lock,finish,unlock,exit";
constexpr const char* kDied = "the worker died";
constexpr const char* kUnclaimed = "the worker ended before it took the task";
constexpr const char* kNotTaken = "the worker ended before it took the task";
constexpr const char* kHung = "the worker hung with the task's lock";

struct Fault {
    const char* name;
    std::string address;     // a path on the server, or the steps of a fault worker
    std::vector<int> codes;  // the task may end with
    std::string remark;
    bool killed = false;  // by the test, at a random time; any remark will do
};

const Fault kFaults[] = {
    {"stopped with the lock", "claim,lock,stop", {7}, kHung},
    {"stopped with lock and final code", "claim,lock,finish,stop", {3}, ""},
    {"none", "/file", {3}, ""},
    {"none, for longer", "/long", {3}, ""},
    {"404", "/none", {7}, ""},
    {"reset", "/reset", {7}, ""},
    {"reset within the body", "/cut", {3}, ""},
    {"hung in a probe", "/silent", {7}, TASK_REMARK_NO_ANSWER},
    {"killed in a hung probe", "/silent", {7}, "", true},
    {"killed at a random time", "/slow", {3, 7}, "", true},
    {"missing program", "missing", {7}, kNotTaken},
    {"exit before the claim", "exit", {7}, kNotTaken},
    {"killed in the locked claim", "lock,kill", {7}, kNotTaken},
    {"killed with the lock", "claim,lock,report,kill", {7}, kDied},
    {"aborted with the lock", "claim,lock,abort", {7}, kDied},
    {"exit without a final code", "claim,lock,report,unlock,exit", {7}, kDied},
    {"killed with lock and final code", "claim,lock,finish,kill", {3}, ""},
    {"killed after the final code", "claim,lock,finish,unlock,kill", {3}, ""},
    {"killed with the lock after it", "claim,lock,finish,unlock,lock,kill", {3}, ""},
};

// `times`: how often this has been asked for, this time included.
Reply Serve(const std::string& request, int times, const std::string& body) {
    const std::string length = std::to_string(body.size());
    if (Has(request, "/none")) return Reply::Status(404, "nothing");
    if (Has(request, "/reset")) return Reply().Reset();
    if (Has(request, "/silent")) return Reply().Silence();
    if (Has(request, "/long")) return Reply::Head(length).Send(body, body.size() / 8);
    if (Has(request, "/slow")) return Reply::Head(length).Send(body, body.size());
    if (Has(request, "/cut") && times == 2) {
        return Reply::Head(length, body.substr(0, 9000)).Pause(milliseconds(300)).Reset();
    }
    return Reply::Ok(body);
}

// The promise: 3 s after the death, 8 s while a stopped worker has its lock. Machines that do other
// things as well get more.
void ExpectInTime(const std::vector<std::pair<const Fault*, const Course*>>& fates) {
    for (const auto& [fault, course] : fates) {
        const auto holdsUp = [died = course->died, ended = course->ended](const auto& other) {
            return other.first->address.ends_with("stop") && other.second->added < ended &&
                   other.second->ended > died;
        };
        const bool behind = std::any_of(fates.begin(), fates.end(), holdsUp);
        const double delay = std::chrono::duration<double>(course->ended - course->died).count();
        EXPECT_LE(delay, (behind ? 8 : 3) * Setting("PATIENCE", 5)) << fault->name;
        std::printf("%s%s: %.2f s from death to final callback\n", fault->name,
                    behind ? " (behind a stopped worker)" : "", std::max(0.0, delay));
    }
}

TEST(Workers, EndTheirOwnTaskOnlyWhateverKillsThem) {
    std::vector<std::pair<const Fault*, const Course*>> fates(Setting("TASKS", 20));
    const std::string body = TestBytes(20000);
    Campaign campaign;
    SetTaskLimits({12, 60});
    std::mutex mutex;
    std::map<std::string, int> asked;
    HttpServer server([&](const std::string& request, std::size_t) {
        const std::lock_guard hold(mutex);
        return Serve(request, ++asked[request.substr(0, request.find('\r'))], body);
    });
    const auto tryOne = [&](std::size_t i) {
        // Each fault once, then by chance.
        std::minstd_rand random = Random(i);
        const Fault& fault = kFaults[(i < std::size(kFaults) ? i : random()) % std::size(kFaults)];
        const bool real = fault.address[0] == '/';
        Course& course =
            campaign.Add(real ? server.Url(fault.address) + std::to_string(i) : fault.address);
        if (fault.killed) {
            SleepUpTo(random, milliseconds(1500));
            course.worker.Signal(SIGKILL);
        }
        Campaign::Follow(course);
        fates[i] = {&fault, &course};
        EXPECT_EQ(1, std::count(fault.codes.begin(), fault.codes.end(), course.code))
            << fault.name << " ended with code " << course.code << ": " << course.remark;
        EXPECT_TRUE(fault.killed || fault.remark == course.remark) << fault.name << course.remark;
        EXPECT_TRUE(!real || course.code != 3 || body == ReadFile(campaign.Output(course)));
    };
    InParallel(fates.size(), tryOne, TASK_SLOT_COUNT);
    SetTaskLimits({});
    ExpectInTime(fates);
}

// Workers that stay, killed or stopped for a while as they wait, take their next task or carry it
// out.
TEST(Workers, ThatStayMayDieAtAnyTime) {
    const std::string body = TestBytes(20000);
    std::atomic<int> ended[8]{};
    const Clock::time_point end = Clock::now() + std::chrono::seconds(Setting("SECONDS", 5));
    Campaign campaign;
    SetTaskLimits({.nIdleSeconds = 1});
    const HttpServer server({Reply::Head("20000").Send(body, 100 * body.size())});
    const auto work = [&](std::minstd_rand& random) {
        const tagTaskRequest request;
        const Course& course = campaign.Add(campaign.Task(server.Url()), &request);
        EXPECT_TRUE(WaitUntil([&] { return course.finals > 0; }));
        ++ended[course.code];
        // On a busy machine a worker may die before it has come as far as its claim.
        EXPECT_TRUE(course.code == 3 ? course.remark.empty()
                                     : course.remark == kDied || course.remark == kUnclaimed)
            << course.code << ": " << course.remark;
        EXPECT_TRUE(course.code != 3 || body == ReadFile(campaign.Output(course)));
        // Its worker may reach the end of its time.
        if (random() % 32 == 0) SleepUpTo(random, milliseconds(2000));
    };
    // One that was there a while ago has claimed its first task.
    std::map<pid_t, Clock::time_point> seen;
    const auto disturb = [&](std::minstd_rand& random) {
        SleepUpTo(random, milliseconds(10));
        const pid_t worker = g_WorkerPid[random() % TASK_SLOT_COUNT];
        const auto since = seen.emplace(worker, Clock::now()).first->second;
        if (worker < 1 || Clock::now() - since < milliseconds(300)) return;
        const platform::ProcessWatch process(worker);
        process.Signal(random() % 2 == 0 ? SIGKILL : SIGSTOP);
        SleepUpTo(random, milliseconds(50));
        process.Signal(SIGCONT);
    };
    InParallel(TASK_SLOT_COUNT + 1, [&](std::size_t i) {
        for (std::minstd_rand random = Random(i); Clock::now() < end;) {
            i < TASK_SLOT_COUNT ? work(random) : disturb(random);
        }
    });
    SetTaskLimits({});
    std::printf("%d tasks finished, the workers of %d died\n", ended[3].load(), ended[7].load());
}

// Worth most with a race detector. A task may come just when the scanner ends.
TEST(Tasks, ComeStopAndEndAtOnce) {
    std::atomic<int> added{0};
    const Clock::time_point end = Clock::now() + std::chrono::seconds(Setting("SECONDS", 5));
    Campaign campaign;
    const HttpServer server({Reply::Head("4000000").Send(std::string(4000000, 's'), 40000)});
    const auto add = [&](std::minstd_rand& random) {
        const bool slow = random() % 4 == 0;
        Course& course = campaign.Add(slow ? server.Url() : kQuick);
        ++added;
        if (slow) SleepUpTo(random, milliseconds(random() % 2 == 0 ? 30 : 500));
        EXPECT_TRUE(StopTask(course.id.c_str()) == 0 || !slow);
        TaskRemark(course.id.c_str());
        TaskFileSize(course.id.c_str());
        Campaign::Follow(course);
        // No stop is lost: nothing else ends the slow ones.
        EXPECT_EQ(slow ? 8 : 3, course.code) << course.remark;
        EXPECT_EQ("", course.remark);
        if (random() % 3 == 0) SleepUpTo(random, milliseconds(5));
    };
    const auto work = [&](std::size_t i) {
        for (std::minstd_rand random = Random(i); Clock::now() < end;) add(random);
    };
    InParallel(TASK_SLOT_COUNT, work);
    std::printf("%d tasks\n", added.load());
}

// Whether a worker of that manager, whose process id is its last argument, still runs.
bool HasWorker(pid_t manager) {
    const std::string end = '\0' + std::to_string(manager) + '\0';
    const std::filesystem::directory_iterator all("/proc");
    return std::any_of(begin(all), std::filesystem::end(all), [&](const auto& entry) {
        const std::string line = ReadFile(entry.path() / "cmdline");
        return Has(line, "tarnwick") && line.ends_with(end);
    });
}

// The next manager is offered other files of the same names.
TEST(Managers, LeaveNothingBehindTheNextOne) {
    const std::string body = TestBytes(200000), later(body.rbegin(), body.rend());
    const std::string size = std::to_string(body.size());
    const std::string files[] = {"late", "quick", "slow", "slow2", "stalled"};
    const auto killOne = [&](std::size_t round) {
        std::minstd_rand random = Random(round);
        std::atomic<bool> dies{true};
        const milliseconds pause(random() % 4000);
        HttpServer server([&](const std::string& request, std::size_t) {
            if (!dies) return Reply::Ok(later);
            if (Has(request, "/late")) return Reply().Pause(pause).Then(Reply::Ok(body));
            if (Has(request, "/stalled")) return Reply::Head(size, body.substr(0, 60000)).Silence();
            return Reply::Head(size).Send(body, Has(request, "/slow") ? 150000 : 0);
        });
        CommandRun dead, next;
        std::vector<std::string> arguments{"-j5", "-d", dead.Path()};
        for (const std::string& file : files) arguments.push_back(server.Url("/" + file));
        dead.Start(arguments);
        SleepUpTo(random, milliseconds(3000));
        dead.Kill();
        dies = false;
        const std::string finished = dead.Files() + ' ';
        next.Start(arguments);
        EXPECT_TRUE(WaitUntil([&] { return !HasWorker(dead.Pid()); },
                              milliseconds(5000 * Setting("PATIENCE", 5))));
        next.End();
        // Another manager may be at it: who removes a section has it locked.
        EXPECT_TRUE(WaitUntil([&] { return dead.SharedNames().empty(); }));
        EXPECT_EQ("late quick slow slow2 stalled", dead.Files());
        for (const std::string& file : files) {
            const std::string& expected = Has(finished, file + ' ') ? body : later;
            EXPECT_TRUE(expected == ReadFile(dead.Path(file))) << file << next.Err();
        }
    };
    InParallel(Setting("KILLS", 10), killOne, 5);
}

}  // namespace
