// Managers that are killed at random moments, and the next one that tidies up after them.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <random>
#include <thread>

#include "support/campaign.h"
#include "support/command_run.h"
#include "support/http_server.h"

using namespace test_support;
using std::chrono::milliseconds;

namespace {

// Workers of the manager with that process id, which is their last argument.
int Orphans(pid_t manager) {
    const std::string number = '\0' + std::to_string(manager) + '\0';
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string line = ReadFile(entry.path() / "cmdline");
        if (line.find("tarnwick") == std::string::npos || line.size() < number.size()) continue;
        if (line.compare(line.size() - number.size(), number.size(), number) == 0) ++count;
    }
    return count;
}

TEST(DeadManager, LeavesNothingBehindTheNextOne) {
    const unsigned seed = Seed();
    const std::string body = TestBytes(200000);
    const std::string later(body.rbegin(), body.rend());
    std::atomic<int> orphans{0}, complete{0};
    const auto killOne = [&](std::size_t round) {
        std::minstd_rand random(seed + unsigned(round) * 7919);
        random.discard(10);
        // The second manager is offered other files of the same names.
        std::atomic<bool> second{false};
        HttpServer server([&](const std::string& request, std::size_t) {
            if (request.find("/silent") != std::string::npos && !second) return Reply().Silence();
            const std::size_t rate = request.find("/slow") != std::string::npos ? 150000 : 0;
            return Reply::Head(std::to_string(body.size())).Send(second ? later : body, rate);
        });
        std::vector<std::string> files{"quick", "slow", "silent", "quick2", "slow2"};
        std::vector<std::string> urls{"-j", "5"};
        for (const std::string& file : files) urls.push_back(server.Url("/" + file));
        CommandRun dead;
        dead.Start(urls);
        std::this_thread::sleep_for(milliseconds(random() % 3000));
        dead.Signal(SIGKILL);
        EXPECT_EQ("signal 9", dead.End());
        orphans += Orphans(dead.Pid());
        second = true;
        std::string finished;
        for (const std::string& file : files) {
            if (!FileExists(dead.Path(file))) continue;
            EXPECT_EQ(body, ReadFile(dead.Path(file))) << file;
            finished += file + " ";
            ++complete;
        }
        CommandRun next;
        urls.insert(urls.end(), {"-d", dead.Path("")});
        next.Start(urls);
        const milliseconds promised(5000 * Setting("PATIENCE", 5));
        EXPECT_TRUE(WaitUntil([&] { return Orphans(dead.Pid()) == 0; }, promised));
        EXPECT_EQ(finished.empty() ? "exit 0" : "exit 3", next.End()) << next.Err();
        EXPECT_EQ(0U, dead.SharedNames().size()) << dead.SharedNames().front();
        EXPECT_EQ(0U, next.SharedNames().size());
        for (const std::string& file : files) {
            const bool first = finished.find(file + " ") != std::string::npos;
            EXPECT_EQ(first ? body : later, ReadFile(dead.Path(file))) << file;
        }
        EXPECT_EQ("quick quick2 silent slow slow2", dead.Files());
    };
    const std::size_t kills = Setting("KILLS", 10);
    InParallel(kills, killOne, 5);
    std::printf("%zu kills, %d orphans, %d files were complete\n", kills, orphans.load(),
                complete.load());
}

}  // namespace
