// The course of one transfer: what transfer.h promises. Sources: course.cpp keeps the
// time, coursework.cpp gives out work, courserate.cpp keeps the limit, courseends.cpp says what
// follows an answer or the end of a request.
//
// Its life is a row of rounds. A round begins with one request; once that has been judged good,
// further connections may be asked as well. When the last one has failed, the next round begins
// after a pause.
#pragma once

#include <list>
#include <memory>
#include <optional>
#include <random>
#include <vector>

#include "Tarnwick/engine/connection.h"
#include "Tarnwick/engine/transfer.h"

namespace engine {

class Course : private Uncopyable {
  public:
    Course(const Task& task, PartFile& file, Watcher& watcher, Pool& pool);

    Result Run();

  private:
    // ---- course.cpp
    void Open();
    void Prepare(CURL* curl) const;
    bool HandleEnds();
    void LookAtClocks();
    void Tick();
    void FlushAll();
    void Poll();
    void Report();
    Result Conclude();
    void GiveUp(const Fault& fault);
    void GiveUp(const Judgement& judged, const std::string& remark = "");
    void GiveUp(TaskReason reason, const std::string& message);

    // ---- coursework.cpp
    void GiveWork();
    void BeginRound();
    void GiveFurtherWork();
    void AddConditions(Request& request) const;
    bool Ask(Connection& connection, Request request);
    bool AskFor(Connection& connection, const Range& range);
    Connection* NewConnection();
    std::optional<Range> MoreFor(int id, std::uint64_t least);
    void NoteGain();
    void NoteConnections();

    // ---- courserate.cpp
    bool GoOn();
    Clock::duration UntilGoOn(Clock::time_point now) const;
    long ReceiveSize();

    // ---- courseends.cpp
    Judgement OnAnswer(Connection& connection);
    Judgement BeginAnew(Connection& connection, const Answer& answer, std::uint64_t size);
    Judgement TakePart(Connection& connection, const Judgement& judged);
    MaybeFault Describe();
    void OnEnd(Connection& connection, CURLcode code);
    void OnGood(Connection& connection, CURLcode code);
    void OnFailure(Connection& connection, const Judgement& judged);
    void FailRound(const Judgement& judged, bool gotBytes);
    bool MayServeOnce(const Judgement& judged) const;
    bool IsWaitedFor(const Answer& answer, const Judgement& judged) const;
    bool IsStuck();
    void StartOver();
    std::time_t RemoteTime() const;
    void Retire(Connection& connection);
    void NoteAnswer(const Connection& connection);

    int BusyCount() const;
    // Whether bytes that were fetched before may be completed by others.
    bool CanContinue() const;
    std::uint64_t Received() const;
    Clock::duration Pause(const Judgement& judged);

    const Task& task_;
    Watcher& watcher_;
    PartFile& file_;
    Blocks blocks_;
    Bucket bucket_{};
    Pool& pool_;
    CURLM* const multi_;
    Connection::Shared shared_;
    std::vector<std::unique_ptr<Connection>> connections_{};  // by id
    std::minstd_rand random_;

    Known known_{};
    std::string final_url_{};  // of the last good answer
    bool use_final_ = false;   // ask there rather than at the task's address
    bool ranges_ = true;       // the server may know ranges
    bool round_judged_ = false;
    bool begun_ = false;   // something of this run, or of one before, is in the file
    bool judged_ = false;  // an answer has been, since the last look for work
    bool told_ = false;    // the watcher knows the size
    bool over_ = false;
    bool forgiven_ = false;   // a final status that may be due to connections of before
    int ceiling_;             // most connections
    int started_over_ = 0;    // because the file had changed
    int failures_ = 0;        // tries in a row that brought nothing new
    std::uint64_t best_ = 0;  // most bytes that were there at the end of a try
    int stuck_ = 0;           // connections that failed since something came last
    std::uint64_t stuck_at_ = 0;
    Clock::time_point rest_until_{};
    Clock::time_point next_tick_{};
    Clock::time_point next_steal_{};

    // What a further connection has brought: the speed since the last one was added.
    Clock::time_point gain_since_{};
    std::uint64_t gain_from_ = 0;
    double gain_rate_ = 0.0;

    Result result_{};
};

}  // namespace engine
