// Downloads of `taskman get` beside others: of the same host, of the same file, at a common rate.
#include "common/platform.h"
#include "support/site.h"

using namespace test_support;

namespace {

TEST(Get, ReplacesNewerFilesOnly) {
    HttpServer server([](const std::string& request, std::size_t) {
        if (Has(request, "If-None-Match: W/\"1\"\r\n")) return Reply::Head("", "", 304);
        return Reply().Send("HTTP/1.1 200 X\r\nETag: W/\"1\"\r\nContent-Length: 3\r\n\r\nabc");
    });
    const TempDir directory;
    const std::string path = directory.Path("file");
    WriteFile(path, "old");
    if (platform::SetAttribute(Descriptor(open(path.c_str(), O_RDWR)).Get(), "user.x", "y") != 0) {
        GTEST_SKIP() << "the file system keeps no attributes";
    }
    const auto get = [&](const std::string& arguments, const std::string& end) {
        CommandRun run;
        Begin(run, "-N -o " + path + " " + arguments);
        EXPECT_EQ(run.End(), end);
        EXPECT_EQ(ReadFile(path), "abc");
        return run.Err() + run.Out();
    };
    const auto says = [](const std::string& told, const std::string& what) {
        EXPECT_TRUE(Has(told, what)) << told;
    };
    says(get(server.Url(), "exit 0"), "file: finished");
    says(get(server.Url(), "exit 0"), "file: unchanged\n" + path + "\n");
    says(get(server.Url() + Filled(" --sha256 ~"), "exit 5"), "file: mismatch");
    says(get(server.Url("/other"), "exit 0"), "file: finished");
    WriteFile(path, "new");
    says(get(server.Url("/other"), "exit 0"), "file: finished");
}

// Replies to the first request for /busy of those that break off in the middle of a file, and to
// the second.
HttpServer::Script BusyOnce(const std::string& retryAfter) {
    return [retryAfter](const std::string& request, std::size_t number) {
        const std::string head = "ETag: \"1\"\r\nContent-Length: 6\r\n";
        const bool rest = Has(request, "Range: bytes=3-");
        if (number == 0) {
            return Reply()
                .Send("HTTP/1.1 200 X\r\n" + head + "\r\nabc")
                .Pause(std::chrono::milliseconds(50))
                .Reset();
        }
        if (number == 1) return Reply::Head("0\r\nRetry-After: " + retryAfter, "", 429);
        return Has(request, "/busy") && rest
                   ? Reply().Send(
                         "HTTP/1.1 206 X\r\nETag: \"1\"\r\nContent-Length: 3\r\n"
                         "Content-Range: bytes 3-5/6\r\n\r\ndef")
                   : Reply::Ok("abc");
    };
}

TEST(Get, ABusyHostRests) {
    HttpServer moment(BusyOnce("1")), hour(BusyOnce("3600"));
    CommandRun run, late, stopped;
    Begin(run, "-j1 " + moment.Url("/busy") + " " + moment.Url("/next") + " $/good");
    EXPECT_EQ(run.End(), "exit 0");
    EXPECT_EQ(ReadFile(run.Path("busy")), "abcdef");
    const std::string told = run.Err();
    EXPECT_TRUE(Has(told, moment.Url("").substr(7) + " is busy: waiting 1 s\n")) << told;
    EXPECT_LT(told.find("good: finished"), told.find("busy: finished")) << told;
    EXPECT_EQ(told.find("busy: started"), told.rfind("busy: started")) << told;
    EXPECT_LT(told.find("busy: continues"), told.find("next: started")) << told;

    Begin(late, "-j1 " + hour.Url("/busy"));
    EXPECT_EQ(late.End(), "exit 1");
    EXPECT_TRUE(Has(late.Err(), "pause of 3600 s, longer than the 120 s of --retry-after"))
        << late.Err();
    HttpServer again(BusyOnce("3600"));
    Begin(stopped,
          "-j1 --retry-after 3600 --failed list " + again.Url("/busy") + " " + again.Url("/next"));
    EXPECT_TRUE(stopped.Says("is busy: waiting 3600 s"));
    stopped.Signal(SIGINT);
    EXPECT_EQ(stopped.End(), "signal 2");
    EXPECT_EQ(ReadFile(stopped.Path("list")),
              again.Url("/busy") + "\n" + again.Url("/next") + "\n");
    EXPECT_TRUE(Has(stopped.Files(), "busy.part")) << stopped.Files();
}

TEST(Get, AHostServesNoMoreThanItShould) {
    std::atomic<int> now{0}, most{0};
    HttpServer narrow([&](const std::string&, std::size_t) {
        most = std::max<int>(most, ++now);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        --now;
        return Reply::Ok("abc");
    });
    CommandRun run;
    Begin(run, "-j4 --per-host 1 " + narrow.Url("/a") + " " + narrow.Url("/b") + " " +
                   narrow.Url("/c") + " $/good");
    EXPECT_EQ(run.End(), "exit 0");
    EXPECT_EQ(most, 1);
    EXPECT_LT(run.Err().find("good: started"), run.Err().find("b: started")) << run.Err();
    EXPECT_LT(run.Err().find("b: started"), run.Err().find("c: started")) << run.Err();
}

TEST(Get, AHostThatIsAwayIsTriedOnce) {
    // The first serves one request, and refuses connections then as the second one does; the third
    // does so until then, takes one connection, and cuts it.
    int ports[3];
    const Descriptor leaves(Listen(ports[0])), refuses(Listen(ports[1])), cuts(Bind(ports[2]));
    shutdown(refuses.Get(), SHUT_RDWR);
    std::jthread server([&leaves, &cuts] {
        const Descriptor client(accept(leaves.Get(), nullptr, nullptr));
        char block[4096];
        recv(client.Get(), block, sizeof block, 0);
        shutdown(leaves.Get(), SHUT_RDWR);
        listen(cuts.Get(), 1);
        const std::string reply = "HTTP/1.1 200 X\r\n\r\nabc";
        send(client.Get(), reply.data(), reply.size(), MSG_NOSIGNAL);
        shutdown(client.Get(), SHUT_RDWR);
        const Descriptor cut(accept(cuts.Get(), nullptr, nullptr));
        shutdown(cuts.Get(), SHUT_RDWR);
    });
    const auto at = [&ports](int host, const char* name) {
        return " http://127.0.0.1:" + std::to_string(ports[host]) + "/" + name;
    };
    // The files that fail, each with a "+" when it had several tries.
    const auto failures = [](const std::string& arguments) {
        CommandRun run;
        Begin(run, "-j1 --tries 2 --wait 0 " + arguments);
        EXPECT_EQ(run.End(), "exit 1");
        std::string names;
        std::istringstream lines(run.Err());
        for (std::string line; std::getline(lines, line);) {
            if (Has(line, ": failed: ")) names += line[0];
            if (Has(line, " tries)")) names += '+';
        }
        return names;
    };
    EXPECT_EQ(failures("$/good" + at(2, "7") + at(0, "0") + at(2, "8") + at(0, "1") + at(1, "2") +
                       at(0, "3") + at(1, "4")),
              "7+8+1+2+3+4");
    EXPECT_EQ(failures("-x" + at(1, "") + " http://a.invalid/5 http://b.invalid/6"), "5+6");
}

TEST(Get, ATargetBelongsToOneDownload) {
    g_hold = true;
    CommandRun run, other, next;
    Begin(run, "$/held");
    ASSERT_TRUE(run.Says("held: started"));
    Begin(other, "$/good -o " + run.Path("held"));
    EXPECT_EQ(other.End(), "exit 3");
    EXPECT_TRUE(Has(other.Err(), "another download writes")) << other.Err();
    Begin(next, "--number $/good -o " + run.Path("held"));
    EXPECT_EQ(next.End(), "exit 0");
    EXPECT_EQ(run.Files(), "held.1 held.part held.part.info");
    unlink(run.Path("held.1").c_str());
    WriteFile(run.Path("held"), "mine");
    g_hold = false;
    EXPECT_EQ(run.End(), "exit 3");
    EXPECT_TRUE(Has(run.Err(), "held appeared meanwhile")) << run.Err();
    EXPECT_EQ(run.Files() + " " + ReadFile(run.Path("held")), "held mine");
}

TEST(Get, AFileThatIsReplacedKeepsItsRights) {
    CommandRun run, refused;
    WriteFile(run.Path("good"), "mine");
    chmod(run.Path("good").c_str(), 0640);
    Begin(run, "-f $/good");
    EXPECT_EQ(run.End(), "exit 0");
    struct stat now {};
    EXPECT_EQ(stat(run.Path("good").c_str(), &now), 0);
    EXPECT_EQ(now.st_mode & 07777, 0640U);
    chmod(run.Path("good").c_str(), 0440);
    if (geteuid() == 0) return;
    Begin(refused, "-f $/good -o " + run.Path("good"));
    EXPECT_EQ(refused.End(), "exit 3");
    EXPECT_TRUE(Has(refused.Err(), "good: refused: cannot replace")) << refused.Err();
}

TEST(Get, TheRateGoesToTheFilesThatRun) {
    HttpServer server([](const std::string& request, std::size_t) {
        return Reply::Ok(std::string(Has(request, "/small") ? 60'000 : 9'000'000, 'x'));
    });
    CommandRun run;
    Begin(run, "--limit-rate 100k " + server.Url("/small") + " " + server.Url("/big"));
    const auto shares = [&] {
        std::string section = ReadFile("/dev/shm/" + SectionName(run.Pid()));
        section.resize(SHARE_MEM_SIZE);
        std::multiset<int> rates;
        for (int i = 0; i < TASK_SLOT_COUNT; ++i) {
            const tagTaskContext& slot = *SlotAt({0, section.data(), nullptr}, i);
            if (*slot.szTaskID != '\0') rates.insert(slot.nReserved3);
        }
        return rates;
    };
    EXPECT_TRUE(WaitUntil([&] { return shares() == std::multiset<int>{50, 50}; }));
    EXPECT_TRUE(WaitUntil([&] { return shares() == std::multiset<int>{100}; }));
    run.Signal(SIGINT);
    EXPECT_EQ(run.End(), "signal 2");
}

}  // namespace
