// Downloads a list of files as an application of the manager does, eight at a time and with
// nothing of the command around it. Usage: bench_drive WORKER URL FILE [URL FILE]... Exits with
// status 0 when every task ended with code 3.
#include <cstdio>

#include "application.h"

int main(int argc, char** argv) {
    if (argc < 4) return 2;
    std::string reason;
    int added = 0;
    bool sound = Start(argv[1], reason);
    for (int i = 2; sound && i + 1 < argc; i += 2) {
        WaitUntil([] { return FreeSlotCount() > 0; });
        sound = Add(argv[i], argv[i + 1], reason);
        if (sound) ++added;
    }
    WaitUntil([&] { return g_ended == added; });
    EndTaskManager();
    if (!sound) std::fprintf(stderr, "bench_drive: %s\n", reason.c_str());
    return sound && g_finished == added ? 0 : 1;
}
