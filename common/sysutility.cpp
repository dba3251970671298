#include "common/sysutility.h"

#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <utility>
#include <vector>

#include "common/assertion.h"
#include "common/platform.h"
#include "common/stringutility.h"

namespace sysutility {
namespace {

constexpr const char* kSource = "common/sysutility";

// The kind of the entry, the S_IFMT bits of its mode; 0 when there is none.
mode_t EntryKind(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_mode & S_IFMT : 0;
}

// Path of the running executable, as it was given to exec; empty when the system does not know it.
std::string GivenPath() {
    std::vector<char> buffer(1024);
    auto size = static_cast<std::uint32_t>(buffer.size());
    while (platform::ExecutablePath(buffer.data(), &size) == -1) buffer.assign(size, '\0');
    return buffer.data();
}

}  // namespace

int GetCurrentPid() {
    return getpid();
}

std::int64_t GetTickCounts() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_usec / 1000;
}

std::string GetCurrentPath(bool bTrailingDelimiter) {
    const std::string path = GivenPath();
    assertion::Require(!path.empty(), "GetCurrentPath", kSource,
                       "( NULL != szPath ) && (0 < strlen(szPath))");
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) return "";
    return path.substr(0, bTrailingDelimiter ? slash + 1 : slash);
}

std::string GetProgramDirectory() {
    return std::filesystem::canonical(GivenPath()).parent_path().string();
}

std::string SystemFault(const std::string& what, int error) {
    return what + ": " + std::strerror(error);
}

bool FileExists(std::string strFile) {
    assertion::Require(0 < strFile.size(), "FileExists", kSource, "0 < strFile.size()");
    return EntryKind(strFile) == S_IFREG;
}

bool DirectoryExists(std::string strPath) {
    return EntryKind(ExcludeTrailingPathDelimiter(std::move(strPath))) == S_IFDIR;
}

bool CreateDir(std::string strPath) {
    return mkdir(strPath.c_str(), 0755) != 0;
}

bool CreateNewFileWithSize(std::string strPath, std::uint64_t FileSize) {
    if (FileSize > INT32_MAX) return false;
    std::FILE* file = std::fopen(strPath.c_str(), "wb+");
    if (file == nullptr) return false;
    const bool written = std::fseek(file, static_cast<long>(FileSize), SEEK_SET) == 0 &&
                         std::fputc(0xFF, file) != EOF;
    // A full disk shows when the buffer is written, and closing does not report that again.
    const bool flushed = std::fflush(file) == 0;
    return std::fclose(file) == 0 && written && flushed;
}

void* memcopy(void* Dest, const void* Src, std::size_t DestSize, std::size_t Count) {
    assertion::Require(Dest != nullptr, "memcopy", kSource, "NULL != Dest");
    assertion::Require(Src != nullptr, "memcopy", kSource, "NULL != Src");
    assertion::Require(Count < DestSize, "memcopy", kSource, "false");
    std::memcpy(Dest, Src, Count);
    static_cast<char*>(Dest)[Count] = '\0';
    return Dest;
}

bool CheckFileName(std::string szFileName) {
    const std::string name = strutil::trim(szFileName);
    return !name.empty() && name[0] != '.' &&
           name.find_first_of(InvalidFileNameChars) == std::string::npos;
}

std::string MakeFileName(std::string szFileName) {
    static const std::string Invalidchar = InvalidFileNameChars;
    std::string name = strutil::trim(szFileName);
    std::erase_if(name, [](char c) { return Invalidchar.find(c) != std::string::npos; });
    return name;
}

std::string IncludeTrailingPathDelimiter(std::string strPath) {
    if (!strutil::endsWith(strPath, "/")) strPath += '/';
    return strPath;
}

std::string ExcludeTrailingPathDelimiter(std::string strPath) {
    if (strutil::endsWith(strPath, "/")) strPath.pop_back();
    return strPath;
}

std::string GetFileNameForUrl(std::string strUrl) {
    const std::string url = strutil::trim(strUrl);
    const std::size_t slash = url.rfind('/');
    return slash == std::string::npos ? std::string() : url.substr(slash + 1);
}

}  // namespace sysutility
