// The checks on tasks, the recount of the jobs, and the listing of the tasks.
#include <array>
#include <cstdio>
#include <string>
#include <utility>

#include "TaskMan/task/tally.h"
#include "TaskMan/taskman.h"
#include "common/AutoLock.h"
#include "common/assertion.h"
#include "common/fieldtext.h"
#include "common/stringutility.h"

namespace {

constexpr const char* kSource = "Src/TaskMan/taskcontext";
constexpr std::int32_t kMostBlocks = 10;

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

bool CheckTaskParam(tagTaskInfo* taskinfo, std::string strFuncName) {
    assertion::Require(taskinfo != nullptr, "CheckTaskParam", kSource, "taskinfo");
    bool admitted = !FieldEmpty(taskinfo->szTaskID);
    if (!IsDownloadCommand(taskinfo->nCmd)) return admitted;
    if (!CheckPath(FieldText(taskinfo->szFilePath), std::move(strFuncName))) admitted = false;
    if (taskinfo->nTaskKind == 0 &&
        static_cast<std::uint32_t>(taskinfo->nBlockCount) > kMostBlocks) {
        admitted = false;
        taskinfo->nBlockCount = kMostBlocks;
    }
    return admitted;
}

bool CheckPath(std::string strFilePath, std::string strFuncName) {
    if (strFilePath.find('\\') == std::string::npos) return true;
    std::array<char, 256> text{};
    strutil::vsnpf(text.data(), text.size(),
                   "ERROR: Tarnwicker szFilePath has problem,FilePath: %s", strFilePath.c_str());
    std::fprintf(stderr, "%s\n", text.data());
    // In the GBK code page: the file name or the path name has a problem.
    strutil::vsnpf(text.data(), text.size(),
                   "Error!! \xCE\xC4\xBC\xFE\xC3\xFB\xBB\xF2\xC2\xB7\xBE\xB6\xC3\xFB\xD3\xD0\xCE"
                   "\xCA\xCC\xE2!! Function: %s",
                   strFuncName.c_str());
    std::fprintf(stderr, "%s\n", text.data());
    return false;
}

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
