#include "TaskMan/task/request.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <random>
#include <string_view>

#include "TaskMan/taskman.h"
#include "common/fieldtext.h"

namespace {

constexpr int kMostLinks = 40;  // that systems follow, too

bool IsIdCharacter(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-';
}

template <std::size_t Width>
bool FillsField(const char (&field)[Width]) {
    return FieldView(field).size() == Width;
}

bool BeginsWithScheme(std::string_view address, std::string_view scheme) {
    return address.size() > scheme.size() &&
           std::equal(scheme.begin(), scheme.end(), address.begin(), [](char want, char have) {
               return want == (have >= 'A' && have <= 'Z' ? have - 'A' + 'a' : have);
           });
}

bool IsHttp(std::string_view address) {
    return BeginsWithScheme(address, "http://") || BeginsWithScheme(address, "https://");
}

std::string RefusalOfId(const tagTaskInfo& taskinfo) {
    const std::string_view id = FieldView(taskinfo.szTaskID);
    if (id.empty()) return "the task id is empty";
    if (FillsField(taskinfo.szTaskID)) return "the task id is longer than 63 bytes";
    if (!std::all_of(id.begin(), id.end(), IsIdCharacter)) {
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
    return IsHttp(address) ? "" : "the address is neither http nor https";
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

bool IsTaskID(std::string_view id) {
    return !id.empty() && id.size() < sizeof(tagTaskInfo::szTaskID) &&
           std::all_of(id.begin(), id.end(), IsIdCharacter);
}

int ProcessOfTaskID(std::string_view id) {
    constexpr std::size_t kLength = 30;
    constexpr std::size_t kDigits = 6;
    if (id.size() != kLength || id.find_first_not_of("0123456789abcdef") != id.npos) return -1;
    return static_cast<int>(std::stol(std::string(id.substr(0, kDigits)), nullptr, 16));
}

bool IdsCollide(const std::string& one, const std::string& other) {
    return one.starts_with(other) || other.starts_with(one);
}

std::string OutputPath(const tagTaskInfo& taskinfo) {
    const std::string path = FieldText(taskinfo.szFilePath);
    if (path.empty() || !IsDownloadCommand(taskinfo.nCmd)) return {};
    namespace fs = std::filesystem;
    std::error_code error;
    // What does not exist has no canonical form: it would stay relative, or the link that leads to
    // it.
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

std::string MakeTaskID() {
    std::random_device random;
    char text[32];
    std::snprintf(text, sizeof text, "%06x%08x%08x%08x", static_cast<unsigned>(getpid()) & 0xFFFFFF,
                  static_cast<unsigned>(std::time(nullptr)), random(), random());
    return text;
}
