// The files of one `taskman get`: which run, which wait, and what became of the others.
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Console/display.h"
#include "Console/events.h"
#include "Console/options.h"
#include "Console/session.h"
#include "Console/target.h"

// Works on the main thread. The manager runs from the first StartNext until the last task has ended
// or Abandon was called.
class Downloads : public Work {
  public:
    // The references outlive the object.
    Downloads(const GetOptions& options, EventQueue& events, Display& display);
    ~Downloads() override;

    // Begins files in their order while fewer than the wanted number run and the manager has room.
    void StartNext() override;
    void Handle(const Event& event) override;
    std::size_t Stop() override;

    // Removes the parts and the locks' names.
    void Abandon() override;
    bool Done() const override;
    ExitStatus Status() const override { return status_; }
    const Totals& Counts() const override { return totals_; }
    std::vector<const FileView*> Running() const override;

  private:
    // One file. From its start to the end of its last step it is in running_, but for the time
    // between its two tasks when it is that of a page: then it is in resolved_.
    struct File {
        std::string address{};
        bool page = false;    // the address is that of a page
        std::string fault{};  // why the address cannot be used; empty: it can
        std::unique_ptr<Target> target{};
        std::string id{};  // of its task
        FileView view{};
        double seconds = 0;    // from start to final code
        bool storing = false;  // its task has ended; the last step is on
        std::thread store{};
    };

    void Plan(File& file);
    void Aim(File& file, const std::string& name);
    bool Start(File& file);
    Outcome Refusal(File& file);
    bool AddTaskFor(File& file, std::string& reason);
    void Ended(File& file, const Event& event);
    void Resolved(File& file, const Event& event);
    Outcome FailureOf(const File& file, const Event& event) const;
    void Store(File& file);
    void Report(File& file, Outcome outcome);
    void Tell(const File& file, const Outcome& outcome);
    std::size_t TaskCount() const;

    const GetOptions& options_;
    EventQueue& events_;
    Display& display_;
    std::vector<std::unique_ptr<File>> files_{};
    std::size_t next_ = 0;  // first file that has not begun
    std::map<std::string, File*> running_{};
    std::deque<File*> resolved_{};     // the second task comes next
    std::set<std::string> claimed_{};  // paths of files and parts
    Totals totals_{};
    ExitStatus status_ = EXIT_STATUS_FINISHED;
    bool stopping_ = false;
    const bool print_paths_;
};
