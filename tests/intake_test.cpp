// The worker's start: its arguments, the section, the claim of its slot, and slots full of
// nonsense.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <random>

#include "common/fieldtext.h"
#include "support/http_server.h"
#include "support/worker_run.h"

namespace {

using namespace test_support;

constexpr std::uint32_t kFinished =
    1U << DOWNLOAD_STATE_FILE_SIZE | 1U << DOWNLOAD_STATE_DOWNLOAD_FINISH;

constexpr const char* kMainAssertion =
    "Assertion failed: (false), function main, file Src/Tarnwick/main, line 61.\n";

TEST(Intake, TouchesNothingWithoutATask) {
    const std::string id = UniqueName("task");
    struct Row {
        const char* name;
        std::vector<std::string> arguments;  // a third, the manager, is added to two
        std::string end, errors;
    };
    const Row rows[] = {
        {"no argument", {}, "signal 6", kMainAssertion},
        {"one argument", {id}, "signal 6", kMainAssertion},
        {"no manager", {id, "2"}, "signal 6", kMainAssertion},
        {"empty id",
         {"", "2", ""},
         "signal 6",
         "Assertion failed: (0 < strlen(szTaskID)), function ParseTask, file "
         "Src/Tarnwick/tarnwick, line 1048.\n"},
        {"unknown id", {"unknown", "2", ""}, "exit 0", ""},
        {"longer id", {id + "x", "2", ""}, "exit 0", ""},
        {"id longer than its field", {std::string(500, 'i'), "2", ""}, "exit 0", ""},
        {"slot -1", {id, "-1", ""}, "exit 0", ""},
        {"slot 8", {id, "8", ""}, "exit 0", ""},
        {"slot beyond all numbers", {id, "99999999999999999999", ""}, "exit 0", ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        WorkerRun run(2, id);
        run.Request("http://127.0.0.1:9/");
        tagTaskContext before;
        CopySlot(&before, &run.Slot());
        const std::string manager = run.arguments[2];
        run.arguments = row.arguments;
        if (run.arguments.size() == 3) run.arguments[2] = manager;
        EXPECT_EQ(run.Run(), row.end);
        EXPECT_EQ(run.Errors(), row.errors);
        EXPECT_EQ(Difference(run.Slot(), before), "");
        EXPECT_TRUE(run.RestIntact());
        EXPECT_EQ(SemaphoreValue(id), 1);
    }
}

TEST(Intake, LeavesNoSectionOfItsOwn) {
    for (const char* index : {"2", "8"}) {
        WorkerRun run;
        ASSERT_EQ(shm_unlink(run.SectionName().c_str()), 0);
        run.arguments[1] = index;
        EXPECT_EQ(run.Run(), "exit 0");
        EXPECT_EQ(shm_unlink(run.SectionName().c_str()), -1);
        EXPECT_EQ(SemaphoreValue(run.arguments[0]), 1);
    }
}

TEST(Intake, ClaimChangesThePidOnly) {
    HttpServer server({Reply().Silence()});
    for (int index : {0, 7}) {
        WorkerRun run(index);
        tagTaskContext& slot = run.Slot();
        auto* bytes = reinterpret_cast<char*>(&slot);
        std::memset(bytes + sizeof slot.szTaskID, 'r', TASK_SLOT_SIZE - sizeof slot.szTaskID);
        run.Request(server.Url());
        slot.bUseProxy = 0;
        slot.nTryCount = 1;
        tagTaskContext expected;
        CopySlot(&expected, &slot);
        const std::size_t asked = server.RequestCount();
        run.Start();
        ASSERT_TRUE(WaitUntil([&] { return server.RequestCount() > asked; }));
        expected.nPid = run.Pid();
        EXPECT_EQ(Difference(slot, expected), "");
        EXPECT_TRUE(run.RestIntact());
        EXPECT_EQ(run.LockValue(), 1);
    }
}

TEST(Intake, FindsTheTaskByPrefixInAnySlotAndServesItsOwn) {
    HttpServer server({Reply::Ok("body")});
    WorkerRun prefix;
    prefix.Request(server.Url());
    const std::string id = prefix.arguments[0];
    prefix.arguments[0].resize(6);
    EXPECT_EQ(prefix.Run(), "exit 0");
    EXPECT_EQ(prefix.Slot().nStateBits, kFinished);
    EXPECT_EQ(SemaphoreValue(id), -1) << "the lock is named by the slot's id";

    WorkerRun other(0);
    other.Request(server.Url());
    SetField(other.Slot(6).szTaskID, "elsewhere");
    other.arguments[0] = "elsewhere";
    EXPECT_EQ(other.Run(), "exit 0");
    EXPECT_EQ(other.Slot().nStateBits, kFinished);
    EXPECT_TRUE(other.RestIntact());

    WorkerRun empty;
    SetField(empty.Slot().szTaskID, "");
    SetField(empty.Slot(6).szTaskID, empty.arguments[0]);
    EXPECT_EQ(empty.Run(), "signal 6") << "there is no lock without a name";
    EXPECT_EQ(empty.Errors(),
              "Assertion failed: (NULL != m_NamedLock), function Mutex, file "
              "common/mutex, line 60.\n");
}

// A stop that the manager stores just before the claim must survive it.
TEST(Intake, ReadsTheSlotAgainUnderTheLock) {
    HttpServer server({Reply::Status(404, "gone")});
    WorkerRun run;
    run.Request(server.Url());
    run.UnderLock([&](tagTaskContext& slot) {
        run.Start();
        const std::string maps = "/proc/" + std::to_string(run.Pid()) + "/maps";
        EXPECT_TRUE(WaitUntil([&] {
            const std::string files = ReadFile(maps);
            return files.find("/tarnwick") != files.npos && files.find("sem.") != files.npos;
        }));
        EXPECT_FALSE(WaitUntil([&] { return slot.nPid != -1; }, std::chrono::milliseconds(200)))
            << "claimed without the lock";
        slot.nReserved3 = 4711;
        StoreControl(slot, TASK_CONTROL_STOP);
    });
    EXPECT_TRUE(run.Wait());
    EXPECT_EQ(run.Slot().nStateBits, 1U << DOWNLOAD_STATE_STOPPED);
    EXPECT_EQ(run.Slot().nReserved3, 4711);
    EXPECT_EQ(server.RequestCount(), 1u);
}

TEST(Intake, EverythingButADownloadIsAPage) {
    struct Row {
        std::int32_t nCmd;
        const char* download;
        tagDownloadStateCode code;
    };
    HttpServer server({Reply::Ok("body")});
    for (const Row& row :
         {Row{1, "", DOWNLOAD_STATE_DOWNLOAD_FAIL}, Row{0, "http://x/", DOWNLOAD_STATE_PARSE_FAIL},
          Row{2, "http://x/", DOWNLOAD_STATE_DOWNLOAD_FAIL}}) {
        SCOPED_TRACE(row.nCmd);
        WorkerRun run;
        run.Request(row.download);
        run.Slot().nCmd = row.nCmd;
        SetField(run.Slot().szOrgUrl, server.Url());
        EXPECT_EQ(run.Run(), "exit 0");
        EXPECT_EQ(run.Slot().nStateBits & FINAL_STATE_BITS, 1U << row.code);
        EXPECT_EQ(server.RequestCount(), 0u) << "that is no page of the site";
    }
}

// Random bytes in all of the slot; some of its fields make sense, so that many get far.
void FillWithNonsense(WorkerRun& run, const std::string& url, unsigned seed) {
    std::minstd_rand random(seed * 7919 + 1);
    const auto one_in = [&random](unsigned often) { return random() % often == 0; };
    tagTaskContext& slot = run.Slot();
    auto* bytes = reinterpret_cast<char*>(&slot);
    const bool zeros = one_in(2);
    for (std::size_t i = 0; i < TASK_SLOT_SIZE; ++i) {
        bytes[i] = static_cast<char>(zeros ? random() >> 8 : (random() >> 8) % 255 + 1);
    }
    const auto begin = [](auto& field, const std::string& text) {
        std::copy(text.begin(), text.end(), field);
    };
    begin(slot.szTaskID, one_in(3) ? run.arguments[0] : run.arguments[0] + '\0');
    // Neither a pause nor a path outside of the test's directory.
    slot.nTryInterval = 0;
    begin(slot.szFilePath, one_in(2) ? "file" + std::string(1, '\0') : "file");
    std::replace(slot.szFilePath, std::end(slot.szFilePath), '/', '_');
    if (!one_in(4)) begin(slot.szDownloadUrl, one_in(2) ? url + '\0' : url);
    if (!one_in(4)) slot.nCmd = one_in(2) ? 1 : 3;
    if (!one_in(3)) slot.bUseProxy = 0;
    begin(slot.szProxyHost, one_in(2) ? std::string("127.0.0.1") + '\0' : std::string(128, '\1'));
    if (!one_in(4)) slot.nControl = -1;
}

TEST(Intake, SlotsOfNonsenseEndInAKnownWay) {
    HttpServer server({Reply::Ok("body")});
    InParallel(
        240,
        [&](std::size_t seed) {
            WorkerRun run;
            FillWithNonsense(run, server.Url("/"), static_cast<unsigned>(seed));
            const std::string name = FieldText(run.Slot().szTaskID).substr(0, 63);
            const std::string end = run.Run();
            const bool asserted = run.Errors().find("Assertion failed: (") != std::string::npos;
            EXPECT_TRUE(asserted ? end == "signal 6" : end == "exit 0")
                << "seed " << seed << ": " << end << ", " << run.Errors();
            EXPECT_TRUE(run.RestIntact()) << "seed " << seed;
            const bool left = sem_unlink(name.c_str()) == 0;
            EXPECT_FALSE(left && end == "exit 0") << "seed " << seed;
        },
        32);
}

}  // namespace
