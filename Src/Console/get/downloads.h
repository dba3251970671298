// The files of one `taskman get`: which run, which wait, and how the others ended.
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Console/base/events.h"
#include "Console/get/fetch.h"
#include "Console/get/get.h"
#include "Console/get/hosts.h"
#include "Console/get/inputlist.h"
#include "Console/get/names.h"
#include "Console/get/ratelimit.h"
#include "Console/screen/display.h"

// Works on the main thread. The manager runs from the first StartNext until the last task has ended
// or Abandon was called. A request is read when there is room for its file, and forgotten when the
// file has ended, so a list may be of any length. Files whose hosts may not be asked at present are
// held back in their order, up to 1000 of them, while the list is read on.
class Downloads : private Uncopyable {
  public:
    // The references outlive the object. `list` is read after the addresses of the options.
    Downloads(const GetOptions& options, InputList& list, FailedList& failed, EventQueue& events,
              Display& display);

    // Begins files in their order while fewer than the wanted number run and the manager has room.
    // Returns whether it stopped before that, to let signals and the display have their turn.
    bool StartNext();

    // The descriptor of the list while a request could be begun as soon as the list has one; else
    // -1.
    int Awaits() const;

    // Acts on one event from the queue.
    void Handle(const Event& event);

    // Prints the paths of the files that have ended since the last call, if they are to be printed.
    void PrintPaths();

    // Begins nothing more and asks every running task to stop. Returns how many files are waited
    // for.
    std::size_t Stop();

    // For an end that waits for nothing: removes the parts and the names of the tasks' locks, and
    // reports these files as stopped. Only Finish, Status and Counts may be called afterwards.
    void Abandon();

    // Completes the list of what did not finish; also after Abandon, and when no manager could be
    // started. `atOnce`: nothing may hold up the end.
    void Finish(bool atOnce);

    // Whether nothing runs and nothing will be begun.
    bool Done() const;

    ExitStatus Status() const { return status_; }
    const Totals& Counts() const { return totals_; }
    std::vector<const FileView*> Running() const;

  private:
    using File = std::unique_ptr<Fetch>;

    File NextFile(bool& more);
    File TakeFree(std::deque<File>& files) const;
    bool MayBeAsked(const Fetch& file) const;
    bool LooksAhead() const;
    void NoteHost(Fetch& file, const Event& event);
    void NotePeer(const Fetch& file, const Event& event);
    void ForgiveOthers(const std::string& host);
    InputList::Taken TakeRequest(Request& request);
    bool MayRun() const;
    bool HasRoom() const;
    bool MoreToBegin() const;
    bool Start(File& file);
    std::optional<Outcome> Begin(Fetch& file, bool& later);
    std::string Collision(const Fetch& file) const;
    void Name(Fetch& file) const;
    void Report(File file, Outcome outcome);
    void Count(const Fetch& file, Outcome outcome);
    void CopyRest(bool atOnce);

    const GetOptions& options_;
    InputList& list_;
    FailedList& failed_;
    EventQueue& events_;
    Display& display_;
    Helpers helpers_{};
    std::size_t taken_ = 0;                  // addresses of the options
    File next_{};                            // read, not begun
    std::map<std::string, File> running_{};  // by their ids; a task or a helper thread runs
    std::deque<File> begun_{};  // had a task, and wait for the next: their page has been resolved,
                                // or their host was busy or reached at last
    std::deque<File> held_{};   // read, not begun: their hosts could not be asked
    const std::size_t room_;    // most files at once for which there are descriptors
    Hosts hosts_;
    std::vector<File> unchecked_{};  // reported at a stop, their checks still run
    Names names_{};
    std::optional<Clock::time_point> refused_since_{};  // the manager takes no task, until one
    Clock::time_point again_at_{};                      // is taken, and when it is asked again
    RateLimit limit_;
    Totals totals_{};
    ExitStatus status_ = EXIT_STATUS_FINISHED;
    bool stopping_ = false;
    const bool print_paths_;
    std::string paths_{};  // to be printed, each with its line end
};
