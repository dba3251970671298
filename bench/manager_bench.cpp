// What the manager adds to a task, as a table: from AddTask to the worker's first request, beside
// the same of the command curl; from the final code in the slot to the callback; and the processor
// time of a manager whose eight tasks are all running. Usage: manager_bench WORKER [TURNS]
#include <arpa/inet.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "application.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr std::string_view kSmall =
    "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nConnection: close\r\n\r\nok";
constexpr std::string_view kLong = "HTTP/1.1 200 OK\r\nContent-Length: 1073741824\r\n\r\n";

// Answers one request, after telling `times` when it came: in full, or for /long without end.
void Serve(int connection, int times) {
    char request[4096];
    const ssize_t got = read(connection, request, sizeof request);
    const Clock::time_point now = Clock::now();
    if (got <= 0 || write(times, &now, sizeof now) < 0) return;
    const bool small =
        !std::string_view(request, static_cast<std::size_t>(got)).starts_with("GET /long");
    std::string_view block = small ? kSmall : kLong;
    const std::string body(16384, 'x');
    while (send(connection, block.data(), block.size(), MSG_NOSIGNAL) > 0 && !small) {
        block = body;
        std::this_thread::sleep_for(100ms);
    }
    close(connection);
}

// A server in a process of its own, which ends with this one.
struct Server {
    Server() {
        const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        socklen_t length = sizeof address;
        int times[2];
        if (bind(listener, generic, length) != 0 || listen(listener, 64) != 0 ||
            getsockname(listener, generic, &length) != 0 || pipe2(times, O_CLOEXEC) != 0) {
            std::exit(1);
        }
        address_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
        times_ = times[0];
        if (fork() != 0) return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (;;) std::thread(Serve, accept(listener, nullptr, nullptr), times[1]).detach();
    }

    // When the next request came.
    Clock::time_point Request() const {
        Clock::time_point when;
        if (read(times_, &when, sizeof when) != sizeof when) std::exit(1);
        return when;
    }

    std::string address_;
    int times_;
};

bool FinalCodeInSlot() {
    for (int i = 0; i < TASK_SLOT_COUNT; ++i) {
        const auto* slot = SlotAt(g_VideoInfoSection, i);
        const std::uint32_t bits = *const_cast<const volatile std::uint32_t*>(&slot->nStateBits);
        if ((bits & FINAL_STATE_BITS) != 0) return true;
    }
    return false;
}

void Print(const char* what, std::vector<double> values, const char* unit) {
    std::sort(values.begin(), values.end());
    std::printf("| %s | %.1f (%.1f-%.1f) %s |\n", what, values[values.size() / 2], values.front(),
                values.back(), unit);
}

double ProcessorMilliseconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

[[noreturn]] void Refused(const std::string& reason) {
    std::fprintf(stderr, "manager_bench: %s\n", reason.c_str());
    std::exit(1);
}

// One small task from start to end: milliseconds to its first request, and from its final code to
// the callback.
void RunTask(const Server& server, std::vector<double>& toRequest,
             std::vector<double>& toCallback) {
    std::string reason;
    const int ended = g_ended;
    const Clock::time_point added = Clock::now();
    if (!Add(server.address_ + "/small", "/dev/null", reason)) Refused(reason);
    toRequest.push_back(Milliseconds(server.Request() - added).count());
    WaitUntil([&] { return FinalCodeInSlot() || g_ended > ended; }, 100us);
    const Clock::time_point final = Clock::now();
    WaitUntil([&] { return g_ended > ended; }, 100us);
    toCallback.push_back(Milliseconds(Clock::now() - final).count());
    server.Request();  // the probe's was the first
    WaitUntil([] { return FreeSlotCount() == TASK_SLOT_COUNT; });
}

// Milliseconds from the start of curl to its request; negative when there is no curl.
double RunCurl(const Server& server) {
    const std::string url = server.address_ + "/small";
    const char* arguments[] = {"curl", "-s", "-o", "/dev/null", url.c_str(), nullptr};
    pid_t pid = 0;
    const Clock::time_point started = Clock::now();
    if (posix_spawnp(&pid, "curl", nullptr, nullptr, const_cast<char**>(arguments), environ) != 0) {
        return -1.0;
    }
    const double passed = Milliseconds(server.Request() - started).count();
    WaitUntil([&] { return kill(pid, 0) != 0; });
    return passed;
}

// Percent of a processor that this process uses while eight workers report once a second.
double IdleShare(const Server& server) {
    std::string reason;
    std::vector<std::string> paths;
    for (int i = 0; i < TASK_SLOT_COUNT; ++i) {
        paths.push_back("/tmp/" + MakeTaskID());
        if (!Add(server.address_ + "/long", paths.back().c_str(), reason)) Refused(reason);
    }
    constexpr auto kSpan = 10s;
    std::this_thread::sleep_for(3s);
    const double before = ProcessorMilliseconds();
    std::this_thread::sleep_for(kSpan);
    const double used = ProcessorMilliseconds() - before;
    EndTaskManager();
    for (const std::string& path : paths) unlink(path.c_str());
    return 100.0 * used / Milliseconds(kSpan).count();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    const int turns = argc > 2 ? std::max(1, std::atoi(argv[2])) : 15;
    const Server server;
    std::string reason;
    if (!Start(argv[1], reason)) Refused(reason);
    std::vector<double> worker, curl, ratio, callback;
    for (int i = 0; i < turns; ++i) {
        RunTask(server, worker, callback);
        curl.push_back(RunCurl(server));
        ratio.push_back(worker.back() / curl.back());
    }
    const double share = IdleShare(server);
    std::puts("| what a manager adds | median (least-most) |\n|---|--:|");
    Print("from AddTask to the worker's first request", worker, "ms");
    if (curl.front() >= 0.0) {
        Print("from the start of curl to its request", curl, "ms");
        Print("the first to the second, turn by turn", ratio, "");
    }
    Print("from the final code in the slot to the callback", callback, "ms");
    std::printf("| processor time of a manager with eight running tasks | %.2f %% of one |\n",
                share);
}
