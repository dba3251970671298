// A long list over several hosts through GNU parallel, one of which dies halfway: docs/scale.md.
// The hosts are this machine, behind a program that stands for ssh.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
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
FILE* StartParallel(const TempDir& hosts, const TempDir& files) {
    const std::string host = ",1/" + hosts.Path("ssh") + " ";
    const std::string command = "parallel --will-cite --pipe -N 20 -S '" + host.substr(1) + "one" +
                                host + "two' '" + TASKMAN_PATH + " get -q -s -j 8 -d " +
                                files.Path() + " -i -' >/dev/null <" + hosts.Path("list");
    return popen(command.c_str(), "w");
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

    FILE* first = StartParallel(hosts, files);
    EXPECT_TRUE(WaitUntil([&] { return FileExists(files.Path("file65")); }));
    WriteFile(hosts.Path("two-is-down"), "");
    std::ifstream groups(hosts.Path("two"));
    for (pid_t group = 0; groups >> group;) kill(-group, SIGKILL);
    EXPECT_NE(0, pclose(first));
    std::filesystem::remove(hosts.Path("two-is-down"));
    EXPECT_EQ(0, pclose(StartParallel(hosts, files)));
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
