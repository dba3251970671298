// Downloads as an application does: bench_fetch WORKER URL FILE [URL FILE]..., eight at a time.
// Exits with status 0 when every task ended with code 3.
#include "driver.h"

using namespace driver;
using namespace std::chrono_literals;

int main(int argc, char** argv) {
    if (argc < 4) return 2;
    Start(argv[1]);
    int count = 0;
    for (int i = 2; i + 1 < argc; i += 2) {
        WaitUntil([] { return FreeSlotCount() > 0; }, 2ms);
        Add(argv[i], argv[i + 1]);
        ++count;
    }
    WaitUntil([&] { return g_ended == count; }, 2ms);
    EndTaskManager();
    return g_finished == count ? 0 : 1;
}
