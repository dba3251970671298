// Workers that die in every way, eight at a time. The short form runs with all tests; the long one
// takes its numbers from the environment (docs/reliability.md).
#include <cstdio>

#include "support/campaign.h"
#include "support/http_server.h"

using namespace test_support;

namespace {

struct Fault {
    const char* name;
    const char* address;     // a path on the server, or the steps of a fault worker
    std::vector<int> codes;  // the task may end with
    bool killed = false;     // by the test, at a random time
};

const Fault kFaults[] = {
    {"stopped with the lock", "claim,lock,stop", {7}},
    {"stopped with lock and final code", "claim,lock,finish,stop", {3}},
    {"none", "/file", {3}},
    {"none, for longer", "/long", {3}},
    {"404", "/none", {7}},
    {"reset", "/reset", {7}},
    {"reset within the body", "/cut", {3}},
    {"hung in a probe", "/silent", {7}},
    {"killed in a hung probe", "/silent", {7}, true},
    {"killed at a random time", "/slow", {3, 7}, true},
    {"missing program", "missing", {7}},
    {"exit before the claim", "exit", {7}},
    {"killed in the locked claim", "lock,kill", {7}},
    {"killed with the lock", "claim,lock,report,kill", {7}},
    {"aborted with the lock", "claim,lock,abort", {7}},
    {"exit without a final code", "claim,lock,report,unlock,exit", {7}},
    {"killed with lock and final code", "claim,lock,finish,kill", {3}},
    {"killed after the final code", "claim,lock,finish,unlock,kill", {3}},
    {"killed with the lock after it", "claim,lock,finish,unlock,lock,kill", {3}},
};

struct Fate {
    const Fault* fault = nullptr;
    const Course* course = nullptr;
    // Seconds from the worker's death to the final callback.
    double Delay() const {
        return std::max(0.0, std::chrono::duration<double>(course->ended - course->died).count());
    }
    bool Stopped() const { return std::string(fault->address).find("stop") != std::string::npos; }
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

Fate Try(Campaign& campaign, const HttpServer& server, const Fault& fault, std::size_t number,
         const std::string& body) {
    const bool real = fault.address[0] == '/';
    Course& course =
        campaign.Add(real ? server.Url(fault.address) + std::to_string(number) : fault.address);
    if (fault.killed) {
        std::minstd_rand random = Random(number);
        SleepUpTo(random, milliseconds(1500));
        course.worker.Signal(SIGKILL);
    }
    Campaign::Follow(course);
    EXPECT_EQ(1, std::count(fault.codes.begin(), fault.codes.end(), course.code))
        << fault.name << " ended with code " << course.code << ": " << course.remark;
    if (real && course.code == 3) {
        EXPECT_TRUE(body == ReadFile(campaign.Output(course)));
    }
    return {&fault, &course};
}

// Whether a stopped worker had its lock between the death and the callback.
bool BehindStopped(const Fate& fate, const std::vector<Fate>& fates) {
    return std::any_of(fates.begin(), fates.end(), [&](const Fate& other) {
        return other.Stopped() && other.course->added < fate.course->ended &&
               other.course->ended > fate.course->died;
    });
}

// The promise: 3 s after the death, 8 s behind a stopped worker. Machines that do other things as
// well get more.
void ExpectInTime(const std::vector<Fate>& fates) {
    for (const Fate& fate : fates) {
        const double promised = BehindStopped(fate, fates) ? 8.0 : 3.0;
        EXPECT_LE(fate.Delay(), promised * Setting("PATIENCE", 5)) << fate.fault->name;
    }
}

void PrintFigures(const char* name, const std::vector<Fate>& fates, const Fault* fault) {
    std::printf("| %-32s |", name);
    for (const bool behind : {false, true}) {
        std::vector<double> delays;
        for (const Fate& fate : fates) {
            if (fault != nullptr && fate.fault != fault) continue;
            if (BehindStopped(fate, fates) == behind) delays.push_back(fate.Delay());
        }
        std::printf(" %4zu |", delays.size());
        if (delays.empty()) delays.push_back(0.0);
        std::sort(delays.begin(), delays.end());
        std::printf(" %5.2f | %5.2f |", delays[delays.size() / 2], delays.back());
    }
    std::printf("\n");
}

TEST(DyingWorkers, EndTheirOwnTaskOnly) {
    std::vector<Fate> fates(Setting("TASKS", 60));
    const std::string body = TestBytes(20000);
    Campaign campaign;
    SetTaskLimits({4, 60});
    std::mutex mutex;
    std::map<std::string, int> asked;
    HttpServer server([&](const std::string& request, std::size_t) {
        std::unique_lock hold(mutex);
        const int times = ++asked[request.substr(0, request.find('\r'))];
        hold.unlock();
        return Serve(request, times, body);
    });
    const auto tryOne = [&](std::size_t i) {
        // Each fault once, then by chance.
        const std::size_t choice = (i < std::size(kFaults) ? i : Random(i)()) % std::size(kFaults);
        fates[i] = Try(campaign, server, kFaults[choice], i, body);
    };
    InParallel(fates.size(), tryOne, TASK_SLOT_COUNT);
    SetTaskLimits({});
    std::printf(
        "Seconds from death to final callback; right: behind a stopped worker\n"
        "| fault                            | runs | med.  | max.  | runs | med.  | max.  |\n");
    for (const Fault& fault : kFaults) PrintFigures(fault.name, fates, &fault);
    PrintFigures("all", fates, nullptr);
    ExpectInTime(fates);
}

}  // namespace
