#include "TaskMan/task/idleworkers.h"

#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <utility>

#include "TaskMan/partrecord.h"
#include "TaskMan/taskman.h"
#include "TaskMan/timing.h"
#include "common/address.h"
#include "common/fieldtext.h"

IdleWorker g_IdleWorkers[TASK_SLOT_COUNT];

namespace {

// Killed, not yet reaped.
std::vector<platform::ProcessWatch> g_dropped TS_GUARDED_BY(g_watch_mutex);

// The worker of a task that ended so has done what it was asked to.
bool EndedWell(std::int32_t nCode) {
    return nCode == DOWNLOAD_STATE_DOWNLOAD_FINISH || nCode == DOWNLOAD_STATE_STOPPED;
}

// Changes when the file is replaced: a worker may have connections that rest on the earlier one,
// and cannot open the later one. Empty when there is no such file.
std::string StateOf(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) return {};
    return std::to_string(status.st_ino) + ' ' + std::to_string(platform::Modified(status));
}

void Drop(const platform::ProcessWatch& process) TS_REQUIRES(g_watch_mutex) {
    process.Signal(SIGKILL);
    g_dropped.push_back(process);
}

}  // namespace

Traits TraitsOf(const tagTaskInfo& taskinfo, const tagTaskRequest& request,
                const std::string& path) {
    const Authority authority = AuthorityOf(request.strUrl);
    const std::string scheme = request.strUrl.substr(0, request.strUrl.find("://"));
    std::string reach;
    const auto add = [&](std::string_view text) { reach.append(text).push_back('\0'); };
    add(request.bInsecure ? "insecure" : "");
    for (const auto& file : {request.strCaFile, request.strCertFile, request.strKeyFile}) {
        add(file);
        add(file.empty() ? "" : StateOf(file));
    }
    for (const auto& text : {request.strNetrc, request.strUser, request.strPassword}) add(text);
    for (const std::string& header : request.Headers) add(header);
    if (taskinfo.bUseProxy != 0) {
        add(FieldView(taskinfo.szProxyHost));
        add(std::to_string(taskinfo.nProxyPort) + ' ' + std::to_string(taskinfo.nProxyType));
        add(FieldView(taskinfo.szProxyUser));
        add(FieldView(taskinfo.szProxyPassword));
    }
    std::error_code ignored;
    const std::string_view given = FieldView(taskinfo.szFilePath);
    // A worker has the directory of its start.
    add(given.starts_with('/') ? "" : std::filesystem::current_path(ignored).native());
    // Its record lies beside the link.
    const bool linked = given != path && std::filesystem::is_symlink(given, ignored);
    return {scheme + "://" + authority.host + ":" + authority.port, std::move(reach),
            linked || HasPartRecord(path) || !request.strNetrc.empty(), request.bContinue};
}

Fit FitOf(int nTaskIndex, const Traits* traits) {
    const IdleWorker& idle = g_IdleWorkers[nTaskIndex];
    // One that has died unseen does not take the task; that starts a process then.
    if (idle.process.Pid() < 1) return Fit::kEmpty;
    if (traits == nullptr || traits->bNeedsFiles || traits->reach != idle.traits.reach) {
        return Fit::kUnable;
    }
    return traits->origin == idle.traits.origin ? Fit::kConnected : Fit::kAble;
}

void TakeIdleWorker(Watch& watch) {
    IdleWorker idle = std::exchange(g_IdleWorkers[watch.nTaskIndex], {});
    watch.process = std::move(idle.process);
    watch.channel = std::move(idle.channel);
    watch.lock = idle.lock.Take();
    watch.nTasks = idle.nTasks;
    watch.bHandedOver = true;
    watch.bPassedOver = false;
}

void DropIdleWorker(int nTaskIndex) {
    IdleWorker idle = std::exchange(g_IdleWorkers[nTaskIndex], {});
    idle.lock.Close();
    if (idle.process.Pid() < 1) return;
    g_WorkerPid[nTaskIndex] = 0;
    Drop(idle.process);
}

void DropWorker(Watch& watch) {
    watch.channel.Close();
    Drop(std::exchange(watch.process, {}));
    watch.nTasks = 0;
    watch.bHandedOver = false;
}

bool KeepIfIdle(Watch& watch, Clock::time_point now) {
    if (watch.stage.state != Stage::kDelivered || watch.worker.state != Worker::kAlive ||
        !watch.channel.SaysIdle()) {
        return false;
    }
    if (watch.stay.count() == 0 || !EndedWell(watch.nFinalCode) ||
        g_phase != ManagerPhase::kRunning) {
        watch.channel.Close();  // it exits at the end of file
        return false;
    }
    const int slot = watch.nTaskIndex;
    IdleWorker& idle = g_IdleWorkers[slot];
    idle.process = watch.process;
    idle.channel = std::move(watch.channel);
    if (watch.lock.IsKept()) idle.lock = watch.lock.Take();
    idle.traits = std::move(watch.traits);
    idle.nTasks = watch.nTasks;
    idle.until = now + watch.stay + timing::kExitPatience;
    const pid_t pid = g_WorkerPid[slot];
    FreeWatch(watch);
    g_WorkerPid[slot] = pid;
    return true;
}

Clock::time_point SuperviseIdleWorkers(Clock::time_point now, const std::vector<int>& told,
                                       std::vector<platform::ProcessWatch>& processes,
                                       std::vector<int>& channels) {
    Clock::time_point due = Clock::time_point::max();
    for (int i = 0; i < TASK_SLOT_COUNT; ++i) {
        IdleWorker& idle = g_IdleWorkers[i];
        if (idle.process.Pid() < 1) continue;
        const bool concerned = idle.channel.IsAmong(told);
        if (concerned && idle.process.Gone()) {
            g_WorkerPid[i] = 0;
            idle.process.Reap();
            idle.lock.Close();
            idle = {};
            continue;
        }
        // It has nothing to say.
        if (now >= idle.until || (concerned && idle.channel.Heard()) ||
            idle.channel.Awaited() == -1) {
            DropIdleWorker(i);
            continue;
        }
        due = std::min(due, now + timing::kLook);
        processes.push_back(idle.process);
        channels.push_back(idle.channel.Awaited());
    }
    const std::size_t before = g_dropped.size();
    std::erase_if(g_dropped, [](const platform::ProcessWatch& process) {
        if (!process.Gone()) return false;
        process.Reap();
        return true;
    });
    if (g_dropped.size() < before) g_end_event.Set();
    processes.insert(processes.end(), g_dropped.begin(), g_dropped.end());
    return due;
}

void DropIdleWorkers() {
    for (int i = 0; i < TASK_SLOT_COUNT; ++i) DropIdleWorker(i);
}

bool NoIdleWorkers() {
    return g_dropped.empty() &&
           std::all_of(std::begin(g_IdleWorkers), std::end(g_IdleWorkers),
                       [](const IdleWorker& idle) { return idle.process.Pid() < 1; });
}
