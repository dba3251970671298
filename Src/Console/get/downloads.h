// The files of one `taskman get`: which run, which wait, and what became of the others.
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "Console/cli/events.h"
#include "Console/cli/options.h"
#include "Console/cli/session.h"
#include "Console/get/fetch.h"
#include "Console/get/inputlist.h"
#include "Console/screen/display.h"

// Works on the main thread. The manager runs from the first StartNext until the last task has ended
// or Abandon was called. Files are taken up when there is room for them and forgotten when they
// have ended, so a list may be of any length.
class Downloads : public Work {
  public:
    // The references outlive the object. `list` is read after the addresses of the options.
    Downloads(const GetOptions& options, InputList& list, FailedList& failed, EventQueue& events,
              Display& display);

    // Begins files in their order while fewer than the wanted number run and the manager has room.
    bool StartNext() override;
    int Awaits() const override;
    void Handle(const Event& event) override;
    std::size_t Stop() override;

    // Removes the parts and the locks' names.
    void Abandon() override;

    // Completes the list of what did not finish. `atOnce`: nothing may hold up the end.
    void Finish(bool atOnce) override;
    bool Done() const override;
    ExitStatus Status() const override { return status_; }
    const Totals& Counts() const override { return totals_; }
    std::vector<const FileView*> Running() const override;

  private:
    using File = std::unique_ptr<Fetch>;

    InputList::Taken TakeRequest(Request& request);
    bool HasRoom() const;
    void CopyRest(bool atOnce);
    bool Start(File& file);
    bool Claimed(const Fetch& file) const;
    void Report(File file, Outcome outcome);
    void PrintPath(const std::string& path);
    void Tell(const Fetch& file, Outcome outcome);

    const GetOptions& options_;
    InputList& list_;
    FailedList& failed_;
    EventQueue& events_;
    Display& display_;
    std::size_t taken_ = 0;                      // addresses of the options
    File next_{};                                // taken, not begun
    std::map<std::string, File> running_{};      // by their ids; something is on
    std::deque<File> resolved_{};                // the second task comes next
    std::vector<File> unseen_{};                 // reported at a stop without waiting for the look
    std::unordered_set<std::size_t> written_{};  // hashes of the paths of the last finished files
    Totals totals_{};
    ExitStatus status_ = EXIT_STATUS_FINISHED;
    bool stopping_ = false;
    const bool print_paths_;
};
