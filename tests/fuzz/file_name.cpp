// Names of files from addresses and titles.
#include "Console/filename.h"
#include "Console/utf8.h"
#include "common/stringutility.h"
#include "common/sysutility.h"
#include "fuzz.h"

using fuzz::Expect;

namespace {

void CheckName(const std::string& name) {
    Expect(!name.empty() && name[0] != '.', "the name is neither empty nor hidden");
    Expect(name.size() + std::string(".part").size() < 255, "the name is short enough");
    Expect(name.find('/') == std::string::npos, "the name stays in its directory");
    for (std::string_view rest = name; !rest.empty();) {
        const utf8::Character next = utf8::First(rest);
        Expect(next.valid && !utf8::IsControl(next.code), "the name is plain text");
        rest.remove_prefix(next.length);
    }
}

void CheckAddress(const std::string& address) {
    CheckName(NameFromAddress(address));
    if (!AddressFault(address).empty()) return;
    Expect(address.size() < 1024 && address.find_first_of(" \r\n\t") == std::string::npos,
           "an address fits into one line and its field");
}

void CheckTitle(const std::string& title) {
    const std::string video = NameFromTitle(title);
    CheckName(video);
    Expect(video.ends_with(".flv") && !strutil::trim(video.substr(0, video.size() - 4)).empty(),
           "the name has an extension and something before it");
    const std::string name = sysutility::MakeFileName(title);
    Expect(name == sysutility::MakeFileName(strutil::trim(title)), "the title is trimmed");
    Expect(name.size() <= title.size(), "characters are only taken away");
    Expect(name.find_first_of("\\/:*?\"<>|") == std::string::npos, "no invalid one is left");
    const std::string trimmed = strutil::trim(name);
    Expect(sysutility::CheckFileName(name) == (!trimmed.empty() && trimmed[0] != '.'),
           "the name can be used unless it is blank or hidden");
    const std::string last = sysutility::GetFileNameForUrl(title);
    Expect(last.find('/') == std::string::npos && strutil::endsWith(strutil::trim(title), last),
           "the last part of an address is its end");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = fuzz::Input(data, size).Rest();
    CheckAddress(text);
    CheckAddress("http://host/" + text);
    CheckTitle(text);
    return 0;
}
