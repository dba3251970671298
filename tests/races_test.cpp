// Adders, stoppers, the scanner and the supervisor at the same time, and tasks that come just when
// the scanner ends. Worth most with a race detector.
#include <array>
#include <cstdio>
#include <thread>

#include "support/campaign.h"
#include "support/http_server.h"

using namespace test_support;

namespace {

constexpr const char* kQuick = "claim,lock,finish,unlock,exit";

// What the scanner does between two passes: it waits for so long, or less when it is let go; and
// then a little more.
std::atomic<microseconds> g_pause{milliseconds(1000)};
std::atomic<microseconds> g_lead{microseconds(0)};
std::atomic<bool> g_go{false};
std::atomic<int> g_scanners{0};  // that have come to their first pause

void Spin(microseconds time) {
    const Clock::time_point end = Clock::now() + time;
    while (Clock::now() < end) {
    }
}

const Reply kSlow = Reply::Head("4000000").Send(std::string(4000000, 's'), 40000);

}  // namespace

// Takes the place of the C library's in this program.
extern "C" unsigned sleep(unsigned) {
    [[maybe_unused]] static thread_local const int number = ++g_scanners;
    const Clock::time_point end = Clock::now() + g_pause.load();
    while (!g_go && Clock::now() < end) std::this_thread::sleep_for(microseconds(50));
    Spin(g_lead);
    return 0;
}

namespace {

TEST(Races, TasksThatComeWhenTheScannerEnds) {
    std::minstd_rand random = Random(0);
    g_pause = milliseconds(10);
    const unsigned count = Setting("ENDINGS", 200);
    unsigned met = 0;
    std::atomic<bool> enough{false};
    Campaign campaign;
    // Asks again and again whether the scanner has ended, so that the scanner and whoever wants to
    // start it come to its lock in either order.
    std::thread asking([&] {
        while (!enough) {
            pthread_mutex_lock(&g_ScanThradIsExit_Lock);
            Spin(microseconds(30));
            pthread_mutex_unlock(&g_ScanThradIsExit_Lock);
            Spin(microseconds(3));
        }
    });
    microseconds lead(100);
    for (unsigned i = 0; i < count; ++i) {
        std::this_thread::sleep_for(milliseconds(1));
        const int scanners = g_scanners;
        g_lead = lead + microseconds(random() % 10);
        g_go = true;
        Course& course = campaign.Add(kQuick);
        g_go = false;
        g_lead = microseconds(0);
        Campaign::Follow(course);
        // A task that met the end had to wait for the supervisor's next look.
        if (course.ended - course.added > milliseconds(100)) ++met;
        // The moment is hunted for: was the scanner too early or too late?
        lead += microseconds(g_scanners == scanners ? -3 : 3);
    }
    enough = true;
    asking.join();
    std::printf("%u tasks, about %u of them met the end of the scanner\n", count, met);
}

TEST(Races, NoStopIsLost) {
    g_pause = milliseconds(50);
    Campaign campaign;
    const HttpServer server({kSlow});
    const auto stopOne = [&](std::size_t i) {
        std::minstd_rand random = Random(i);
        Course& course = campaign.Add(server.Url());
        SleepUpTo(random, milliseconds(i % 2 == 0 ? 30 : 1000));
        EXPECT_EQ(0, StopTask(course.id.c_str()));
        Campaign::Follow(course);
        EXPECT_EQ(8, course.code);
        EXPECT_EQ("", course.remark);
    };
    InParallel(Setting("STOPS", 200), stopOne, TASK_SLOT_COUNT);
}

TEST(Races, AllAtOnce) {
    const Clock::time_point end = Clock::now() + std::chrono::seconds(Setting("SECONDS", 5));
    g_pause = milliseconds(2);
    std::array<std::atomic<Course*>, TASK_SLOT_COUNT> recent{};
    std::atomic<int> added{0};
    Campaign campaign;
    const HttpServer server({kSlow});
    const auto add = [&](std::minstd_rand& random, std::atomic<Course*>& last) {
        const auto choice = random() % 40;
        const std::string address = choice < 4 ? server.Url() : kQuick;
        Course& course = campaign.Add(choice == 0 ? "claim,lock,kill" : address);
        last = &course;
        ++added;
        if (choice % 4 != 0) SleepUpTo(random, milliseconds(300));
        StopTask(course.id.c_str());
        Campaign::Follow(course);
    };
    const auto meddle = [&](std::minstd_rand& random) {
        if (const Course* course = recent[random() % recent.size()]) {
            TaskRemark(course->id.c_str());
            TaskFileSize(course->id.c_str());
            if (random() % 50 == 0) StopTask(course->id.c_str());
        }
        if (FreeSlotCount() > 0) SetTaskLimits({});
        SleepUpTo(random, milliseconds(2));
    };
    const auto work = [&](std::size_t i) {
        std::minstd_rand random = Random(i);
        while (Clock::now() < end) i < recent.size() ? add(random, recent[i]) : meddle(random);
    };
    InParallel(recent.size() + 3, work);
    std::printf("%d tasks\n", added.load());
}

}  // namespace
