// Processor time of what happens at the slots: the scanner's pass over tasks that have all
// reported, over their number, and the reports of a worker under its lock.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "Tarnwick/jobstate.h"
#include "Tarnwick/statereport.h"
#include "TaskMan/taskman.h"
#include "common/AutoLock.h"
#include "common/fieldtext.h"

namespace {

std::atomic<int> g_answers{0};

void OnState(void* /*param*/, const char* /*id*/, std::int32_t code, double /*value*/,
             std::int32_t /*kind*/) {
    // The last report of a busy second, or of the task.
    if (code == DOWNLOAD_STATE_FILE_SIZE || code == DOWNLOAD_STATE_DOWNLOAD_FINISH) ++g_answers;
}

// A section of this process, with `tasks` tasks in its slots and in the map.
class Section {
  public:
    explicit Section(int tasks) : name_(SectionName(getpid())) {
        InitShareMem(&g_VideoInfoSection, name_.c_str());
        for (int i = 0; i < tasks; ++i) AddNode(i);
    }
    ~Section() {
        for (const auto& [id, node] : g_TaskInfo_map) delete node;
        g_TaskInfo_map.clear();
        UnInitShareMem(&g_VideoInfoSection, name_.c_str());
        g_VideoInfoSection = {};
    }
    Section(const Section&) = delete;
    Section& operator=(const Section&) = delete;

    void Report(std::initializer_list<tagDownloadStateCode> codes) const {
        for (const tagTaskNode* node : nodes_) {
            Threading::AutoLock hold(node->mutexLock);
            for (const auto code : codes) {
                SetStateBit(*SlotAt(g_VideoInfoSection, node->nTaskIndex), code);
            }
        }
    }

  private:
    void AddNode(int index) {
        const std::string id = MakeTaskID();
        auto* node = new tagTaskNode(id.c_str());
        node->mutexLock = new Threading::Mutex(id.c_str());
        node->nTaskIndex = index;
        node->nCmd = TASK_CMD_DOWNLOAD;
        node->nTaskKind = 0;
        node->pfnStateCallback = OnState;
        SetField(SlotAt(g_VideoInfoSection, index)->szTaskID, id);
        g_TaskInfo_map.emplace(id, node);
        g_TaskCount = ++g_DownloadCount;
        nodes_.push_back(node);
    }

    const std::string name_;
    std::vector<const tagTaskNode*> nodes_;  // the scanner's
};

double Seconds(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Wakes the scanner out of its pause and waits until it has called back for `tasks` tasks. Wakes it
// again when it was not pausing yet.
void WaitForPass(pthread_t scanner, int tasks) {
    while (g_answers < tasks) {
        pthread_kill(scanner, SIGUSR1);
        const double again = Seconds(CLOCK_MONOTONIC) + 0.001;
        while (g_answers < tasks && Seconds(CLOCK_MONOTONIC) < again) std::this_thread::yield();
    }
    g_answers = 0;
}

void ScannerPass(benchmark::State& state) {
    const int tasks = static_cast<int>(state.range(0));
    const Section section(tasks);
    struct sigaction wake {};
    wake.sa_handler = [](int) {};
    sigaction(SIGUSR1, &wake, nullptr);
    pthread_t scanner{};
    g_ScanThradIsExit = false;
    pthread_create(&scanner, nullptr, StartScanData, nullptr);
    clockid_t clock{};
    pthread_getcpuclockid(scanner, &clock);
    for (auto _ : state) {
        section.Report({DOWNLOAD_STATE_DOWNLOAD_START, DOWNLOAD_STATE_PROGRESS,
                        DOWNLOAD_STATE_SPEED, DOWNLOAD_STATE_FILE_SIZE});
        const double before = Seconds(clock);
        WaitForPass(scanner, tasks);
        state.SetIterationTime(Seconds(clock) - before);
    }
    section.Report({DOWNLOAD_STATE_DOWNLOAD_FINISH});
    WaitForPass(scanner, tasks);
    pthread_join(scanner, nullptr);
    state.SetComplexityN(tasks);
}

// The parts of a worker that its reports need.
class Worker {
  public:
    Worker() {
        g_TaskIndex = 0;
        SetField(g_TaskInfo.szTaskID, FieldView(SlotAt(g_VideoInfoSection, 0)->szTaskID));
        g_TaskInfo.mutexLock = new Threading::Mutex(g_TaskInfo.szTaskID);
    }
    ~Worker() {
        delete g_TaskInfo.mutexLock;
        g_TaskInfo.mutexLock = nullptr;
    }
};

void ReportState(benchmark::State& state) {
    const Section section(1);
    const Worker worker;
    for (auto _ : state) SendStateMSG(DOWNLOAD_STATE_DOWNLOAD_START);
}

void ReportProgress(benchmark::State& state) {
    const Section section(1);
    const Worker worker;
    for (auto _ : state) ReportValue(&tagTaskContext::dProgress, 50.0, DOWNLOAD_STATE_PROGRESS);
}

void ReportText(benchmark::State& state) {
    const Section section(1);
    const Worker worker;
    const std::string text(static_cast<std::size_t>(state.range(0)), 'x');
    for (auto _ : state) ReportInfoText(text);
}

BENCHMARK(ScannerPass)
    ->DenseRange(1, TASK_SLOT_COUNT)
    ->UseManualTime()
    ->MinTime(0.1)
    ->Complexity(benchmark::oN);
BENCHMARK(ReportState);
BENCHMARK(ReportProgress);
BENCHMARK(ReportText)->Arg(1000)->Arg(20000);

}  // namespace

BENCHMARK_MAIN();
