// Workers that die in every way, eight at a time. The short form runs with all tests; the long one
// takes its numbers from the environment (docs/reliability.md).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <thread>
#include <vector>

#include "support/campaign.h"
#include "support/http_server.h"

using namespace test_support;
using std::chrono::milliseconds;

namespace {

struct Fault {
    const char* name;
    const char* address;     // a path on the server, or the steps of a fault worker
    std::vector<int> codes;  // a download may end with
    bool unclaimed = false;  // it ends without taking its task
    bool killed = false;     // by the test, at a random time
};

const Fault kFaults[] = {
    {"none", "/file", {3}},
    {"404", "/none", {7}},
    {"reset", "/reset", {7}},
    {"reset within the body", "/cut", {3}},
    {"hung in a probe", "/silent", {7}},
    {"killed at a random time", "/slow", {3, 7}, false, true},
    {"killed in a hung probe", "/silent", {7}, false, true},
    {"missing program", "missing", {7}, true},
    {"exit before the claim", "exit", {7}, true},
    {"killed in the locked claim", "lock,kill", {7}, true},
    {"killed with the lock", "claim,lock,report,kill", {7}},
    {"aborted with the lock", "claim,lock,abort", {7}},
    {"exit without a code", "claim,lock,report,unlock,exit", {7}},
    {"killed with lock and final code", "claim,lock,finish,kill", {3}},
    {"killed after the final code", "claim,lock,finish,unlock,kill", {3}},
    {"killed with the lock after it", "claim,lock,finish,unlock,lock,kill", {3}},
    {"stopped with the lock", "claim,lock,stop", {7}},
    {"stopped with lock and final code", "claim,lock,finish,stop", {3}},
};

struct Fate {
    const Fault* fault = nullptr;
    const Course* course = nullptr;
    bool Stopped() const { return std::string(fault->address).find("stop") != std::string::npos; }
};

Reply Serve(const std::string& request, std::size_t number, const std::string& body) {
    const auto asks = [&](const char* path) { return request.find(path) != std::string::npos; };
    const std::string length = std::to_string(body.size());
    if (asks("/none")) return Reply::Status(404, "nothing");
    if (asks("/reset")) return Reply().Reset();
    if (asks("/silent")) return Reply().Silence();
    if (asks("/slow")) return Reply::Head(length).Send(body, body.size());
    if (asks("/cut") && number % 2 == 0) {
        return Reply::Head(length, body.substr(0, 9000)).Pause(milliseconds(30)).Reset();
    }
    return Reply::Ok(body);
}

// At most two workers in ten seconds may end without taking their task: a third would make the
// manager refuse new tasks for a while.
void AwaitTurn() {
    static std::mutex mutex;
    static Clock::time_point next;
    std::unique_lock hold(mutex);
    const Clock::time_point turn = std::max(next, Clock::now());
    next = turn + milliseconds(5500);
    hold.unlock();
    std::this_thread::sleep_until(turn);
}

Fate RunOne(Campaign& campaign, const HttpServer& server, const Fault& fault, unsigned seed) {
    std::minstd_rand random(seed);
    random.discard(10);
    if (fault.unclaimed) AwaitTurn();
    const bool real = fault.address[0] == '/';
    const bool page = !real && random() % 4 == 0;
    Course& course = campaign.Add(real ? server.Url(fault.address) : fault.address,
                                  page ? TASK_CMD_PARSE : TASK_CMD_DOWNLOAD);
    if (fault.killed) {
        std::this_thread::sleep_for(milliseconds(random() % 1500));
        course.worker.Signal(SIGKILL);
    }
    Campaign::Follow(course);
    const int asDownload = course.code == 6 ? 7 : course.code == 1 ? 3 : course.code;
    EXPECT_EQ(page, asDownload != course.code) << fault.name;
    EXPECT_EQ(1, std::count(fault.codes.begin(), fault.codes.end(), asDownload))
        << fault.name << " ended with code " << course.code << ": " << course.remark;
    return {&fault, &course};
}

// The promise: 3 s after the death, 8 s while a stopped worker has its lock. Machines that do other
// things as well get more.
void ExpectInTime(const std::vector<Fate>& fates) {
    for (const Fate& fate : fates) {
        const bool late = std::any_of(fates.begin(), fates.end(), [&](const Fate& other) {
            return other.Stopped() && other.course->added < fate.course->ended &&
                   other.course->ended > fate.course->died;
        });
        EXPECT_LE(fate.course->Delay(), (late ? 8.0 : 3.0) * Setting("PATIENCE", 5))
            << fate.fault->name << (late ? ", with a stopped worker" : "");
    }
}

void Print(const char* name, std::vector<double> delays) {
    if (delays.empty()) return;
    std::sort(delays.begin(), delays.end());
    std::printf("| %-32s | %4zu | %5.2f | %5.2f |\n", name, delays.size(),
                delays[delays.size() / 2], delays.back());
}

void PrintFigures(const std::vector<Fate>& fates) {
    std::printf("| %-32s | runs |  med. |  max. |\n", "death to final callback, s");
    std::vector<double> all;
    for (const Fault& fault : kFaults) {
        std::vector<double> delays;
        for (const Fate& fate : fates) {
            if (fate.fault == &fault) delays.push_back(fate.course->Delay());
        }
        all.insert(all.end(), delays.begin(), delays.end());
        Print(fault.name, delays);
    }
    Print("all", all);
}

TEST(DyingWorkers, EndTheirOwnTaskOnly) {
    const std::size_t count = Setting("TASKS", 60);
    const unsigned seed = Seed();
    std::atomic<bool> enough{false};
    std::vector<std::thread> load(Setting("LOAD", 0));
    for (std::thread& busy : load) {
        busy = std::thread([&] {
            while (!enough) {
            }
        });
    }
    std::vector<Fate> fates(count);
    {
        const std::string body = TestBytes(20000);
        Campaign campaign;
        SetTaskLimits({6, 60});
        HttpServer server([&](const std::string& request, std::size_t number) {
            return Serve(request, number, body);
        });
        InParallel(
            count,
            [&](std::size_t i) {
                // Each fault once, then by chance.
                const std::size_t choice =
                    i < std::size(kFaults)
                        ? i
                        : std::minstd_rand(seed + i * 7919)() % std::size(kFaults);
                fates[i] = RunOne(campaign, server, kFaults[choice], seed + unsigned(i));
                if (kFaults[choice].address[0] == '/' && fates[i].course->code == 3) {
                    EXPECT_EQ(body, ReadFile(campaign.Output(*fates[i].course)));
                }
            },
            TASK_SLOT_COUNT);
        SetTaskLimits({});
        PrintFigures(fates);
        ExpectInTime(fates);
        std::printf("%zu refusals\n", campaign.Refusals());
    }
    enough = true;
    for (std::thread& busy : load) busy.join();
}

}  // namespace
