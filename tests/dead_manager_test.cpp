// Managers that are killed at random moments, and the next one that tidies up after them.
#include <cstdio>

#include "support/campaign.h"
#include "support/command_run.h"
#include "support/http_server.h"

using namespace test_support;

namespace {

// Workers of the manager with that process id, which is their last argument.
int Orphans(pid_t manager) {
    const std::string end = '\0' + std::to_string(manager) + '\0';
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string line = ReadFile(entry.path() / "cmdline");
        if (line.find("tarnwick") != std::string::npos && line.ends_with(end)) ++count;
    }
    return count;
}

TEST(DeadManager, LeavesNothingBehindTheNextOne) {
    const std::string body = TestBytes(200000);
    const std::string later(body.rbegin(), body.rend());
    const std::string size = std::to_string(body.size());
    const std::string files[] = {"late", "quick", "slow", "slow2", "stalled"};
    std::atomic<int> orphans{0}, complete{0};
    const auto killOne = [&](std::size_t round) {
        std::minstd_rand random = Random(round);
        // The next manager is offered other files of the same names.
        std::atomic<bool> dies{true};
        const milliseconds pause(random() % 4000);
        HttpServer server([&](const std::string& request, std::size_t) {
            if (!dies) return Reply::Ok(later);
            const auto asks = [&](const char* path) {
                return request.find(path) != std::string::npos;
            };
            if (asks("/late")) {
                return Reply().Pause(pause).Send("HTTP/1.1 200 OK\r\nContent-Length: " + size +
                                                 "\r\n\r\n" + body);
            }
            if (asks("/stalled")) return Reply::Head(size, body.substr(0, 60000)).Silence();
            return Reply::Head(size).Send(body, asks("/slow") ? 150000 : 0);
        });
        CommandRun dead;
        std::vector<std::string> arguments{"-j5", "-d", dead.Path("")};
        for (const std::string& file : files) arguments.push_back(server.Url("/" + file));
        dead.Start(arguments);
        SleepUpTo(random, milliseconds(3000));
        dead.Signal(SIGKILL);
        EXPECT_EQ("signal 9", dead.End());
        orphans += Orphans(dead.Pid());
        dies = false;
        const std::string finished = dead.Files() + ' ';
        CommandRun next;
        next.Start(arguments);
        EXPECT_TRUE(WaitUntil([&] { return Orphans(dead.Pid()) == 0; },
                              milliseconds(5000 * Setting("PATIENCE", 5))));
        next.End();
        EXPECT_EQ(std::vector<std::string>(), dead.SharedNames());
        EXPECT_EQ("late quick slow slow2 stalled", dead.Files());
        for (const std::string& file : files) {
            const bool was = finished.find(file + ' ') != std::string::npos;
            complete += was ? 1 : 0;
            EXPECT_TRUE((was ? body : later) == ReadFile(dead.Path(file))) << file << "\n"
                                                                           << next.Err();
        }
    };
    const std::size_t kills = Setting("KILLS", 10);
    InParallel(kills, killOne, 5);
    std::printf("%zu kills, %d orphans, %d files were complete\n", kills, orphans.load(),
                complete.load());
}

}  // namespace
