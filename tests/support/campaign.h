// A manager under many tasks at once, and what became of each of them.
#pragma once

#include <csignal>
#include <list>
#include <mutex>

#include "TaskMan/taskman.h"
#include "common/AutoLock.h"
#include "common/fieldtext.h"
#include "common/platform.h"
#include "support/helpers.h"

namespace test_support {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;
using std::chrono::milliseconds;

// A number of the environment, TASKMAN_CAMPAIGN_ and `name`; `otherwise` where there is none.
inline unsigned Setting(const char* name, unsigned otherwise) {
    const char* text = std::getenv(("TASKMAN_CAMPAIGN_" + std::string(name)).c_str());
    return text == nullptr ? otherwise : static_cast<unsigned>(std::strtoul(text, nullptr, 10));
}

// Random choices of the part `number` of a campaign. What they begin with is printed, so that a run
// can be repeated.
inline std::minstd_rand Random(std::size_t number) {
    static const unsigned seed = Setting("SEED", std::random_device{}());
    if (number == 0) std::printf("TASKMAN_CAMPAIGN_SEED=%u\n", seed);
    std::minstd_rand random(seed + static_cast<unsigned>(number) * 7919);
    random.discard(10);
    return random;
}

inline void SleepUpTo(std::minstd_rand& random, microseconds most) {
    std::this_thread::sleep_for(most * random() / random.max());
}

// One task. What its callback writes is valid once `finals` is not 0.
struct Course {
    std::string id;
    platform::ProcessWatch worker;
    sem_t* lock = SEM_FAILED;
    Clock::time_point added, died, ended;
    int code = -1;
    std::string remark;
    tagTaskAnswer answer;
    std::atomic<int> finals{0};
};

// Runs a manager whose worker is fault_worker.cpp. At its end every task must have had one final
// callback and nothing may be left: no process, thread, descriptor or name, and no lock that two
// could take. The calls between may come from any thread.
class Campaign {
  public:
    explicit Campaign(const char* worker = FAULT_WORKER_PATH) {
        std::thread([] {}).join();  // a race detector has a thread too, from the first one on
        const std::string threads = NamesIn("/proc/self/task");
        std::string reason;
        StartTaskManager(worker, "", reason);  // the first one leaves a descriptor
        EndTaskManager();
        WaitUntil([&] { return NamesIn("/proc/self/task") == threads; });
        before_ = Held();
        struct sigaction reap {};
        reap.sa_handler = proc_child;
        reap.sa_flags = SA_RESTART | SA_NOCLDSTOP;
        sigaction(SIGCHLD, &reap, nullptr);
        EXPECT_EQ(0, StartTaskManager(worker, "", reason)) << reason;
    }

    ~Campaign() {
        if (!ended_) End();
        for (Course& course : courses_) {
            EXPECT_EQ(1, course.finals);
            course.worker = platform::ProcessWatch();
            if (course.lock == SEM_FAILED) continue;
            int value = 0;
            sem_getvalue(course.lock, &value);
            EXPECT_LE(value, 1);
            sem_close(course.lock);
        }
        WaitUntil([this] { return Held() == before_; });
        EXPECT_EQ(before_, Held());
        EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "a worker is left";
    }

    void End() {
        ended_ = true;
        EXPECT_EQ(0, EndTaskManager());
    }

    // A download of `address` into Output(). Without "http:" it is what a fault worker does.
    tagTaskInfo Task(const std::string& address, const std::string& id = MakeTaskID()) const {
        tagTaskInfo task(id.c_str());
        SetField(task.szDownloadUrl,
                 address.find("http:") == 0 ? address : "http://fault/" + address);
        SetField(task.szFilePath, directory_.Path(id));
        task.nCmd = TASK_CMD_DOWNLOAD;
        task.nTaskKind = task.nTryInterval = 0;
        task.nBlockCount = 1;
        task.pfnStateCallback = OnState;
        return task;
    }

    Course& Add(const std::string& address) { return Add(Task(address)); }

    // With a request, an extended task.
    Course& Add(tagTaskInfo task, const tagTaskRequest* request = nullptr) {
        std::unique_lock hold(mutex_);
        Course& course = courses_.emplace_back();
        hold.unlock();
        course.id = FieldText(task.szTaskID);
        task.pCallbackParam = &course;
        // A full house passes, and so does the time in which no task is taken because three workers
        // have ended without taking theirs.
        std::string reason;
        EXPECT_TRUE(WaitUntil([&] {
            return (request ? AddTask(task, *request, reason) : AddTask(task, reason)) == 0;
        })) << reason;
        course.added = Clock::now();
        course.lock = sem_open(course.id.c_str(), 0);
        Threading::AutoLock map(&g_access_taskmap_mutex);
        const auto found = g_TaskInfo_map.find(course.id);
        if (found == g_TaskInfo_map.end()) return course;
        course.worker = platform::ProcessWatch(g_WorkerPid[found->second->nTaskIndex]);
        return course;
    }

    // Waits for the worker's death and for the final callback.
    static void Follow(Course& course) {
        EXPECT_TRUE(WaitUntil([&] { return course.worker.Gone(); })) << course.id;
        course.died = Clock::now();
        EXPECT_TRUE(WaitUntil([&] { return course.finals > 0; })) << course.id;
    }

    std::string Output(const Course& course) const { return directory_.Path(course.id); }

  private:
    static void OnState(void* param, const char* id, std::int32_t code, double, std::int32_t) {
        if ((FINAL_STATE_BITS >> code & 1U) == 0) return;
        Course& course = *static_cast<Course*>(param);
        if (course.finals == 0) {
            course.ended = Clock::now();
            course.code = code;
            course.remark = TaskRemark(id);
            TaskAnswer(id, course.answer);
        }
        ++course.finals;
    }

    // What this process has of things that may leak: threads, descriptors, names.
    static std::string Held() {
        std::string held = NamesIn("/proc/self/task") + "; " + NamesIn("/proc/self/fd");
        const std::string lock = "sem." + MakeTaskID().substr(0, 6);  // the process id
        for (const std::string& name : platform::SharedMemoryNames()) {
            if (name == SectionName(getpid()) || name.find(lock) == 0) held += ", " + name;
        }
        return held;
    }

    bool ended_ = false;
    std::string before_;
    const TempDir directory_;
    std::mutex mutex_;  // guards the list
    std::list<Course> courses_;
};

}  // namespace test_support
