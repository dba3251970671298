// tarnwick: carries out one task of a task manager and exits with status 0 whatever the outcome,
// which it reports in the task's slot. A task may ask for it to wait for another one.
//
//   tarnwick TASK_ID SLOT_INDEX MANAGER_PID
#include <cstdlib>

#include "Tarnwick/jobstate.h"
#include "Tarnwick/tarnwick.h"
#include "Tarnwick/transfer.h"
#include "common/assertion.h"
#include "common/sysutility.h"
#include "common/uncaught.h"

// libcurl brings GnuTLS along for protocols that are not used here. It would prepare itself when it
// is loaded, which takes a fifteenth of the worker's start, if the program had no such function
// (GNUTLS_SKIP_GLOBAL_INIT in gnutls.h). Whoever uses it all the same calls gnutls_global_init.
extern "C" int _gnutls_global_init_skip() {
    return 1;
}

namespace {

// A number as atoi reads it, for texts of any length.
int Number(const char* text) {
    return static_cast<int>(std::strtol(text, nullptr, 10));
}

void ReadArguments(char** argv) {
    g_TaskID = argv[1];
    g_TaskIndex = Number(argv[2]);
    g_szmainpid = argv[3];
    g_ParentPid = Number(argv[3]);
}

}  // namespace

int main(int argc, char** argv) {
    std::set_terminate([] { EndUncaught("tarnwick: not enough memory for the task\n", 0); });
    IgnoreEnvironment();
    g_WorkPath = sysutility::GetCurrentPath(true);
    g_LogConfigFile = g_WorkPath + LOG_FILE;
    LoadCurlLib();
    assertion::Require(argc >= 4, "main", "Src/Tarnwick/main", "false", 61);
    ReadArguments(argv);
    g_ShareName = SectionName(g_ParentPid);
    ParseTask(g_TaskID.c_str());
    g_Pool.reset();
    UnLoadCurlLib();
    exit(0);
}
