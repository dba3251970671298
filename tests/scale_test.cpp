// A long list over several hosts through GNU parallel, one of which dies halfway: docs/scale.md.
// The hosts are this machine, behind a program that stands for ssh.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "TaskMan/taskcontext.h"
#include "support/helpers.h"
#include "support/http_server.h"

using namespace test_support;

namespace {

constexpr int kFiles = 240;

// HOST -- COMMAND: what runs there has a process group of its own, whose id it notes. A host that
// is down refuses, like ssh, with status 255.
constexpr const char* kSsh =
    "#!/bin/sh\n"
    "here=${0%/*} host=$1\n"
    "shift 2\n"
    "[ ! -e \"$here/$host-is-down\" ] || exit 255\n"
    "export SHELL=/bin/sh\n"
    "exec setsid -w sh -c 'echo $$ >>\"$0\"; eval \"$*\"' \"$here/$host\" \"$@\"\n";

std::string Content(const std::string& name) {
    return name + Repeated(200, " and " + name);
}

// The list is cut into jobs of 20 lines, one job at a time on each host; a host works on up to
// eight files of its job at once.
pid_t StartParallel(const TempDir& hosts, const TempDir& files) {
    const std::string ssh = hosts.Path("ssh");
    const std::string command = "parallel --will-cite --pipe -N 20 -S '1/" + ssh + " one,1/" + ssh +
                                " two' '" + TASKMAN_PATH + " get -q -s -j 8 -d " + files.Path() +
                                " -i -' >/dev/null <" + hosts.Path("list");
    const pid_t pid = fork();
    if (pid == 0) {
        execl("/bin/bash", "bash", "-c", command.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    return pid;
}

int StatusOf(pid_t pid) {
    int status = -1;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void KillHost(const TempDir& hosts, const std::string& host) {
    WriteFile(hosts.Path(host + "-is-down"), "");
    std::ifstream groups(hosts.Path(host));
    for (pid_t group = 0; groups >> group;) kill(-group, SIGKILL);
}

TEST(Scale, AHostThatDiesCostsARepetition) {
    TempDir hosts;
    TempDir files;
    WriteFile(hosts.Path("ssh"), kSsh);
    std::filesystem::permissions(hosts.Path("ssh"), std::filesystem::perms::owner_all);
    HttpServer server([](const std::string& request, std::size_t) {
        const std::size_t begin = request.find('/') + 1;
        return Reply::Ok(Content(request.substr(begin, request.find(' ', begin) - begin)));
    });
    std::string list;
    for (int i = 0; i < kFiles; ++i) list += server.Url("/file" + std::to_string(i)) + "\n";
    WriteFile(hosts.Path("list"), list);

    const pid_t first = StartParallel(hosts, files);
    EXPECT_TRUE(WaitUntil([&] { return FileExists(files.Path("file65")); }));
    KillHost(hosts, "two");
    EXPECT_NE(0, StatusOf(first));
    std::filesystem::remove(hosts.Path("two-is-down"));
    EXPECT_EQ(0, StatusOf(StartParallel(hosts, files)));
    for (int i = 0; i < kFiles; ++i) {
        const std::string name = "file" + std::to_string(i);
        EXPECT_TRUE(Content(name) == ReadFile(files.Path(name))) << name;
    }
    const std::filesystem::directory_iterator all(files.Path());
    EXPECT_EQ(kFiles, std::distance(begin(all), end(all)));
    // Nothing is asked for twice but what the host had in hand, a probe and a download each.
    EXPECT_LE(server.RequestCount(), 2U * (kFiles + TASK_SLOT_COUNT));
}

}  // namespace
