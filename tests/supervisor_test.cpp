// The supervisor, at times that the test says, and its scanner: late, held and dying workers.
#include "TaskMan/task/supervisor.h"

#include <sys/socket.h>

#include <cmath>
#include <cstring>

#include "TaskMan/task/delivery.h"
#include "TaskMan/task/extended.h"
#include "TaskMan/task/idleworkers.h"
#include "TaskMan/task/scanner.h"
#include "TaskMan/task/throttle.h"
#include "TaskMan/taskman.h"
#include "TaskMan/tasktext.h"
#include "TaskMan/timing.h"
#include "common/AutoLock.h"
#include "common/fieldtext.h"
#include "common/platform.h"
#include "support/seams.h"

using namespace test_support;

namespace {

int g_passes = 0;

// A task in slot 0, looked at when the test says. Its worker is this process, out of reach of all
// signals.
class Supervised : public testing::Test {
  protected:
    Supervised() {
        g_refused = SYS_pidfd_send_signal;
        g_VideoInfoSection.hPrt = section_.data();
        Renew(Stage::kEntered);
    }
    ~Supervised() override {
        FreeWatch(watch_);
        g_refused = -1;
    }
    // One thread: the watches' lock guards nothing here.
    void Renew(Stage stage) TS_NO_ANALYSIS {
        if (watch_.lock.IsOpen()) FreeWatch(watch_);
        watch_.id = id_;
        watch_.nTaskIndex = 0;
        watch_.nCmd = TASK_CMD_DOWNLOAD;
        watch_.stage = {stage, start_};
        watch_.worker = {Worker::kAlive, start_};
        watch_.process = platform::ProcessWatch(getpid());
        watch_.lock.Make(id_, false);
        watch_.lock.Release();
        slot_ = tagTaskContext();
        SetField(slot_.szTaskID, id_);
    }
    void Look(double seconds) TS_NO_ANALYSIS {
        Supervise(watch_, start_ + std::chrono::milliseconds(std::lround(seconds * 1000)));
    }

