// How long manager, worker and application wait for each other, and what an idle manager costs.
//
//   bench_waits WORKER TURNS [ROW]...
//
// Prints a line of a Markdown table for each row named, or for all: request, large, callback,
// death, end, idle.
#include <arpa/inet.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string_view>
#include <vector>

#include "TaskMan/taskman.h"
#include "driver.h"

namespace {

using namespace driver;
using namespace std::chrono_literals;
using Milliseconds = std::chrono::duration<double, std::milli>;
constexpr auto kPause = 100us;
using Values = std::vector<double>;

double Since(Clock::time_point begin) {
    return Milliseconds(Clock::now() - begin).count();
}

// A server in a process of its own, which ends with this one. It answers /long without end.
class Server {
  public:
    Server() {
        const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        socklen_t length = sizeof address;
        int times[2];
        Require(bind(listener, generic, length) == 0 && listen(listener, 64) == 0 &&
                    getsockname(listener, generic, &length) == 0 && pipe2(times, O_CLOEXEC) == 0,
                "no server");
        address_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
        times_ = times[0];
        if (fork() != 0) return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (;;) std::thread(Serve, accept(listener, nullptr, nullptr), times[1]).detach();
    }

    std::string Url(const char* path) const { return address_ + path; }

    // Waits for the next request; when it came.
    Clock::time_point Request() const {
        Clock::time_point when;
        Require(read(times_, &when, sizeof when) == sizeof when, "the server has ended");
        return when;
    }

  private:
    static void Serve(int connection, int times) {
        char request[4096];
        const ssize_t got = read(connection, request, sizeof request);
        const Clock::time_point now = Clock::now();
        if (got <= 0 || write(times, &now, sizeof now) < 0) return;
        const bool endless =
            std::string_view(request, static_cast<std::size_t>(got)).starts_with("GET /long");
        std::string block =
            endless ? "HTTP/1.1 200 OK\r\nContent-Length: 1073741824\r\n\r\n"
                    : "HTTP/1.1 200 OK\r\nContent-Length: 1\r\nConnection: close\r\n\r\nx";
        while (send(connection, block.data(), block.size(), MSG_NOSIGNAL) > 0 && endless) {
            block.assign(16384, 'x');
            std::this_thread::sleep_for(100ms);
        }
        close(connection);
    }

