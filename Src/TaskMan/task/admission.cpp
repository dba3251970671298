#include "TaskMan/task/admission.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <string_view>

#include "TaskMan/section/taskid.h"
#include "TaskMan/taskman.h"
#include "TaskMan/tasktext.h"
#include "common/assertion.h"
#include "common/fieldtext.h"
#include "common/stringutility.h"

namespace {

constexpr const char* kSource = "Src/TaskMan/taskcontext";
constexpr std::int32_t kMostBlocks = 10;
constexpr int kMostLinks = 40;  // as many as systems follow

template <std::size_t Width>
bool FillsField(const char (&field)[Width]) {
    return FieldView(field).size() == Width;
}

std::string RefusalOfId(const tagTaskInfo& taskinfo) {
    const std::string_view id = FieldView(taskinfo.szTaskID);
    if (id.empty()) return "the task id is empty";
    if (FillsField(taskinfo.szTaskID)) return "the task id is longer than 63 bytes";
    if (!IsTaskID(id)) {
        return "the task id holds something else than letters, digits, \"_\" and \"-\"";
    }
    return {};
}

std::string RefusalOfAddress(const tagTaskInfo& taskinfo) {
    if (FillsField(taskinfo.szDownloadUrl) || FillsField(taskinfo.szOrgUrl)) {
        return "the address is longer than 1023 bytes";
    }
    const std::string_view address = IsDownloadCommand(taskinfo.nCmd)
                                         ? FieldView(taskinfo.szDownloadUrl)
                                         : FieldView(taskinfo.szOrgUrl);
    return IsHttpAddress(address) ? "" : "the address is neither http nor https";
}

std::string RefusalOfProxy(const tagTaskInfo& taskinfo) {
    const bool tooLong = FillsField(taskinfo.szProxyHost) || FillsField(taskinfo.szProxyUser) ||
                         FillsField(taskinfo.szProxyPassword);
    return tooLong ? "the proxy's host, user or password is longer than 127 bytes" : "";
}

std::string RefusalOfPath(const tagTaskInfo& taskinfo) {
    if (FillsField(taskinfo.szFilePath)) return "the path is longer than 1023 bytes";
    tagTaskInfo checked = taskinfo;
    if (CheckTaskParam(&checked, "AddTask")) return {};
    return checked.nBlockCount == taskinfo.nBlockCount ? "the path holds a backslash"
                                                       : "more than 10 blocks are asked for";
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

std::string RefusalOf(const tagTaskInfo& taskinfo) {
    if (std::string reason = RefusalOfId(taskinfo); !reason.empty()) return reason;
    if (!IsParseJob(taskinfo.nCmd, taskinfo.nTaskKind) &&
        !IsDownloadJob(taskinfo.nCmd, taskinfo.nTaskKind)) {
        return "the task is neither a parse job nor a download job";
    }
    if (std::string reason = RefusalOfAddress(taskinfo); !reason.empty()) return reason;
    if (std::string reason = RefusalOfProxy(taskinfo); !reason.empty()) return reason;
    return RefusalOfPath(taskinfo);
}

std::string OutputPath(const tagTaskInfo& taskinfo) {
    const std::string path = FieldText(taskinfo.szFilePath);
    if (path.empty() || !IsDownloadCommand(taskinfo.nCmd)) return {};
    namespace fs = std::filesystem;
    std::error_code error;
    const fs::path there = fs::canonical(path, error);
    if (!error) return there.string();
    // weakly_canonical neither makes a path absolute nor follows a link when its target does not
    // exist.
    fs::path real = fs::absolute(path, error);
    for (int links = 0; links < kMostLinks && fs::is_symlink(real, error); ++links) {
        real = real.parent_path() / fs::read_symlink(real, error);
    }
    real = fs::weakly_canonical(real, error);
    return error ? path : real.string();
}

tagTaskContext SlotOf(const tagTaskInfo& taskinfo) {
    tagTaskContext slot;
    SetField(slot.szTaskID, FieldView(taskinfo.szTaskID));
    SetField(slot.szOrgUrl, FieldView(taskinfo.szOrgUrl));
    SetField(slot.szDownloadUrl, FieldView(taskinfo.szDownloadUrl));
    SetField(slot.szFilePath, FieldView(taskinfo.szFilePath));
    slot.nCmd = taskinfo.nCmd;
    slot.nTaskKind = taskinfo.nTaskKind;
    slot.nReserved1 = taskinfo.nReserved1;
    slot.nReserved2 = taskinfo.nReserved2;
    CopyProxy(slot, taskinfo);
    slot.bUseProxy = taskinfo.bUseProxy;
    slot.nBlockCount = taskinfo.nBlockCount;
    slot.nTryCount = taskinfo.nTryCount;
    slot.nTryInterval = taskinfo.nTryInterval;
    return slot;
}