    const std::string id_ = UniqueName();
    std::string section_ = std::string(SHARE_MEM_SIZE, '\0');
    tagTaskContext& slot_ = reinterpret_cast<tagTaskContext&>(section_[0]);
    Watch& watch_ = g_Watches[0];
    const Clock::time_point start_ = Clock::now();
};

TEST_F(Supervised, WorkersHaveTheirTimes) {
    const struct {
        Stage stage;
        std::int32_t nCmd;
        Stop stop;
        double limit;
        const char* reason;
        bool bHandedOver = false;
    } rows[] = {
        {Stage::kEntered, 1, Stop::kNo, 5, "the worker did not take the task", true},
        {Stage::kEntered, 1, Stop::kNo, 30, "the worker did not take the task"},
        {Stage::kClaimed, 3, Stop::kNo, 30, TASK_REMARK_NO_ANSWER},
        {Stage::kClaimed, 0, Stop::kNo, 90, TASK_REMARK_NO_ANSWER},
        {Stage::kClaimed, 0, Stop::kAsked, 10, "the worker did not stop by itself"},
        {Stage::kAnswered, 1, Stop::kStored, 10, "the worker did not stop by itself"},
        {Stage::kEnded, 1, Stop::kStored, 10, ""},
    };
    for (const auto& [stage, nCmd, stop, limit, reason, bHandedOver] : rows) {
        Renew(stage);
        watch_.nCmd = nCmd;
        watch_.bHandedOver = bHandedOver;
        watch_.stop = {stop, start_};
        Look(limit - 0.001);
        EXPECT_EQ(watch_.worker.state, Worker::kAlive) << reason;
        Look(limit);
        EXPECT_EQ(watch_.worker.state, Worker::kKilled) << reason;
        EXPECT_EQ(watch_.killReason, reason);
    }
    // A process that was stopped meanwhile counts none of that.
    Renew(Stage::kClaimed);
    watch_.lookAt = start_ + std::chrono::seconds(1);
    {
        Threading::AutoLock hold(&g_watch_mutex);
        MakeUpForPause(start_ + std::chrono::seconds(100));
    }
    Look(128);
    EXPECT_EQ(watch_.worker.state, Worker::kAlive);
}

TEST_F(Supervised, AnIdleWorkerHasItsTimeAndTenSecondsToExit) {
    const struct {
        int code;
        bool kept;
        Worker state = Worker::kAlive;
        ManagerPhase phase = ManagerPhase::kRunning;
    } rows[] = {{3, true},
                {8, true},
                {7, false},
                {3, false, Worker::kKilled},
                {3, false, Worker::kAlive, ManagerPhase::kEnding}};
    Threading::AutoLock hold(&g_watch_mutex);
    const auto waits = [this](double seconds) TS_NO_ANALYSIS {
        std::vector<platform::ProcessWatch> processes;
        std::vector<int> channels;
        SuperviseIdleWorkers(start_ + std::chrono::milliseconds(std::lround(seconds * 1000)), {},
                             processes, channels);
        return !channels.empty();
    };
    for (const auto& [code, kept, state, phase] : rows) {
        Renew(Stage::kDelivered);
        g_phase = phase;
        watch_.nFinalCode = code;
        watch_.worker.state = state;
        watch_.stay = std::chrono::seconds(2);
        Descriptor worker;
        watch_.channel.Open(worker);
        send(worker.Get(), TASK_CHANNEL_IDLE, 6, 0);
        watch_.channel.Heard();
        Look(0);
        EXPECT_EQ(watch_.stage.state == Stage::kFree, kept) << code;
        EXPECT_EQ(waits(11.999), kept) << code;
        EXPECT_FALSE(waits(12)) << code;
    }
    g_phase = ManagerPhase::kIdle;
}

TEST_F(Supervised, ExtendedDownloadsHaveTheTimeOfTheirRequests) {
    const struct {
        std::int32_t nAnswerSeconds, nTries;
        Stage stage;
        double longest, limit;  // of all tries and pauses by the request; of the manager
    } rows[] = {
        {30, 5, Stage::kEntered, 29, 30},
        {30, 5, Stage::kClaimed, 5 * (30 + 20 + 120), 6 * 170 + 60},
        {600, 100, Stage::kClaimed, 100 * (600 + 20 + 120), 101 * 740 + 60},
        {0, 5, Stage::kClaimed, 1e6, 0},
    };
    for (const auto& row : rows) {
        Renew(row.stage);
        tagTaskRequest request;
        request.nAnswerSeconds = row.nAnswerSeconds;
        request.nTries = row.nTries;
        watch_.bExtended = true;
        watch_.answerLimit = AnswerLimit(request);
        Look(row.longest);
        EXPECT_EQ(watch_.worker.state, Worker::kAlive) << row.longest;
        if (row.limit == 0) continue;
        Look(row.limit);
        EXPECT_EQ(watch_.worker.state, Worker::kKilled) << row.limit;
    }
}

TEST_F(Supervised, AWorkerThatTheKernelHoldsIsDeadInTheEnd) {
    Look(30);
    Look(31.9);
    EXPECT_EQ(slot_.nStateBits, 0U);
    Look(32);
    EXPECT_EQ(slot_.nStateBits, 1U << DOWNLOAD_STATE_DOWNLOAD_FAIL);
    EXPECT_EQ(watch_.remark, "the worker did not take the task");
}

TEST_F(Supervised, ADeadHoldersLockIsReleasedAfterItsDeath) {
    slot_.nPid = getpid();
    watch_.lock.Try();
    for (const double seconds : {0, 4}) Look(seconds);
    watch_.process = platform::ProcessWatch();
    Look(4.1);
    Look(5.3);
    EXPECT_EQ(SemaphoreValue(id_), 0);
    Look(5.4);
    EXPECT_EQ(SemaphoreValue(id_), 1);
    Look(5.5);
    EXPECT_EQ(slot_.nStateBits, 1U << DOWNLOAD_STATE_DOWNLOAD_FAIL);
    EXPECT_EQ(watch_.remark, "the worker died");
}

TEST_F(Supervised, WhatAWorkerHasLeftIsDeliveredByTheEnd) {
    const struct {
        std::uint32_t bits;
        std::int32_t nTaskKind;
        std::pair<int, double> call;
        const char* remark;
    } rows[] = {{0, 0, {8, 0}, "why"}, {1U << 3, 0, {3, 0}, ""}, {1U << 3, 1, {3, -1}, ""}};
    for (const auto& [bits, nTaskKind, call, remark] : rows) {
        std::pair<int, double> told;
        Renew(Stage::kEnded);
        slot_.nStateBits = bits;
        watch_.nTaskKind = nTaskKind;
        watch_.remark = "why";
        watch_.pCallbackParam = &told;
        watch_.pfnStateCallback = [](void* to, const char*, int nCode, double dValue, int) {
            *static_cast<std::pair<int, double>*>(to) = {nCode, dValue};
        };
        DeliverLast(watch_);
        EXPECT_EQ(told, call);
        EXPECT_EQ(watch_.remark, remark);
    }
}

// Its worker damages the slot, which showed a final code, before it ends.
TEST_F(Supervised, AFinalCodeThatWasTakenBackIsGivenAgain) {
    slot_.nStateBits = 1U << DOWNLOAD_STATE_DOWNLOAD_FINISH;
    Look(0);
    slot_.nStateBits = 0;
    slot_.nPid = getpid();
    SetField(slot_.szTaskID, "other");
    watch_.process = platform::ProcessWatch();
    Look(1);
    EXPECT_EQ(FieldText(slot_.szTaskID), id_);
    EXPECT_EQ(slot_.nStateBits, 1U << DOWNLOAD_STATE_DOWNLOAD_FAIL);
}

// Each pass is caused by the one before: with a wake-up or a code lost it would be the last one.
TEST_F(Supervised, EarlyPassesLoseNothingDoNotSpinAndAreNoShutdownPasses) {
    constexpr int kEarly = 50;
    auto* node = new tagTaskNode(id_.c_str());
    node->nTaskIndex = node->nTaskKind = 0;
    node->nCmd = TASK_CMD_DOWNLOAD;
    node->mutexLock = new Threading::Mutex(id_.c_str());
    node->pCallbackParam = &slot_;
    node->pfnStateCallback = [](void* slot, const char*, int, double, int) {
        static_cast<tagTaskContext*>(slot)->nStateBits = 1U << DOWNLOAD_STATE_SPEED;
        g_Exit = ++g_passes >= kEarly;
        EndScannerPause();
    };
    slot_.nStateBits = 1U << DOWNLOAD_STATE_SPEED;
    Threading::AutoLock map(&g_access_taskmap_mutex);
    g_TaskInfo_map.emplace(id_, node);
    map.UnLock();
    g_supervisor_runs = true;
    EXPECT_TRUE(StartScanner());
    EXPECT_TRUE(WaitUntil([] { return !ScannerRuns(); }));
    EXPECT_GE(Clock::now() - start_, (kEarly - 1) * timing::kPassFloor);
    EXPECT_EQ(g_passes, kEarly + timing::kShutdownPasses);
    EXPECT_EQ(g_sleeps, timing::kShutdownPasses + 1);
    g_Exit = g_supervisor_runs = false;
    delete node;
    map.Lock();
    g_TaskInfo_map.clear();
}

TEST_F(Supervised, ALateLookAtADiskDoesNotStopTheNextTask) {
    for (const bool next : {false, true}) {
        Renew(Stage::kClaimed);
        watch_.path = "/no-such-file";
        g_TaskFileSize[0] = 1e9;
        std::atomic<int> looks{0};
        g_look = [&](struct statvfs& disk) {
            if (looks++ > 0) disk.f_bfree = disk.f_bavail = 1'000'000'000;
            Threading::AutoLock hold(&g_watch_mutex);
            if (next) watch_.process = platform::ProcessWatch(getppid());
        };
        EXPECT_EQ(StartDiskWatch(), 0);
        EXPECT_TRUE(WaitUntil([&] { return looks > 0; }));
        EXPECT_TRUE(EndDiskWatch());
        EXPECT_EQ(watch_.stop.state, next ? Stop::kNo : Stop::kAsked);
    }
    g_look = nullptr;
}

TEST(Channel, WhatAWorkerSaidOfItsLastTaskIsForgottenWithTheNext) {
    Channel channel;
    Descriptor worker;
    ASSERT_EQ(channel.Open(worker), 0);
    send(worker.Get(), TASK_CHANNEL_IDLE, std::strlen(TASK_CHANNEL_IDLE), 0);
    EXPECT_TRUE(channel.Heard() && channel.SaysIdle());
    EXPECT_EQ(channel.Send("next"), 0);
    EXPECT_FALSE(channel.SaysIdle());
}

TEST(Throttle, ThreeFailuresWithinTenSecondsCloseTheManager) {
    Threading::AutoLock hold(&g_watch_mutex);
    const Clock::time_point start = Clock::now();
    for (const int seconds : {0, 6, 11, 15}) {
        EXPECT_EQ(g_refuse_until, Clock::time_point{}) << seconds;
        NoteFailedStart(start + std::chrono::seconds(seconds));
    }
    EXPECT_EQ(g_refuse_until, start + std::chrono::seconds(25));
    ForgetFailedStarts();
}

}  // namespace
