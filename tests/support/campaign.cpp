#include "support/campaign.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "common/AutoLock.h"
#include "common/fieldtext.h"

namespace test_support {
namespace {

std::size_t Entries(const char* directory) {
    const std::filesystem::directory_iterator all(directory);
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

platform::ProcessWatch WorkerOf(const std::string& id) {
    Threading::AutoLock hold(&g_access_taskmap_mutex);
    const auto found = g_TaskInfo_map.find(id);
    return platform::ProcessWatch(
        found == g_TaskInfo_map.end() ? -1 : g_WorkerPid[found->second->nTaskIndex].load());
}

}  // namespace

unsigned Setting(const char* name, unsigned otherwise) {
    const char* text = std::getenv(("TASKMAN_CAMPAIGN_" + std::string(name)).c_str());
    return text == nullptr ? otherwise : static_cast<unsigned>(std::strtoul(text, nullptr, 10));
}

unsigned Seed() {
    static const unsigned seed = Setting("SEED", std::random_device{}());
    std::printf("TASKMAN_CAMPAIGN_SEED=%u\n", seed);
    return seed;
}

double Course::Delay() const {
    return std::max(0.0, std::chrono::duration<double>(ended - died).count());
}

Campaign::Campaign(const std::string& worker) : before_(Held()) {
    struct sigaction reap {};
    reap.sa_handler = proc_child;
    reap.sa_flags = SA_RESTART | SA_NOCLDSTOP;
    sigaction(SIGCHLD, &reap, nullptr);
    std::string reason;
    EXPECT_EQ(0, StartTaskManager(worker.c_str(), directory_.Path().c_str(), reason)) << reason;
}

Campaign::~Campaign() {
    EXPECT_EQ(0, EndTaskManager());
    for (Course& course : courses_) {
        SCOPED_TRACE(course.id);
        EXPECT_EQ(1, course.finals);
        int value = 0;
        if (course.lock != SEM_FAILED) sem_getvalue(course.lock, &value);
        EXPECT_LE(value, 1);
        if (course.lock != SEM_FAILED) sem_close(course.lock);
        course.worker = platform::ProcessWatch();
        for (const std::string& name : platform::SharedMemoryNames()) {
            EXPECT_EQ(std::string::npos, name.find(course.id));
        }
    }
    WaitUntil([this] { return Held() == before_; });
    EXPECT_EQ(before_, Held());
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
    EXPECT_EQ(ECHILD, errno);
}

std::string Campaign::Held() {
    std::string held = std::to_string(Entries("/proc/self/task")) + " threads, " +
                       std::to_string(Entries("/proc/self/fd")) + " descriptors";
    for (const std::string& name : platform::SharedMemoryNames()) {
        if (name == SectionName(getpid())) held += ", " + name;
    }
    return held;
}

Course& Campaign::Add(const std::string& address, std::int32_t nCmd) {
    std::unique_lock hold(mutex_);
    Course& course = courses_.emplace_back();
    hold.unlock();
    tagTaskInfo task(course.id.c_str());
    const std::string url = address.find("http:") == 0 ? address : "http://fault/" + address;
    nCmd == TASK_CMD_PARSE ? SetField(task.szOrgUrl, url) : SetField(task.szDownloadUrl, url);
    SetField(task.szFilePath, Output(course));
    task.nCmd = nCmd;
    task.nTaskKind = 0;
    task.nTryCount = 3;
    task.nTryInterval = 0;
    task.pCallbackParam = &course;
    task.pfnStateCallback = OnState;
    task.pfnResultCallback = OnResult;
    // A full house and a manager that refuses tasks for a while both pass.
    std::string reason;
    EXPECT_TRUE(WaitUntil([&] {
        if (AddTask(task, reason) == 0) return true;
        if (reason == "all slots are taken") return false;
        ++refusals_;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        return false;
    })) << reason;
    course.added = Clock::now();
    course.worker = WorkerOf(course.id);
    course.lock = sem_open(course.id.c_str(), 0);
    return course;
}

void Campaign::Follow(Course& course) {
    EXPECT_TRUE(WaitUntil([&] { return course.worker.Gone(); })) << course.id;
    course.died = Clock::now();
    EXPECT_TRUE(WaitUntil([&] { return course.finals > 0; })) << course.id;
}

void Campaign::OnState(void* param, const char* id, std::int32_t code, double, std::int32_t) {
    if ((FINAL_STATE_BITS >> code & 1U) == 0) return;
    Course& course = *static_cast<Course*>(param);
    if (course.finals == 0) {
        course.ended = Clock::now();
        course.code = code;
        course.remark = TaskRemark(id);
    }
    ++course.finals;
}

void Campaign::OnResult(void* param, const char* id, std::int32_t code, const char*,
                        std::uint32_t) {
    OnState(param, id, code, 0.0, 0);
}

}  // namespace test_support
