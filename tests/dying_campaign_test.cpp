// Workers that die in every way, eight at a time. The short form runs with all tests; the long one
// takes its numbers from the environment (docs/reliability.md).
#include <array>
#include <cstdio>
#include <map>

#include "support/campaign.h"
#include "support/http_server.h"

using namespace test_support;

namespace {

constexpr const char* kDied = "the worker died";
constexpr const char* kNotTaken = "the worker ended before it took the task";
constexpr const char* kHung = "the worker hung with the task's lock";

struct Fault {
    const char* name;
    std::string address;     // a path on the server, or the steps of a fault worker
    std::vector<int> codes;  // the task may end with
    std::string remark;
    bool killed = false;  // by the test, at a random time; any remark goes
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
    const auto asks = [&](const char* path) { return request.find(path) != std::string::npos; };
    const std::string length = std::to_string(body.size());
    if (asks("/none")) return Reply::Status(404, "nothing");
    if (asks("/reset")) return Reply().Reset();
    if (asks("/silent")) return Reply().Silence();
    if (asks("/long")) return Reply::Head(length).Send(body, body.size() / 8);
    if (asks("/slow")) return Reply::Head(length).Send(body, body.size());
    if (asks("/cut") && times == 2) {
        return Reply::Head(length, body.substr(0, 9000)).Pause(milliseconds(300)).Reset();
    }
    return Reply::Ok(body);
}

using Fate = std::pair<const Fault*, const Course*>;

// Whether a stopped worker had its lock between the death and the callback.
bool BehindStopped(const Course& course, const std::vector<Fate>& fates) {
    return std::any_of(fates.begin(), fates.end(), [&](const Fate& other) {
        return other.first->address.ends_with("stop") && other.second->added < course.ended &&
               other.second->ended > course.died;
    });
}

// The promise: 3 s after the death, 8 s behind a stopped worker. Machines that do other things as
// well get more.
void ExpectInTime(const std::vector<Fate>& fates) {
    std::map<std::string, std::array<std::vector<double>, 2>> figures;
    for (const auto& [fault, course] : fates) {
        const double delay = std::chrono::duration<double>(course->ended - course->died).count();
        const bool behind = BehindStopped(*course, fates);
        EXPECT_LE(delay, (behind ? 8 : 3) * Setting("PATIENCE", 5)) << fault->name;
        for (const char* name : {fault->name, "all"}) {
            figures[name][behind].push_back(std::max(0.0, delay));
        }
    }
    std::printf("Seconds from death to final callback; right: behind a stopped worker\n");
    for (auto& [name, groups] : figures) {
        std::printf("| %-32s", name.c_str());
        for (std::vector<double>& delays : groups) {
            std::printf(" | %4zu", delays.size());
            if (delays.empty()) delays.push_back(0.0);
            std::sort(delays.begin(), delays.end());
            std::printf(" | %5.2f | %5.2f", delays[delays.size() / 2], delays.back());
        }
        std::printf(" |\n");
    }
}

TEST(DyingWorkers, EndTheirOwnTaskOnly) {
    std::vector<Fate> fates(Setting("TASKS", 60));
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
        EXPECT_EQ(fault.killed ? course.remark : fault.remark, course.remark) << fault.name;
        if (real && course.code == 3) {
            EXPECT_TRUE(body == ReadFile(campaign.Output(course)));
        }
    };
    InParallel(fates.size(), tryOne, TASK_SLOT_COUNT);
    SetTaskLimits({});
    ExpectInTime(fates);
}

}  // namespace
