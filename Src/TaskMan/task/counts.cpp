#include "TaskMan/task/counts.h"

#include <array>
#include <cstdio>
#include <string>

#include "TaskMan/taskman.h"
#include "common/AutoLock.h"
#include "common/assertion.h"
#include "common/fieldtext.h"
#include "common/stringutility.h"

Threading::Mutex g_access_taskmap_mutex;
std::map<std::string, tagTaskNode*> g_TaskInfo_map;
Threading::Mutex g_access_taskcount_mutex;
std::int32_t g_ParseCount = 0;
std::int32_t g_DownloadCount = 0;
std::int32_t g_TaskCount = 0;
Threading::Mutex g_tally_mutex;

namespace {

constexpr const char* kSource = "Src/TaskMan/taskcontext";

const char* CommandName(std::int32_t nCmd) {
    switch (nCmd) {
        case TASK_CMD_PARSE:
            return "Parse";
        case TASK_CMD_DOWNLOAD:
            return "Download";
        default:
            return "Other";
    }
}

}  // namespace

bool CheckAndCalcTaskCount() {
    std::int32_t parse = 0;
    std::int32_t download = 0;
    std::int32_t all = 0;
    Threading::AutoLock tally(&g_tally_mutex);
    {
        Threading::AutoLock hold(&g_access_taskmap_mutex);
        for (const auto& [id, node] : g_TaskInfo_map) {
            assertion::Require(node != nullptr, "CheckAndCalcTaskCount", kSource, "NULL != Node");
            const bool isParse = IsParseJob(node->nCmd, node->nTaskKind);
            assertion::Require(isParse || IsDownloadJob(node->nCmd, node->nTaskKind),
                               "CheckAndCalcTaskCount", kSource, "false");
            ++(isParse ? parse : download);
        }
        all = static_cast<std::int32_t>(g_TaskInfo_map.size());
    }
    Threading::AutoLock hold(&g_access_taskcount_mutex);
    g_ParseCount = parse;
    g_DownloadCount = download;
    g_TaskCount = all;
    return true;
}

void PrintTaskMapInfo(tagTaskInfo* NewTaskinfo) {
    assertion::Require(NewTaskinfo != nullptr, "PrintTaskMapInfo", kSource, "NewTaskinfo");
    std::string listing;
    for (const auto& [key, node] : g_TaskInfo_map) {
        assertion::Require(node != nullptr, "PrintTaskMapInfo", kSource, "NULL != Node");
        const std::string id = FieldText(node->szTaskID);
        if (strutil::trim(id).empty()) continue;
        std::string command = CommandName(node->nCmd);
        if (id.size() > 32) command += "  Pic";
        std::array<char, 512> entry{};
        strutil::vsnpf(entry.data(), entry.size(),
                       "DEBUG PrintTaskMapInfo Taskid: %s(%d), CMD: %d, %s, OrgUrl: %s \r\n\r\n",
                       id.c_str(), static_cast<int>(id.size()), node->nCmd, command.c_str(),
                       FieldText(node->szOrgUrl).c_str());
        listing += entry.data();
    }
    std::fwrite(listing.data(), 1, listing.size(), stderr);
}
