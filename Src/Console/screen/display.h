// What people and programs see of the downloads. The logic reports to a Display and does not know
// its form.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Console/base/outcome.h"
#include "TaskMan/tasktext.h"
#include "common/uncopyable.h"

using Clock = std::chrono::steady_clock;

// A speed as people want to see it: what the worker reports once a second, smoothed over some
// seconds.
class SmoothSpeed {
  public:
    // Bytes per second; below 0: unknown.
    SmoothSpeed(double speed = -1) : from_(speed), latest_(speed) {}

    void Note(double speed, Clock::time_point now);
    double At(Clock::time_point now) const;
    double Latest() const { return latest_; }  // as it was reported last

  private:
    double from_;  // at `since_`, from where it approaches `latest_`
    double latest_;
    Clock::time_point since_{};
};

// One file, as far as its worker has reported.
struct FileView {
    std::string name{};     // printable
    std::string id{};       // of its last task; empty when it never had one
    std::string address{};  // as it was given, or as its page gave it; without a login
    std::string path{};     // where the file goes; empty while that is unknown
    double size = -1;       // bytes; below 0 while unknown
    double percent = 0;     // 0 to 100
    SmoothSpeed speed{};
    bool answered = false;        // bytes of the file have arrived
    bool foundPart = false;       // a partial file of an earlier run was there
    tagTaskAnswer answer{};       // what the worker has told last
    Clock::time_point started{};  // of its task
    std::string information{};    // information text of a page that was only to be resolved

    double Received() const { return size < 0 ? 0 : size * percent / 100; }
};

// All files of the command.
struct Totals {
    std::size_t files = 0;
    std::size_t waiting = 0;  // not begun
    std::size_t finished = 0;
    std::size_t skipped = 0;  // was there before
    std::size_t stopped = 0;
    std::size_t ended = 0;      // all of these, and what failed
    double finishedBytes = 0;   // of the finished files
    std::size_t unchanged = 0;  // was there before, and the server has nothing newer
    bool more = false;          // a list has more files than were read

    std::size_t Failed() const { return ended - finished - skipped - unchanged - stopped; }
};

// "files.example is busy: waiting 30 s"; printable.
std::string RestingLine(const std::string& host, double seconds);

// Calls come from one thread. A FileView stays at its address from Started to Ended.
class Display : private Uncopyable {
  public:
    virtual ~Display() = default;

    // A task of the file has been started. The file of a page has two: the second one starts when
    // its name is known.
    virtual void Started(const FileView& /*file*/) {}

    // The worker reported `code` with `value`, which `file` shows already.
    virtual void State(const FileView& /*file*/, std::int32_t /*code*/, double /*value*/) {}

    // The worker has told whether it goes on with a partial file: once for each beginning.
    virtual void Begun(const FileView& /*file*/) {}

    // The file has ended. One that was refused or skipped may have had no Started.
    virtual void Ended(const FileView& file, const Outcome& outcome) = 0;

    // A busy host is asked for nothing for some seconds.
    virtual void Resting(const std::string& host, double seconds) {
        Note(RestingLine(host, seconds));
    }

    // Shows a line at once; it is printable.
    virtual void Note(const std::string& line) = 0;

    // Shows at once what is wrong with the command as a whole. `fault` may hold any bytes.
    virtual void Fault(const std::string& fault);

    // Shows at once what the user has to know in every run; it is printable.
    virtual void Warn(const std::string& warning) { Note("taskman: warning: " + warning); }

    // The present state, several times a second.
    virtual void Refresh(const std::vector<const FileView*>& /*running*/,
                         const Totals& /*totals*/) {}

    // Erases the transient lines: something else is about to write to the screen.
    virtual void Clear() {}

    // The terminal may have another size. After a suspension (`resumed`) what was drawn may be
    // anywhere.
    virtual void ScreenChanged(bool /*resumed*/) {}

    // The last call. `status` is that of the command; above 128 a signal ends it.
    virtual void Finish(const Totals& totals, int status) = 0;
};

enum class ProgressForm { kAuto, kBar, kPlain, kNone };
enum class Colour { kAuto, kAlways, kNever };

// What the user wants to see.
struct DisplayOptions {
    bool json = false;     // objects for programs on standard output, instead of anything else
    bool quiet = false;    // failures only
    bool verbose = false;  // what the workers report, too
    ProgressForm progress = ProgressForm::kAuto;
    Colour colour = Colour::kAuto;
};

// By default: bars on standard error when that is a terminal that can draw them, else plain lines
// there; colours on such a terminal, unless NO_COLOR is set.
std::unique_ptr<Display> MakeDisplay(const DisplayOptions& options);

// Whether the descriptor is a terminal that can move its cursor: TERM is set, and not "dumb".
bool CanDraw(int descriptor);

// ---- Texts that all displays share.

// "file.iso: finished, 100 % of 64.0 MiB in 4.1 s, 15.6 MiB/s"; "file.iso: failed: HTTP 404"
std::string EndLine(const FileView& file, const Outcome& outcome);

// "2 of 7 files finished, 1 skipped, 1 unchanged, 1 failed, 1 stopped, 1 not begun"; empty when
// there is but one file.
std::string SummaryLine(const Totals& totals);

// What a worker has reported: "file.iso: code 10: 64.0 MiB are to come"
std::string StateLine(const FileView& file, std::int32_t code);

// A file's task: "file.iso: task 1f2e3d, http://host/file.iso -> dir/file.iso"
std::string TaskLine(const FileView& file);

// What became of a partial file of an earlier run: "file.iso: continues at 61 %", "file.iso: starts
// over: why"; empty when there was none. `verbose`: also that it starts over.
std::string BegunLine(const FileView& file, bool verbose);

// The line in red if the result is a failure.
std::string Coloured(const std::string& line, EndResult result);

// Seconds until `bytes` more have arrived at `speed` bytes per second; below 0 when unknown.
double TimeLeft(double bytes, double speed);

// ---- Output, for the main thread.

// Writes everything to a descriptor; any thread may call. False when that fails, with errno set:
// ETIMEDOUT when the command is to end and the reader does not read.
bool WriteAll(int descriptor, std::string_view bytes);

// Why the last write to standard output failed, by errno; empty for EPIPE: the reader left on
// purpose.
std::string OutputFault();

// The line on standard error that tells a fault of the command, which may hold any bytes.
std::string FaultLine(const std::string& fault);

// Writes the result of a verb to standard output and its fault lines to standard error. False when
// one of the two fails; what is wrong with standard output is added to the fault lines.
bool WriteResult(const std::string& result, std::string faultLines = "");

// Writes everything to standard output. When that fails, the command ends as after SIGTERM, later
// calls write nothing, and the result is false; the first time `fault` is set to OutputFault().
bool Print(std::string_view bytes, std::string& fault);
