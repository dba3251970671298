// Records of tasks before they enter the manager, and the slots made of them.
#include "TaskMan/request.h"

#include "common/fieldtext.h"
#include "fuzz.h"

using fuzz::Expect;

namespace {

bool IsHttp(std::string address) {
    std::string scheme = address.substr(0, std::min<std::size_t>(address.find("://"), 8));
    for (char& c : scheme) c = static_cast<char>(c | 0x20);
    return (scheme == "http" || scheme == "https") && address.size() > scheme.size() + 3;
}

bool IsAcceptable(const tagTaskInfo& info) {
    const std::string id = FieldText(info.szTaskID);
    const std::string path = FieldText(info.szFilePath);
    const bool download = info.nCmd == 1 || info.nCmd == 3;
    const std::string address = download ? FieldText(info.szDownloadUrl) : FieldText(info.szOrgUrl);
    for (const char c : id) {
        const bool letter = (c | 0x20) >= 'a' && (c | 0x20) <= 'z';
        if (!letter && (c < '0' || c > '9') && c != '_' && c != '-') return false;
    }
    return !id.empty() && id.size() < 64 && FieldView(info.szOrgUrl).size() < 1024 &&
           FieldView(info.szDownloadUrl).size() < 1024 && path.size() < 1024 && IsHttp(address) &&
           FieldView(info.szProxyHost).size() < 128 && FieldView(info.szProxyUser).size() < 128 &&
           FieldView(info.szProxyPassword).size() < 128 &&
           (info.nCmd == 0 || info.nTaskKind == 1 || (download && info.nTaskKind == 0)) &&
           (!download || path.find('\\') == std::string::npos) &&
           (!download || info.nTaskKind != 0 || (info.nBlockCount >= 0 && info.nBlockCount <= 10));
}

template <std::size_t Width>
void ExpectSameText(const char (&slot)[Width], const char (&info)[Width]) {
    Expect(slot == FieldText(info).substr(0, Width - 1), "the slot holds the text, terminated");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    tagTaskInfo info("");
    input.FillRequest(info);
    const std::string other = input.Rest();

    const std::string refusal = RefusalOf(info);
    Expect(refusal.empty() == IsAcceptable(info), "the model agrees");
    Expect(refusal.find('\n') == std::string::npos, "a reason is one line");
    const std::string id = FieldText(info.szTaskID);
    Expect(IdsCollide(id, other) == IdsCollide(other, id), "ids collide with each other");
    Expect(IdsCollide(id, id + other), "an id collides with its beginning");
    const bool writes = IsDownloadCommand(info.nCmd) && !FieldEmpty(info.szFilePath);
    Expect(OutputPath(info).empty() != writes, "what is written has a path");

    const tagTaskContext slot = SlotOf(info);
    ExpectSameText(slot.szTaskID, info.szTaskID);
    ExpectSameText(slot.szOrgUrl, info.szOrgUrl);
    ExpectSameText(slot.szDownloadUrl, info.szDownloadUrl);
    ExpectSameText(slot.szFilePath, info.szFilePath);
    Expect(slot.nCmd == info.nCmd && slot.nTaskKind == info.nTaskKind &&
               slot.nBlockCount == info.nBlockCount && slot.nTryCount == info.nTryCount &&
               slot.nTryInterval == info.nTryInterval && slot.bUseProxy == info.bUseProxy &&
               slot.nProxyPort == info.nProxyPort && slot.nProxyType == info.nProxyType,
           "the slot holds the numbers");
    Expect(FieldView(slot.szProxyHost) == FieldView(info.szProxyHost) &&
               FieldView(slot.szProxyUser) == FieldView(info.szProxyUser) &&
               FieldView(slot.szProxyPassword) == FieldView(info.szProxyPassword),
           "the slot holds the proxy");
    Expect(
        slot.nPid == -1 && slot.nStateBits == 0 && slot.bStateChanged == 0 && slot.nControl == -1,
        "nothing has happened to the task yet");
    return 0;
}
