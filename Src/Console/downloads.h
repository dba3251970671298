// The files of one `taskman get`: which run, which wait, and what became of the others.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Console/display.h"
#include "Console/events.h"
#include "Console/options.h"
#include "Console/target.h"

// Works on the main thread. The manager runs from the first StartNext until the last task has ended
// or Abandon was called.
class Downloads : private Uncopyable {
  public:
    // The references outlive the object.
    Downloads(const GetOptions& options, EventQueue& events, Display& display);
    ~Downloads();

    // Begins files in their order while fewer than the wanted number run and the manager has room.
    void StartNext();

    // Acts on one event from the queue.
    void Handle(const Event& event);

    // Begins nothing more and asks every running task to stop. Returns how many were asked.
    std::size_t Stop();

    // For an end that waits for nothing: removes the names of the parts and locks of running tasks,
    // and reports these as stopped. Nothing else may be called afterwards.
    void Abandon();

    // Whether no file runs and none will be begun.
    bool Done() const;

    ExitStatus Status() const { return status_; }
    const Totals& Counts() const { return totals_; }

    // The files that have a line in a display.
    std::vector<const FileView*> Running() const;

  private:
    // One file. From its start to the end of its last step it is in running_.
    struct File {
        std::string address{};
        std::string fault{};  // why the address cannot be used; empty: it can
        std::unique_ptr<Target> target{};
        std::string id{};  // of its task
        FileView view{};
        double seconds = 0;    // from start to final code
        bool storing = false;  // its task has ended; the last step is on
        std::thread store{};
    };

    void Plan(File& file);
    bool Start(File& file);
    Outcome Refusal(File& file);
    bool AddTaskFor(File& file, std::string& reason);
    void Ended(File& file, const Event& event);
    Outcome FailureOf(const File& file, const Event& event) const;
    void Store(File& file);
    void Report(File& file, Outcome outcome);
    void Tell(const File& file, const Outcome& outcome);
    void PrintPath(const std::string& path);
    std::size_t TaskCount() const;

    const GetOptions& options_;
    EventQueue& events_;
    Display& display_;
    std::vector<std::unique_ptr<File>> files_{};
    std::size_t next_ = 0;  // first file that has not begun
    std::map<std::string, File*> running_{};
    std::set<std::string> claimed_{};  // paths of files and parts
    Totals totals_{};
    ExitStatus status_ = EXIT_STATUS_FINISHED;
    bool stopping_ = false;
    const bool print_paths_;
};
