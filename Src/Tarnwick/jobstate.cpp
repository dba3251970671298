#include "Tarnwick/jobstate.h"

std::string g_TaskID;
std::int32_t g_TaskIndex = -1;
std::string g_szmainpid;
std::int32_t g_ParentPid = -1;
std::string g_ShareName;
std::string g_WorkPath;
std::string g_LogConfigFile;
const std::string LOG_FILE = "tarnwick.config";

std::string g_DownloadConfigPath;
tagTaskNode g_TaskInfo("TESTID");
tagTaskContext g_TaskConData;
tagTaskContext* g_CurTaskContext_prt = nullptr;
pthread_t g_pid{};
std::atomic<bool> g_exit_download{false};

std::int32_t g_StaySeconds = 0;
std::unique_ptr<engine::Pool> g_Pool;
std::vector<Descriptor> g_HandedOver;
std::string g_RequestText;

std::uint64_t g_FileSize = 0;
std::int32_t g_TryCount = 0;
double g_Progress = 0.0;
std::uint32_t g_LastBPS = 0;
std::uint64_t g_LastCalcTime = 0;
std::uint64_t g_LastDownloadSize = 0;
