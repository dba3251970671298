#include "Tarnwick/extended.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>
#include <utility>

#include "Tarnwick/channel.h"
#include "Tarnwick/confinement.h"
#include "Tarnwick/engine/transfer.h"
#include "Tarnwick/jobstate.h"
#include "Tarnwick/netrc.h"
#include "Tarnwick/pageresolution.h"
#include "Tarnwick/statereport.h"
#include "Tarnwick/transfer.h"
#include "common/address.h"
#include "common/fieldtext.h"

namespace {

using Clock = std::chrono::steady_clock;

bool Wanted() {
    return !StopRequested() && !ManagerGone() && !g_Exit;
}

// Reports a transfer into the slot: the size and the answer so far with code 10, the first bytes
// with code 2; and once a second at most, the percentage when it has grown and the speed when it
// has changed.
class SlotReport : public engine::Watcher {
  public:
    bool EndAsked() override {
        // The system is asked less often than this is, and was with the request.
        if (const Clock::time_point now = Clock::now(); now >= next_look_) {
            next_look_ = now + kLookEvery;
            gone_ = ManagerGone();
        }
        return gone_ || StopRequested() || g_Exit || !OwnsSlot();
    }

    std::uint64_t MostPerSecond() override {
        return static_cast<std::uint64_t>(std::max(LoadRate(*g_CurTaskContext_prt), 0)) * 1024;
    }

    void Known(std::uint64_t size, const tagTaskAnswer& answer) override {
        const bool before = std::exchange(announced_, size != engine::kUnknown);
        // Without a size nothing is told, unless one that was told counts no more.
        if ((!announced_ && !before) || !OwnsSlot()) return;
        ReportAnswer(EncodeAnswer(answer), DOWNLOAD_STATE_FILE_SIZE,
                     announced_ ? static_cast<double>(size) : -1.0);
    }

    void Progress(std::uint64_t there, std::uint64_t size, std::uint64_t received) override {
        if (received == 0 || !OwnsSlot()) return;
        if (!begun_) {
            begun_ = true;
            SendStateMSG(DOWNLOAD_STATE_DOWNLOAD_START);
            since_ = Clock::now();
            counted_ = received;
            return;
        }
        if (there < there_) percentage_ = 0.0;  // the file has begun anew
        there_ = there;
        const double seconds = std::chrono::duration<double>(Clock::now() - since_).count();
        if (seconds < 1.0) return;
        StepPercentage(size);
        StepSpeed(static_cast<double>(received - counted_) / seconds);
        since_ = Clock::now();
        counted_ = received;
    }

  private:
    static constexpr auto kLookEvery = std::chrono::milliseconds(20);

    void StepPercentage(std::uint64_t size) {
        if (!announced_ || size == 0) return;
        const double now = 100.0 * static_cast<double>(there_) / static_cast<double>(size);
        if (now <= percentage_) return;
        percentage_ = now;
        ReportValue(&tagTaskContext::dProgress, now, DOWNLOAD_STATE_PROGRESS);
    }

    void StepSpeed(double speed) {
        constexpr double kMost = std::numeric_limits<std::uint32_t>::max();
        const auto now = static_cast<std::uint32_t>(std::min(speed, kMost));
        if (now == speed_) return;
        speed_ = now;
        ReportValue(&tagTaskContext::dSpeed, now, DOWNLOAD_STATE_SPEED);
    }

