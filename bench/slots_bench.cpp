// Processor time of what happens at the slots: the scanner's pass over tasks that have all
// reported, over their number, and the reports of a worker under its lock.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <ctime>
#include <string>

#include "Tarnwick/jobstate.h"
#include "Tarnwick/statereport.h"
#include "TaskMan/taskman.h"
#include "common/AutoLock.h"
#include "common/fieldtext.h"

namespace {

void OnState(void* /*param*/, const char* /*id*/, std::int32_t code, double, std::int32_t) {
    benchmark::DoNotOptimize(code);
}

// A section of this process, with `tasks` tasks in the map; this process is the worker of the
// first.
class Section {
  public:
    explicit Section(int tasks) : name_(SectionName(getpid())) {
        InitShareMem(&g_VideoInfoSection, name_.c_str());
        for (int i = 0; i < tasks; ++i) AddNode(i);
    }
    ~Section() {
        g_TaskInfo.mutexLock = nullptr;
        Threading::AutoLock map(&g_access_taskmap_mutex);
        for (const auto& [id, node] : g_TaskInfo_map) delete node;
        g_TaskInfo_map.clear();
        UnInitShareMem(&g_VideoInfoSection, name_.c_str());
        g_VideoInfoSection = {};
    }
    Section(const Section&) = delete;
    Section& operator=(const Section&) = delete;

  private:
    static void AddNode(int index) {
        const std::string id = MakeTaskID();
        auto* node = new tagTaskNode(id.c_str());
        node->mutexLock = new Threading::Mutex(id.c_str());
        node->nTaskIndex = index;
        node->nCmd = TASK_CMD_DOWNLOAD;
        node->nTaskKind = 0;
        node->pfnStateCallback = OnState;
        SetField(SlotAt(g_VideoInfoSection, index)->szTaskID, id);
        Threading::AutoLock map(&g_access_taskmap_mutex);
        g_TaskInfo_map.emplace(id, node);
        Threading::AutoLock count(&g_access_taskcount_mutex);
        g_TaskCount = ++g_DownloadCount;
        if (index != 0) return;
        g_TaskIndex = 0;
        SetField(g_TaskInfo.szTaskID, id);
        g_TaskInfo.mutexLock = node->mutexLock;
    }

    const std::string name_;
};

void ReportForAll(std::initializer_list<tagDownloadStateCode> codes) {
    Threading::AutoLock map(&g_access_taskmap_mutex);
    for (const auto& [id, node] : g_TaskInfo_map) {
        Threading::AutoLock hold(node->mutexLock);
        for (const auto code : codes) {
            SetStateBit(*SlotAt(g_VideoInfoSection, node->nTaskIndex), code);
        }
    }
}

double Seconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

constexpr int kPasses = 1000;

// What the scanner does in its pause here: it notes how long the pass took and lets all tasks
// report again, at last their ends.
struct Pause {
    int passes = 0;
    double seconds = 0.0;
    double began = 0.0;

    void Take() {
        seconds += Seconds() - began;
        if (++passes < kPasses) {
            ReportForAll({DOWNLOAD_STATE_DOWNLOAD_START, DOWNLOAD_STATE_PROGRESS,
                          DOWNLOAD_STATE_SPEED, DOWNLOAD_STATE_FILE_SIZE});
        } else {
            ReportForAll({DOWNLOAD_STATE_DOWNLOAD_FINISH});
        }
        began = Seconds();
    }
};

Pause g_pause;

}  // namespace

// In the place of the C library's.
unsigned sleep(unsigned /*seconds*/) {
    g_pause.Take();
    return 0;
}

namespace {

void ScannerPass(benchmark::State& state) {
    const int tasks = static_cast<int>(state.range(0));
    for (auto _ : state) {
        const Section section(tasks);
        pthread_t scanner{};
        pthread_create(&scanner, nullptr, StartScanData, nullptr);
        pthread_join(scanner, nullptr);
        state.SetIterationTime(g_pause.seconds / kPasses);
        g_pause = {};
    }
    state.SetComplexityN(tasks);
}

void ReportState(benchmark::State& state) {
    const Section section(1);
    for (auto _ : state) SendStateMSG(DOWNLOAD_STATE_DOWNLOAD_START);
}

void ReportProgress(benchmark::State& state) {
    const Section section(1);
    for (auto _ : state) ReportValue(&tagTaskContext::dProgress, 50.0, DOWNLOAD_STATE_PROGRESS);
}

void ReportText(benchmark::State& state) {
    const Section section(1);
    const std::string text(static_cast<std::size_t>(state.range(0)), 'x');
    for (auto _ : state) ReportInfoText(text);
}

BENCHMARK(ScannerPass)
    ->DenseRange(1, TASK_SLOT_COUNT)
    ->UseManualTime()
    ->Iterations(100)
    ->Complexity(benchmark::oN);
BENCHMARK(ReportState);
BENCHMARK(ReportProgress);
BENCHMARK(ReportText)->Arg(1000)->Arg(20000);

}  // namespace

BENCHMARK_MAIN();
