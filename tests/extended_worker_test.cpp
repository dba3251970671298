// The worker of an extended task: the request comes over the channel, the answer goes into the
// slot.
#include <sys/resource.h>
#include <sys/socket.h>

#include <iostream>
#include <utility>

#include "common/fieldtext.h"
#include "support/processes.h"
#include "support/transfers.h"

using namespace test_support;

namespace {

class Extended : public WorkerRun {
  public:
    Extended() {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_), 0);
        input = ends_[1];
    }
    ~Extended() { Close(); }

    void Begin(const std::string& text) {
        Slot().nReserved1 = TASK_EXTENDED;
        send(ends_[0], text.data(), text.size(), MSG_NOSIGNAL);
        Start();
        close(std::exchange(ends_[1], -1));
    }
    void Close() {
        for (int& end : ends_) {
            if (end != -1) close(std::exchange(end, -1));
        }
    }
    // The first line that the worker sends, or what came until its end.
    std::string Line() const {
        char line[64] = "";
        const ssize_t got = recv(ends_[0], line, sizeof line, 0);
        return {line, static_cast<std::size_t>(std::max<ssize_t>(got, 0))};
    }
    tagTaskAnswer Answered() const {
        tagTaskAnswer answer;
        EXPECT_EQ(DecodeAnswer(FieldView(Slot().szVideoInfo), answer), "");
        return answer;
    }
    std::uint32_t Final() const { return Slot().nStateBits & FINAL_STATE_BITS; }

  private:
    int ends_[2] = {-1, -1};
};

TEST(Extended, TheAnswerIsThereBeforeTheWorkerSpeaks) {
    HttpServer server([](const std::string& request, std::size_t) {
        if (Has(request, "/none")) return Reply::Status(404, "x");
        const bool old = Has(request, "-Match: \"1\"\r\nIf-Modified-Since: then\r\n");
        return old ? Answer(304, "", "") : Good(request);
    });
    HttpServer page({Reply::Status(410, "x")});
    tagTaskRequest request;
    // Twice as long as the slot's field.
    request.strUrl = server.Url("/" + std::string(2000, 'a'));
    request.bContinue = true;
    request.Headers = {"User-Agent: own", "X-Own: 1"};
    const std::string good = EncodeRequest(request);
    request.strIfNoneMatch = "\"1\"";
    request.strIfModifiedSince = "then";
    const std::string newer = EncodeRequest(request);
    request.strUrl = server.Url("/none");
    const struct {
        const char* name;
        std::string text;
        bool page;
        int code;
        TaskReason reason;
    } rows[] = {
        {"a file", good, false, 3, TaskReason::kNone},
        {"404", EncodeRequest(request), false, 7, TaskReason::kHttpStatus},
        {"nothing newer", newer, false, 7, TaskReason::kUnchanged},
        {"no text", "garbage\r\n\r\n", false, 7, TaskReason::kRequest},
        {"a page", good, true, 6, TaskReason::kHttpStatus},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Extended run;
        run.Request(server.Url("/short"));
        if (row.page) run.RequestPage(page.Port());
        run.Begin(row.text);
        EXPECT_EQ(run.Line(), TASK_CHANNEL_END);
        EXPECT_EQ(run.Final(), 1U << row.code) << "must be there before the line";
        run.EndWell();
        EXPECT_EQ(run.Answered().Reason, row.reason) << run.Answered().strMessage;
        if (row.code != 3) continue;
        EXPECT_TRUE(ReadFile(run.Output()) == kBody);
        EXPECT_EQ(run.Slot().dFileSize, static_cast<double>(kBody.size()));
        EXPECT_EQ(run.Answered().uReceived, kBody.size());
    }
    const std::string asked = page.Requests().at(0);
    EXPECT_TRUE(Header(asked, "X-Own") == "1" && Has(asked, "Firefox/3.6.17\r\n\r\n") &&
                !Has(asked, ": own"))
        << asked;
}

TEST(Extended, TheManagersEndEndsTheWorker) {
    HttpServer slow({Reply()
                         .Send("HTTP/1.1 200 X\r\nETag: \"1\"\r\n" + Length(9'000'000) + "\r\n" +
                               std::string(100'000, 'x'))
                         .Silence()});
    Extended run;
    run.Request(slow.Url());
    run.Slot().nBlockCount = 1;
    tagTaskRequest request;
    request.bContinue = true;
    run.columns = 80;
    run.Begin(EncodeRequest(request));
    EXPECT_TRUE(WaitUntil([&] { return ReadFile(run.Output()).size() == 100'000; }));
    const std::string err = "/proc/" + std::to_string(run.Pid()) + "/fd/2";
    EXPECT_EQ(std::filesystem::read_symlink(err), "/dev/null");  // not the terminal
    run.Close();
    run.EndWell();
    EXPECT_EQ(run.Final(), 0U);
    PartRecord record;
    EXPECT_TRUE(ReadPartRecord(run.Output(), record));
    EXPECT_EQ(BytesIn(record.have), 100'000U);
}

TEST(Extended, AWorkerThatWasTakenOverHasItsOwnFileAlone) {
    const std::vector<std::string> rights = platform::Confines();
    if (rights.empty()) GTEST_SKIP() << "this kernel confines nothing";
    HttpServer server([](const std::string& request, std::size_t) { return Good(request); });
    tagTaskRequest request;
    request.bContinue = true;
    for (const bool confined : {false, true}) {
        Extended run;
        run.program = HOSTILE_WORKER_PATH;
        run.environment.push_back("HOME=" + run.Path());
        std::filesystem::create_directory(run.Path(".ssh"));
        for (const char* name : {".ssh/id", "other.part", "victim", "cut"}) {
            WriteFile(run.Path(name), "secret");
        }
        run.Request(server.Url());
        confined ? run.Begin(EncodeRequest(request)) : run.Start();
        EXPECT_EQ(run.End(), "exit 0");
        EXPECT_EQ(run.Final(), 1U << DOWNLOAD_STATE_DOWNLOAD_FINISH) << run.Answered().strMessage;
        EXPECT_TRUE(ReadFile(run.Output()) == kBody);
        const std::string achieved = run.Err();
        EXPECT_TRUE(achieved.ends_with("tried\n")) << achieved;
        if (!confined) {
            rlimit core{};
            getrlimit(RLIMIT_CORE, &core);
            EXPECT_EQ(std::count(achieved.begin(), achieved.end(), '\n'), 14 + (core.rlim_max > 1))
                << achieved;
            continue;
        }
        for (const std::string& right : rights) EXPECT_FALSE(Has(achieved, right)) << achieved;
        if (achieved != "tried\n") std::cout << "this kernel leaves " << achieved;
        EXPECT_EQ(run.Files(), ".ssh cut other.part output output.info victim");
    }
}

}  // namespace
