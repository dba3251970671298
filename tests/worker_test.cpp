// The real worker: the claim of its slot, and what it asks a server for.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstring>

#include "common/fieldtext.h"
#include "support/http_server.h"
#include "support/processes.h"

namespace {

using namespace test_support;
using std::chrono::milliseconds;
using Slot = tagTaskContext;

TEST(Intake, TouchesNothingWithoutATask) {
    const std::string id = UniqueName("task");
    const std::string main =
        "Assertion failed: (false), function main, file Src/Tarnwick/main, line 61.\n";
    const std::string empty =
        "Assertion failed: (0 < strlen(szTaskID)), function ParseTask, file "
        "Src/Tarnwick/tarnwick, line 1048.\n";
    const struct {
        std::string id, index;
        std::size_t count;  // of arguments; the third is the manager
        std::string errors;
        bool section = true;
    } rows[] = {
        {"", "", 0, main},
        {id, "2", 2, main},
        {"", "2", 3, empty},
        {"unknown", "2", 3, ""},
        {std::string(500, 'i'), "2", 3, ""},
        {id, "-1", 3, ""},
        {id, "8", 3, ""},
        {id, "2", 3, "", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << "'" << row.id << "', slot " << row.index);
        WorkerRun run(2, id);
        run.Request("http://127.0.0.1:9/");
        if (!row.section) shm_unlink(run.Section().c_str());
        run.arguments = {row.id, row.index, run.arguments[2]};
        run.arguments.resize(row.count);
        EXPECT_EQ(run.Run(), row.errors.empty() ? "exit 0" : "signal 6");
        EXPECT_EQ(run.Err(), row.errors);
        EXPECT_TRUE(run.ChangedBy([](Slot&) {}));
        EXPECT_EQ(SemaphoreValue(id), 1);
        EXPECT_EQ(shm_unlink(run.Section().c_str()) == 0, row.section);
    }
}

// The task may be in any slot, and its id a prefix; what is served is the worker's own slot.
TEST(Intake, ServesItsOwnSlotAndChangesWhatIsItsToChange) {
    using std::chrono::steady_clock;
    std::vector<steady_clock::time_point> arrived;
    HttpServer server([&arrived](const std::string&, std::size_t number) {
        arrived.push_back(steady_clock::now());
        return number == 0 ? Reply::Status(404, "gone") : Reply::Ok("body");
    });
    WorkerRun run(7);
    auto* behindId = reinterpret_cast<char*>(&run.Slot()) + sizeof run.Slot().szTaskID;
    std::memset(behindId, 'r', TASK_SLOT_SIZE - sizeof run.Slot().szTaskID);
    run.Request(server.Url());
    run.Slot().nTryInterval = 600;
    run.Slot().bUseProxy = run.Slot().nStateBits = 0;
    SetField(run.Slot(6).szTaskID, "elsewhere");
    run.arguments[0] = "else";
    run.EndWell();
    EXPECT_TRUE(run.ChangedBy([&](Slot& slot) {
        slot.nPid = run.Pid();
        slot.bStateChanged = 1;
        slot.nStateBits = 1U << DOWNLOAD_STATE_FILE_SIZE | 1U << DOWNLOAD_STATE_DOWNLOAD_FINISH;
        slot.dFileSize = 4;
    }));
    ASSERT_EQ(arrived.size(), 3u);
    // A pause is 3 seconds at most. Clocks of two processes agree to some milliseconds only.
    EXPECT_GE(arrived[1] - arrived[0], milliseconds(2980));
}

// A stop that the manager stores just before the claim must survive it.
TEST(Intake, ReadsTheSlotAgainUnderTheLock) {
    HttpServer server({Reply::Status(404, "gone")});
    WorkerRun run;
    run.Request(server.Url());
    run.UnderLock([&](Slot& slot) {
        run.Start();
        const std::string maps = "/proc/" + std::to_string(run.Pid()) + "/maps";
        EXPECT_TRUE(WaitUntil([&] {
            const std::string files = ReadFile(maps);
            return files.find("/tarnwick") != files.npos && files.find("sem.") != files.npos;
        }));
        EXPECT_EQ(slot.nPid, -1) << "claimed without the lock";
        StoreControl(slot, TASK_CONTROL_STOP);
    });
    run.EndWell();
    EXPECT_EQ(run.Slot().nStateBits, 1U << DOWNLOAD_STATE_STOPPED);
    EXPECT_EQ(server.RequestCount(), 1u);
}

TEST(Transfer, AsksAsTheSlotSaysAndHeedsNoEnvironment) {
    const std::string longest(127, 'u');
    const struct {
        bool proxy;
        std::string user, password, credentials;  // these as they are sent, in base64
    } rows[] = {
        {false, "", "", ""},
        {true, "", "ignored", ""},
        {true, "joe", "", "am9lOg=="},
        // With the colon one byte more than the 254 that are taken.
        {true, longest, longest, Repeated(42, "dXV1") + "dTp1" + Repeated(41, "dXV1") + "dXU="},
    };
    InParallel(std::size(rows), [&](std::size_t i) {
        const auto& [proxy, user, password, credentials] = rows[i];
        HttpServer server({Reply::Ok("body")});
        const std::string site = proxy ? "http://files.invalid" : server.Url("");
        WorkerRun run;
        run.Request(site + "/a%20file?x=1");
        run.environment = {"http_proxy=no.invalid", "all_proxy=no.invalid", "ALL_PROXY=no.invalid"};
        if (proxy) {
            run.UseProxy(server.Port(), user, password);
            run.environment = {"no_proxy=*"};
        }
        run.EndWell();
        std::string expected = "GET " + (proxy ? site : "") +
                               "/a%20file?x=1 HTTP/1.1\r\nHost: " + site.substr(7) + "\r\n";
        if (!user.empty()) expected += "Proxy-Authorization: Basic " + credentials + "\r\n";
        expected += "Accept: */*\r\n";
        if (proxy) expected += "Proxy-Connection: Keep-Alive\r\n";
        ASSERT_EQ(server.RequestCount(), 2u);
        for (const auto& request : server.Requests()) EXPECT_EQ(request, expected + "\r\n");
    });
}

}  // namespace
