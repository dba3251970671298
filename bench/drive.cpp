// Drives the manager as an application does, with nothing of the command around it.
//
//   bench_drive fetch WORKER URL FILE [URL FILE]...
//       Downloads, eight at a time. Exits with status 0 when every task ended with code 3.
//   bench_drive measure WORKER TURNS
//       Prints, as a table, what the manager adds to a task, and how long curl takes to start.
#include <arpa/inet.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "TaskMan/taskman.h"
#include "common/fieldtext.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

std::atomic<int> g_ended{0};
std::atomic<int> g_finished{0};

void OnState(void* /*param*/, const char* /*id*/, std::int32_t code, double, std::int32_t) {
    if ((FINAL_STATE_BITS >> code & 1U) == 0) return;
    if (code == DOWNLOAD_STATE_DOWNLOAD_FINISH) ++g_finished;
    ++g_ended;
}

void Require(bool holds, const std::string& reason) {
    if (holds) return;
    std::fprintf(stderr, "bench_drive: %s\n", reason.c_str());
    std::exit(1);
}

void Start(const char* worker) {
    struct sigaction reap {};
    reap.sa_handler = proc_child;
    reap.sa_flags = SA_RESTART | SA_NOCLDSTOP;
    sigaction(SIGCHLD, &reap, nullptr);
    std::string reason;
    Require(StartTaskManager(worker, "", reason) == 0, reason);
}

void Add(const std::string& url, const std::string& path) {
    tagTaskInfo task(MakeTaskID().c_str());
    task.nCmd = TASK_CMD_DOWNLOAD;
    task.nTaskKind = 0;
    SetField(task.szDownloadUrl, url);
    SetField(task.szFilePath, path);
    task.pfnStateCallback = OnState;
    std::string reason;
    Require(AddTask(task, reason) == 0, reason);
}

template <class Condition>
void WaitUntil(Condition condition, Clock::duration pause = 20ms) {
    while (!condition()) std::this_thread::sleep_for(pause);
}

int Fetch(const std::vector<std::string>& urlsAndFiles) {
    const int count = static_cast<int>(urlsAndFiles.size() / 2);
    for (std::size_t i = 0; i + 1 < urlsAndFiles.size(); i += 2) {
        WaitUntil([] { return FreeSlotCount() > 0; });
        Add(urlsAndFiles[i], urlsAndFiles[i + 1]);
    }
    WaitUntil([&] { return g_ended == count; });
    EndTaskManager();
    return g_finished == count ? 0 : 1;
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

bool FinalCodeInSlot() {
    for (int i = 0; i < TASK_SLOT_COUNT; ++i) {
        const volatile tagTaskContext* slot = SlotAt(g_VideoInfoSection, i);
        if ((slot->nStateBits & FINAL_STATE_BITS) != 0) return true;
    }
    return false;
}

// One small task from start to end: milliseconds to its first request, and from its final code to
// the callback.
void RunTask(const Server& server, std::vector<double>& request, std::vector<double>& callback) {
    const int ended = g_ended;
    const Clock::time_point added = Clock::now();
    Add(server.Url("/small"), "/dev/null");
    request.push_back(Milliseconds(server.Request() - added).count());
    WaitUntil([&] { return FinalCodeInSlot() || g_ended > ended; }, 100us);
    const Clock::time_point final = Clock::now();
    WaitUntil([&] { return g_ended > ended; }, 100us);
    callback.push_back(Milliseconds(Clock::now() - final).count());
    server.Request();  // the first was for the size
    WaitUntil([] { return FreeSlotCount() == TASK_SLOT_COUNT; });
}

// Milliseconds from the start of curl to its request; 0 when there is no curl.
double RunCurl(const Server& server) {
    std::string url = server.Url("/small");
    std::string words[] = {"curl", "-s", "-o", "/dev/null"};
    char* arguments[] = {words[0].data(), words[1].data(), words[2].data(),
                         words[3].data(), url.data(),      nullptr};
    pid_t pid = 0;
    const Clock::time_point started = Clock::now();
    if (posix_spawnp(&pid, "curl", nullptr, nullptr, arguments, environ) != 0) return 0.0;
    const double passed = Milliseconds(server.Request() - started).count();
    WaitUntil([&] { return kill(pid, 0) != 0; });
    return passed;
}

double ProcessorMilliseconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

// Percent of a processor that this process uses while eight workers report once a second. Ends the
// manager.
double IdleShare(const Server& server) {
    constexpr auto kSpan = 10s;
    std::vector<std::string> paths;
    for (int i = 0; i < TASK_SLOT_COUNT; ++i) {
        paths.push_back("/tmp/" + MakeTaskID());
        Add(server.Url("/long"), paths.back());
    }
    std::this_thread::sleep_for(3s);
    const double before = ProcessorMilliseconds();
    std::this_thread::sleep_for(kSpan);
    const double used = ProcessorMilliseconds() - before;
    EndTaskManager();
    for (const std::string& path : paths) unlink(path.c_str());
    return 100.0 * used / Milliseconds(kSpan).count();
}

void Print(const char* what, std::vector<double> values, const char* unit) {
    std::sort(values.begin(), values.end());
    std::printf("| %s | %.1f (%.1f-%.1f)%s |\n", what, values[values.size() / 2], values.front(),
                values.back(), unit);
}

int Measure(const Server& server, int turns) {
    std::vector<double> worker, curl, ratio, callback;
    for (int i = 0; i < turns; ++i) {
        RunTask(server, worker, callback);
        curl.push_back(RunCurl(server));
        ratio.push_back(worker.back() / curl.back());
    }
    const double share = IdleShare(server);
    std::puts("| what a manager adds | median (least-most) |\n|---|--:|");
    Print("from AddTask to the worker's first request", worker, " ms");
    if (curl.front() > 0.0) {
        Print("from the start of curl to its request", curl, " ms");
        Print("the first to the second, turn by turn", ratio, "");
    }
    Print("from the final code in the slot to the callback", callback, " ms");
    std::printf("| processor time of a manager with eight running tasks | %.2f %% of one |\n",
                share);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) return 2;
    const std::string_view what = argv[1];
    if (what == "measure") {
        const Server server;
        Start(argv[2]);
        return Measure(server, std::max(1, std::atoi(argv[3])));
    }
    Start(argv[2]);
    return Fetch({argv + 3, argv + argc});
}
