// A transfer of the worker's engine alone, without section and manager. Usage:
//
//   bench_engine URL FILE [CONNECTIONS [CONTINUE [TRIES]]]
//
// CONTINUE is 1 to go on with what is in FILE and to keep a record beside it. Prints the answer's
// text; the exit status is 0 when the file is complete, 1 when it is not, 2 after SIGTERM.
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "Tarnwick/engine/transfer.h"
#include "Tarnwick/transfer.h"

namespace {

volatile std::sig_atomic_t g_stop = 0;

class Console : public engine::Watcher {
  public:
    bool EndAsked() override { return g_stop != 0; }
    void Known(std::uint64_t size, const tagTaskAnswer& answer) override {
        std::printf("size=%lld had=%llu %s\n", static_cast<long long>(size),
                    static_cast<unsigned long long>(answer.uHad), answer.strMessage.c_str());
    }
    void Progress(std::uint64_t, std::uint64_t, std::uint64_t) override {}
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return 2;
    std::signal(SIGTERM, [](int) { g_stop = 1; });
    IgnoreEnvironment();
    LoadCurlLib();
    engine::Task task;
    task.url = argv[1];
    task.path = argv[2];
    task.userAgent = "bench";
    if (argc > 3) task.connections = std::atoi(argv[3]);
    task.keeps = argc > 4 && *argv[4] == '1';
    if (argc > 5) task.tries = std::atoi(argv[5]);
    Console console;
    const engine::Result result = engine::Fetch(task, console);
    std::fputs(EncodeAnswer(result.answer).c_str(), stdout);
    return static_cast<int>(result.end);
}
