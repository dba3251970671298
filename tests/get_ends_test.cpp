// How `taskman get` ends when it is interrupted, killed or not listened to, and how it continues.
#include <sys/ioctl.h>

#include <algorithm>

#include "TaskMan/partrecord.h"
#include "common/platform.h"
#include "support/site.h"

using namespace test_support;

namespace {

struct Pipe {
    Pipe() { EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0); }
    ~Pipe() {
        for (const int end : ends) close(end);
    }
    int ends[2];
};

// How often the server was asked for the path.
std::ptrdiff_t Asked(const std::string& path) {
    const auto all = Server().Requests();
    return std::count_if(all.begin(), all.end(),
                         [&](const auto& request) { return Has(request, path + " "); });
}

TEST(Get, InterruptedItLeavesNothingButTheList) {
    const struct {
        const char* address;
        int signal, count;
    } cases[] = {
        {"$/slow", SIGINT, 1},   {"$/slow", SIGHUP, 1},   {"$/slow", SIGTERM, 2},
        {"$/silent", SIGINT, 2}, {"&silent", SIGTERM, 1}, {"--format=5 &silent", SIGINT, 2},
    };
    InParallel(std::size(cases), [&](std::size_t number) {
        const auto& [address, signal, count] = cases[number];
        SCOPED_TRACE(testing::Message() << address << " " << signal << " x " << count);
        const bool get = *address == '$';
        const std::string path = Filled(address);
        const std::string list = Filled(path + "\n" + path + "\tx-2\t+\n$/good\n$/good3\n");
        Pipe pipe;
        const std::string sent = list + "http://the-end-of-the-list-did-not-co";
        ASSERT_EQ(write(pipe.ends[1], sent.data(), sent.size()), ssize_t(sent.size()));
        CommandRun run(*address == '&' ? "info" : "get");
        run.input = pipe.ends[0];
        Begin(run, get ? "--json --no-continue -j2 -i - --failed list" : address);
        const pid_t worker = run.Worker();
        const platform::ProcessWatch process(worker);
        ASSERT_GT(worker, 0);
        // Whoever reads the command's output does not wait for its worker.
        const std::string output = "/proc/" + std::to_string(worker) + "/fd/1";
        EXPECT_EQ(std::filesystem::read_symlink(output), "/dev/null");
        EXPECT_TRUE(!get || WaitUntil([&] { return Has(run.Out(), "\"file\":2"); }));
        run.Signal(signal);
        ASSERT_TRUE(run.Says(get ? "stopping 2 downloads (again: end now)\n" : "end now)\n"));
        if (count == 2) run.Signal(signal);
        EXPECT_EQ(run.End(), "signal " + std::to_string(signal));
        // Where nobody reaps what the command leaves, the process id stays.
        EXPECT_TRUE(WaitUntil([&] { return process.Gone(); }));
        EXPECT_EQ(run.SharedNames(), std::vector<std::string>());
        EXPECT_EQ(run.Files(), get ? "list" : "");
        if (!get) return;
        const std::string out = run.Out(), exit = std::to_string(128 + signal);
        EXPECT_TRUE(Has(out, "\"stopped\":2,\"not_begun\":2,\"bytes\":0,\"exit\":" + exit)) << out;
        // All of it is to be done again, the running ones in any order.
        const std::string left = ReadFile(run.Path("list"));
        EXPECT_EQ(std::multiset<char>(left.begin(), left.end()),
                  std::multiset<char>(list.begin(), list.end()));
    });
}

// The file, slowly, or at once the part of it that is asked for.
Reply File(const std::string& request, const std::string& body, const std::string& header) {
    const std::size_t range = request.find("\r\nRange: bytes=");
    const bool part = range != std::string::npos && Has(request, "If-Range: \"tag\"");
    const std::size_t begin = part ? std::stoul(request.substr(range + 15)) : 0;
    const std::string size = std::to_string(body.size());
    const std::string code = part ? "206\r\nContent-Range: bytes " + std::to_string(begin) + "-" +
                                        std::to_string(body.size() - 1) + "/" + size
                                  : "200";
    return Reply()
        .Send("HTTP/1.1 " + code + header +
              "\r\nETag: \"tag\"\r\nConnection: close\r\nContent-Length: " +
              std::to_string(body.size() - begin) + "\r\n\r\n")
        .Send(body.substr(begin), part ? 0 : body.size() / 4);
}