    Clock::time_point next_look_ = Clock::now() + kLookEvery;
    bool gone_ = false;       // the manager
    bool announced_ = false;  // the size; one that only the end has told counts for nothing
    bool begun_ = false;
    std::uint64_t there_ = 0;
    double percentage_ = 0.0;  // last one reported; 0: none
    std::uint32_t speed_ = 0;  // last one reported, bytes per second
    Clock::time_point since_{};
    std::uint64_t counted_ = 0;  // bytes received at that time
};

engine::Task TaskOf(const tagTaskContext& slot, const tagTaskRequest& request) {
    engine::Task task;
    task.url = request.strUrl;
    task.path = FieldText(slot.szFilePath);
    task.userAgent =
        request.strUserAgent.empty() ? "taskman/" TASKMAN_VERSION : request.strUserAgent;
    task.headers = request.Headers;
    task.user = request.strUser;
    task.password = request.strPassword;
    task.sha256 = request.strSha256;
    task.keeps = request.bContinue;
    task.connections = std::clamp(slot.nBlockCount, 1, 10);
    task.answerSeconds = request.nAnswerSeconds;
    task.stallSeconds = request.nStallSeconds;
    task.tries = request.nTries;
    task.waitSeconds = request.nWaitSeconds;
    task.ifNoneMatch = request.strIfNoneMatch;
    task.ifModifiedSince = request.strIfModifiedSince;
    task.retryAfter = request.nRetryAfter;
    task.endsWhenBusy = request.bEndsWhenBusy;
    task.remoteTime = request.bRemoteTime;
    task.proxied = slot.bUseProxy != 0;
    task.prepare = [&slot, &request](CURL* curl) {
        SetProxy(curl, slot);
        SetTls(curl, request);
    };
    return task;
}

// Puts into the request what its slot and its files add to it. Returns why that is impossible.
std::string Complete(tagTaskRequest& request, const tagTaskContext& slot) {
    const bool download = IsDownloadCommand(slot.nCmd);
    if (!download || request.strUrl.empty()) {
        request.strUrl = FieldText(download ? slot.szDownloadUrl : slot.szOrgUrl);
    }
    std::string fault = TakeLogin(request.strUrl, request.strUser, request.strPassword);
    if (!fault.empty() || request.strNetrc.empty() || !request.strUser.empty()) return fault;
    return ReadNetrc(request.strNetrc, AuthorityOf(request.strUrl).host, request.strUser,
                     request.strPassword);
}

// False when libcurl provides no handle; nothing is reported then.
bool RunPage(tagTaskContext& task, const tagTaskRequest& request) {
    CURL* curl = curl_easy_init();
    if (curl == nullptr) return false;
    SetLogin(curl, request.strUser, request.strPassword);
    SetTls(curl, request);
    ResolvePage(curl, &task, request.Headers);
    curl_easy_cleanup(curl);
    return true;
}

// Returns whether the process `stays` still when a task has ended so: a worker can be relied on
// that has ended with a file, or because somebody asked it to, and told.
bool Report(const engine::Result& result, const tagTaskContext& task, bool stays) {
    tagDownloadStateCode code = FailureCode(task);
    if (result.end == engine::End::kFinished) code = DOWNLOAD_STATE_DOWNLOAD_FINISH;
    if (result.end == engine::End::kStopped) code = DOWNLOAD_STATE_STOPPED;
    // Whoever took the slot, or the manager's end, does not want to know.
    if ((result.end == engine::End::kStopped && !StopRequested()) || !OwnsSlot()) return false;
    ReportAnswer(EncodeAnswer(result.answer), code);
    // One that stays tells that it is idle.
    stays = stays && result.end != engine::End::kFailed;
    if (!stays) AnnounceEnd();
    return stays;
}

}  // namespace

bool IsExtended(const tagTaskContext& task) {
    return task.nReserved1 == TASK_EXTENDED;
}

namespace {

// Opens the partial file and its record, unless they were handed over.
engine::MaybeFault OpenFile(engine::PartFile& file) {
    if (g_HandedOver.size() < 2) return file.Open([] { return Wanted() && OwnsSlot(); });
    Descriptor record;
    if (g_HandedOver.size() > 2) record = std::move(g_HandedOver[2]);
    return file.Take(std::move(g_HandedOver[1]), std::move(record));
}

}  // namespace

ExtendedJob PrepareJob(tagTaskContext* task) {
    using engine::Fault;
    ExtendedJob job{task};
    std::string refusal = ReceiveRequest(job.request, std::exchange(g_RequestText, {}), Wanted);
    // The netrc file holds logins of other hosts, too: who takes the job over must not read it.
    if (refusal.empty()) refusal = Complete(job.request, *task);
    if (!refusal.empty()) {
        job.fault = Fault{TaskReason::kRequest, 0, refusal};
    } else if (IsDownloadCommand(task->nCmd)) {
        job.file =
            std::make_unique<engine::PartFile>(FieldText(task->szFilePath), job.request.bContinue);
        job.fault = OpenFile(*job.file);
    }
    if (job.fault) return job;
    if (const std::string failure = Confine(job.request); !failure.empty()) {
        job.fault = Fault{TaskReason::kLocal, 0, failure};
    }
    return job;
}

void RunExtended(ExtendedJob& job) {
    engine::Result result;
    if (job.fault) {
        result = engine::Failed(*job.fault);
        if (!Wanted()) result.end = engine::End::kStopped;
    } else if (!IsDownloadCommand(job.task->nCmd)) {
        if (RunPage(*job.task, job.request)) return AnnounceEnd();
        result = engine::Failed({TaskReason::kLocal, ENOMEM, NO_MEMORY});
    } else {
        SlotReport report;
        if (g_Pool == nullptr) g_Pool = std::make_unique<engine::Pool>();
        result = engine::Fetch(TaskOf(*job.task, job.request), *job.file, report, *g_Pool);
    }
    const std::int32_t stay = job.request.nStaySeconds;
    if (Report(result, *job.task, stay > 0)) g_StaySeconds = stay;
    g_Exit = true;
}

void ReportPageFailure(const tagTaskContext& task, const tagTaskAnswer& answer) {
    if (!IsExtended(task)) {
        SendStateMSG(FailureCode(task));
    } else if (OwnsSlot()) {
        ReportAnswer(EncodeAnswer(answer), FailureCode(task));
    }
}