    std::string address_;
    int times_;
};

void Print(const char* what, Values values, const char* unit) {
    std::sort(values.begin(), values.end());
    std::printf("| %s | %.2f (%.2f-%.2f)%s |\n", what, values[values.size() / 2], values.front(),
                values.back(), unit);
}

void AwaitFreeSlots() {
    WaitUntil([] { return FreeSlotCount() == TASK_SLOT_COUNT; }, kPause);
}

bool FinalCodeInSlot() {
    for (int i = 0; i < TASK_SLOT_COUNT; ++i) {
        const volatile tagTaskContext* slot = SlotAt(g_VideoInfoSection, i);
        if ((slot->nStateBits & FINAL_STATE_BITS) != 0) return true;
    }
    return false;
}

// One small task from start to end. Milliseconds to its first request, and from its final code to
// the callback.
struct Task {
    double request;
    double callback;
};
Task RunTask(const Server& server) {
    const int ended = g_ended;
    const Clock::time_point added = Clock::now();
    Add(server.Url("/small"), "/dev/null");
    const double request = Milliseconds(server.Request() - added).count();
    WaitUntil([&] { return FinalCodeInSlot() || g_ended > ended; }, kPause);
    const Clock::time_point final = Clock::now();
    WaitUntil([&] { return g_ended > ended; }, kPause);
    const double callback = Since(final);
    server.Request();  // the first was for the size
    AwaitFreeSlots();
    return {request, callback};
}

// Milliseconds from the start of curl to its request.
double RunCurl(const Server& server) {
    std::string url = server.Url("/small");
    std::string words[] = {"curl", "-s", "-o", "/dev/null"};
    char* arguments[] = {words[0].data(), words[1].data(), words[2].data(),
                         words[3].data(), url.data(),      nullptr};
    pid_t pid = 0;
    const Clock::time_point started = Clock::now();
    Require(posix_spawnp(&pid, "curl", nullptr, nullptr, arguments, environ) == 0, "no curl");
    const double passed = Milliseconds(server.Request() - started).count();
    WaitUntil([&] { return kill(pid, 0) != 0; }, kPause);
    return passed;
}

void MeasureRequest(const Server& server, int turns) {
    Values worker, curl, ratio;
    for (int i = 0; i < turns; ++i) {
        worker.push_back(RunTask(server).request);
        curl.push_back(RunCurl(server));
        ratio.push_back(worker.back() / curl.back());
    }
    Print("from AddTask to the worker's first request", worker, " ms");
    Print("from the start of curl to its request", curl, " ms");
    Print("the first to the second, turn by turn", ratio, "");
}

// The same in an application that has 500 MiB of its own, in pages of 4 KiB.
void MeasureLarge(const Server& server, int turns) {
    constexpr std::size_t kSize = std::size_t{500} << 20;
    Values large, ratio;
    for (int i = 0; i < turns; ++i) {
        const double small = RunTask(server).request;
        void* memory =
            mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        Require(memory != MAP_FAILED, "no memory");
        madvise(memory, kSize, MADV_NOHUGEPAGE);
        std::memset(memory, 1, kSize);
        large.push_back(RunTask(server).request);
        munmap(memory, kSize);
        ratio.push_back(large.back() / small);
    }
    Print("from AddTask to the first request, in an application of 500 MiB", large, " ms");
    Print("the same to that in a small application, turn by turn", ratio, "");
}

void MeasureCallback(const Server& server, int turns) {
    Values callback;
    for (int i = 0; i < turns; ++i) callback.push_back(RunTask(server).callback);
    Print("from the final code in the slot to the callback", callback, " ms");
}

void KillWorkers() {
    for (const std::atomic<pid_t>& worker : g_WorkerPid) {
        if (const pid_t pid = worker; pid > 0) kill(pid, SIGKILL);
    }
}

std::string AddLong(const Server& server) {
    std::string path = "/tmp/" + MakeTaskID();
    Add(server.Url("/long"), path);
    server.Request();  // for the size
    server.Request();
    return path;
}

void MeasureDeath(const Server& server, int turns) {
    Values callback;
    for (int i = 0; i < turns; ++i) {
        const int ended = g_ended;
        const std::string path = AddLong(server);
        std::this_thread::sleep_for(100ms + 137ms * (i % 8));  // anywhere between two passes
        const Clock::time_point killed = Clock::now();
        KillWorkers();
        WaitUntil([&] { return g_ended > ended; }, kPause);
        callback.push_back(Since(killed));
        unlink(path.c_str());
        AwaitFreeSlots();
    }
    Print("from the death of a worker to the callback", callback, " ms");
}

void MeasureEnd(const char* worker, int turns) {
    Values ends;
    for (int i = 0; i < turns; ++i) {
        const Clock::time_point begin = Clock::now();
        EndTaskManager();
        ends.push_back(Since(begin));
        Start(worker);
    }
    Print("EndTaskManager with no task", ends, " ms");
}

double ProcessorMilliseconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

void MeasureIdle(const Server& server) {
    constexpr auto kSpan = 10s;
    std::vector<std::string> paths;
    for (int i = 0; i < TASK_SLOT_COUNT; ++i) paths.push_back(AddLong(server));
    std::this_thread::sleep_for(3s);
    const double before = ProcessorMilliseconds();
    std::this_thread::sleep_for(kSpan);
    const double used = ProcessorMilliseconds() - before;
    std::printf("| processor time of a manager with eight running tasks | %.2f %% of one |\n",
                100.0 * used / Milliseconds(kSpan).count());
    KillWorkers();
    AwaitFreeSlots();
    for (const std::string& path : paths) unlink(path.c_str());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return 2;
    const std::vector<std::string_view> rows(argv + 3, argv + argc);
    const auto wanted = [&rows](std::string_view row) {
        return rows.empty() || std::find(rows.begin(), rows.end(), row) != rows.end();
    };
    const int turns = std::max(1, std::atoi(argv[2]));
    const Server server;
    Start(argv[1]);
    if (wanted("request")) MeasureRequest(server, turns);
    if (wanted("large")) MeasureLarge(server, turns);
    if (wanted("callback")) MeasureCallback(server, turns);
    if (wanted("death")) MeasureDeath(server, turns);
    if (wanted("end")) MeasureEnd(argv[1], turns);
    if (wanted("idle")) MeasureIdle(server);
    EndTaskManager();
    return 0;
}