TEST(Get, WhatDidNotFinishIsContinued) {
    const struct {
        const char *ends, *kill, *then, *file, *says;
    } cases[] = {
        {"INT", "", "", "file", "file: continues at "},
        {"INT", "INT", "", "file", "file: continues at "},
        {"KILL", "", "-v", "file", "file: continues at "},
        {"worker", "", "", "file", "file: continues at "},
        {"INT", "", "--no-continue", "file", "file: started"},
        {"INT", "", "--sha256 ~", "", "file: continues at "},
        {"INT", "record", "-v", "file", "file: starts over: the record of the partial file is dam"},
    };
    const std::string body = TestBytes(1'000'000);
    InParallel(std::size(cases), [&](std::size_t number) {
        const auto& [ends, kill, then, file, says] = cases[number];
        const std::string how = ends, also = kill;
        SCOPED_TRACE(how + " " + also + " " + then);
        HttpServer server([&](const std::string& request, std::size_t) {
            return File(request, body, also == "INT" ? "" : "\r\nAccept-Ranges: bytes");
        });
        CommandRun run, next;
        const std::string target = " -o " + run.Path("file") + " " + server.Url();
        Begin(run, target);
        const platform::ProcessWatch worker(run.Worker());
        ASSERT_TRUE(WaitUntil([&] { return HasPartRecord(run.Path("file.part")); }));
        if (how == "worker") {
            worker.Signal(SIGKILL);
        } else {
            run.Signal(how == "INT" ? SIGINT : SIGKILL);
        }
        if (also == "INT") run.Signal(SIGINT);
        run.End();
        EXPECT_TRUE(WaitUntil([&] { return worker.Gone(); }));
        EXPECT_EQ(run.Files(), "file.part file.part.info");
        const std::string kept = " %): the same command continues it";
        EXPECT_EQ(Has(run.Err(), kept + (also == "INT" ? " if the server serves parts\n" : "\n")),
                  how != "KILL");
        const std::size_t came = std::filesystem::file_size(run.Path("file.part"));
        if (also == "record") WriteFile(run.Path("file.part.info"), "taskman partial file 1\n");
        Begin(next, then + target);
        EXPECT_EQ(next.End(), *file == '\0' ? "exit 5" : "exit 0");
        EXPECT_TRUE(Has(next.Err(), says)) << next.Err();
        EXPECT_EQ(run.Files(), file);
        EXPECT_TRUE(*file == '\0' || ReadFile(run.Path("file")) == body);
        // Nothing is asked for twice, but what a killed process had not noted.
        ASSERT_EQ(server.RequestCount(), 2U);
        const std::string asked = server.Requests()[1];
        EXPECT_EQ(Has(asked, "Range:"), Has(says, "continues"));
        if (!Has(says, "continues")) return;
        const std::size_t range = asked.find("Range: bytes=");
        ASSERT_NE(range, std::string::npos);
        const std::size_t begin = std::stoul(asked.substr(range + 13));
        EXPECT_TRUE(begin == came || (begin < came && (how == "worker" || also == "INT")))
            << begin << " of " << came;
    });
}

TEST(Get, NeitherAListWithoutALineNorABlockedSignalDelaysTheEnd) {
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    CommandRun run;
    pthread_sigmask(SIG_BLOCK, &term, nullptr);
    Begin(run, "-i /dev/zero --failed list");
    pthread_sigmask(SIG_UNBLOCK, &term, nullptr);
    ASSERT_TRUE(WaitUntil([&] { return !run.SharedNames().empty(); }));
    run.Signal(SIGTERM);
    EXPECT_EQ(run.End(), "signal 15");
}

TEST(Get, ADiskThatNeverAnswersDelaysTheEndByElevenSeconds) {
    ChildProcess run;
    std::string list;
    for (int i = 10; i < 50; ++i) list += Filled("$/stuck\t") + std::to_string(i) + "\n";
    WriteFile(run.Path("list"), list);
    run.Start({STUCK_TASKMAN_PATH, "get", "--json", "-j8", "-i", "list"});
    // A thread for each of 24 files waits for the disk.
    EXPECT_TRUE(WaitUntil([] { return Asked("/stuck") == 24; }));
    run.Signal(SIGTERM);
    EXPECT_EQ(run.End(), "signal 15");
    EXPECT_TRUE(Has(run.Out(), "\"files\":24,\"finished\":0,")) << run.Out();
    EXPECT_EQ(run.Files(), "list");
}

TEST(Get, ABrokenOutputEndsLikeSigterm) {
    Pipe output;
    close(std::exchange(output.ends[0], -1));
    CommandRun run;
    run.output = output.ends[1];
    Begin(run, "$/good $/slow");
    EXPECT_EQ(run.End(), "signal 15");
    EXPECT_EQ(run.Files(), "good");
    CommandRun full;
    const int device = open("/dev/full", O_WRONLY | O_CLOEXEC);
    full.output = device;
    Begin(full, "$/good $/slow");
    EXPECT_EQ(full.End(), "signal 15");
    EXPECT_TRUE(Has(full.Err(), "cannot write standard output: No space left")) << full.Err();
    close(device);
}

TEST(Get, StandardOutputGetsACheckedFile) {
    for (const bool fits : {true, false}) {
        CommandRun run;
        run.environment.push_back("TMPDIR=" + run.Path());
        Begin(run, std::string("-o - $/good --sha256 ") + (fits ? "+" : "~"));
        EXPECT_EQ(run.End(), fits ? "exit 0" : "exit 5");
        EXPECT_EQ(run.Out() + run.Files(), fits ? "abc" : "");
    }
    CommandRun slow;
    Begin(slow, "-o - -d . $/slow");
    EXPECT_TRUE(slow.Worker() > 0 && slow.Files().ends_with(".part"));
    struct stat part {};
    stat(slow.Path(slow.Files()).c_str(), &part);
    EXPECT_EQ(part.st_mode & 07777, 0600U);
    slow.Signal(SIGINT);
    EXPECT_EQ(slow.End(), "signal 2");
    EXPECT_EQ(slow.Out() + slow.Files(), "");
}

TEST(Get, AReaderThatTakesNothingDelaysNoEnd) {
    for (const char* arguments : {"--json -i list", "-o - -d . $/plenty"}) {
        Pipe output;
        CommandRun run;
        WriteFile(run.Path("list"), Repeated(2000, "x\n"));
        run.output = output.ends[1];
        Begin(run, arguments);
        int held = 0;
        EXPECT_TRUE(WaitUntil(
            [&] { return ioctl(output.ends[0], FIONREAD, &held) == 0 && held > 50'000; }));
        EXPECT_EQ(run.Files(), "list");  // SIGKILL could not leave more
        run.Signal(SIGINT);
        EXPECT_EQ(run.End(), "signal 2");
        EXPECT_EQ(run.Files(), "list");
        const bool told =
            Has(run.Err(), "taskman: cannot write standard output: nobody reads it\n");
        EXPECT_EQ(told, Has(arguments, "--json")) << run.Err();
    }
}

}  // namespace
