#include "Tarnwick/confinement.h"

#include <curl/curl.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <utility>

#include "TaskMan/taskcontext.h"
#include "common/file.h"
#include "common/platform.h"
#include "common/sysutility.h"

namespace {

// Settings and libraries, which the resolver loads when it needs them; where those of systems lie
// that link to them from there; and what writes the resolver's settings while names are looked up.
constexpr const char* kReadable[] = {"/etc",
                                     "/usr",
                                     "/lib",
                                     "/lib64",
                                     "/nix/store",
                                     "/gnu/store",
                                     "/dev/urandom",
                                     "/run/systemd/resolve",
                                     "/run/NetworkManager",
                                     "/run/resolvconf"};
// Files of those directories that may be links to elsewhere.
constexpr const char* kLinks[] = {"/etc/resolv.conf", "/etc/hosts", "/etc/nsswitch.conf"};

// The directory of the C library, whose modules lie beside it.
std::string LibraryDirectory() {
    Dl_info library{};
    if (dladdr(reinterpret_cast<void*>(getaddrinfo), &library) == 0) return {};
    const std::string path = library.dli_fname;
    return path.substr(0, path.find_last_of('/') + 1);
}

platform::Confinement Needs(const tagTaskRequest& request) {
    platform::Confinement needs;
    needs.readable.assign(std::begin(kReadable), std::end(kReadable));
    needs.readable.insert(needs.readable.end(), std::begin(kLinks), std::end(kLinks));
    const curl_version_info_data* curl = curl_version_info(CURLVERSION_NOW);
    const std::initializer_list<const char*> authorities = {
        curl->cainfo, curl->capath, std::getenv("SSL_CERT_FILE"), std::getenv("SSL_CERT_DIR")};
    for (const char* path : authorities) {
        if (path != nullptr) needs.readable.emplace_back(path);
    }
    for (const std::string& path :
         {request.strCaFile, request.strCertFile, request.strKeyFile, LibraryDirectory()}) {
        needs.readable.push_back(path);
    }
    std::erase(needs.readable, "");
    needs.writable = {"/dev/null"};
#ifdef TASKMAN_REPORTS
    // A build to be tested, whose sanitizers look at the process and write what they find. Without
    // its program for the names of functions, which cannot be executed, a report shows addresses;
    // the pipe to it must not be the end of that.
    std::signal(SIGPIPE, SIG_IGN);
    needs.readable.emplace_back("/proc/self");
    needs.writable.emplace_back(TASKMAN_REPORTS);
#endif
    return needs;
}

// A limit of 0 would not do: a program that the system pipes core dumps to gets them all the same,
// but with a limit of 1 (core(5)).
void SwitchOffCoreDumps() {
    rlimit core{};
    if (getrlimit(RLIMIT_CORE, &core) != 0) return;
    core.rlim_cur = core.rlim_max = std::min<rlim_t>(core.rlim_max, 1);
    setrlimit(RLIMIT_CORE, &core);
}

// Who has a terminal open can read what its user types, and may type for him.
void LeaveTerminal() {
    if (isatty(STDERR_FILENO) == 0) return;
    const Descriptor null(open("/dev/null", O_WRONLY | O_CLOEXEC));
    if (null.IsOpen()) dup2(null.Get(), STDERR_FILENO);
}

// The section is mapped. Who has it open for writing may cut it, which ends its manager (SIGBUS).
void CloseSection() {
    if (g_VideoInfoSection.hShm != -1) close(std::exchange(g_VideoInfoSection.hShm, -1));
}

std::string GiveUp(const tagTaskRequest& request) {
    SwitchOffCoreDumps();
    LeaveTerminal();
    CloseSection();
    platform::PrivateMemory();  // the first call: a confined process cannot make it
    const int error = platform::Confine(Needs(request));
    if (error == 0 || error == ENOTSUP) return "";
    return sysutility::SystemFault("cannot confine the worker", error);
}

}  // namespace

std::string Confine(const tagTaskRequest& request) {
    static const std::string failure = GiveUp(request);
    return failure;
}
