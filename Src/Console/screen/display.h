// What a person sees of the downloads. The logic reports to a Display and knows nothing of its
// form.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Console/cli/outcome.h"
#include "common/uncopyable.h"

using Clock = std::chrono::steady_clock;

// One file, as far as its worker has reported.
struct FileView {
    std::string name{};           // fit for a terminal
    std::string id{};             // of its present task; empty when it never had one
    std::string address{};        // as it was given, or as the page told it
    std::string path{};           // where the file goes; empty while that is unknown
    double size = -1;             // bytes; below 0 while unknown
    double percent = 0;           // 0 to 100
    double speed = -1;            // bytes per second; below 0 while unknown
    bool answered = false;        // bytes of the file have come
    int tries = 1;                // how often its worker has begun it
    Clock::time_point started{};  // of its task

    double Received() const { return size < 0 ? 0 : size * percent / 100; }
};

// All files of the command.
struct Totals {
    std::size_t files = 0;
    std::size_t waiting = 0;  // not begun
    std::size_t finished = 0;
    std::size_t skipped = 0;  // was there before
    std::size_t stopped = 0;
    std::size_t ended = 0;     // finished, skipped, stopped or failed
    double finishedBytes = 0;  // of the finished files

    std::size_t Failed() const { return ended - finished - skipped - stopped; }
};

// Calls come from one thread. A FileView keeps its address from Begin to End.
class Display : private Uncopyable {
  public:
    virtual ~Display() = default;

    // A task of the file has been started; the file of a page has a second one, once its name is
    // known.
    virtual void Begin(const FileView& file) = 0;

    // The worker reported `code` with `value`; `file` holds it already.
    virtual void State(const FileView& file, std::int32_t code, double value) = 0;

    // The file has ended; one that was refused had no Begin.
    virtual void End(const FileView& file, const Outcome& outcome) = 0;

    // A line to be shown at once.
    virtual void Note(const std::string& line) = 0;

    // The state of things, told several times a second.
    virtual void Refresh(const std::vector<const FileView*>& running, const Totals& totals) = 0;

    // Something else is going to be written to the screen: only what stays may stand there.
    virtual void Clear() {}

    // The terminal may have another size. After the command was suspended (`resumed`), what it had
    // drawn is no longer where it was.
    virtual void ScreenChanged(bool resumed) = 0;

    // Nothing more comes. `status` is that of the command; above 128 a signal ends it.
    virtual void Close(const Totals& totals, int status) = 0;
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

// Left to itself: bars on standard error when that is a terminal that can do it, else plain lines
// there; colours on such a terminal, unless NO_COLOR is set.
std::unique_ptr<Display> MakeDisplay(const DisplayOptions& options);

// ---- Texts that all displays share.

// "file.iso: finished, 64.0 MiB in 4.1 s, 15.6 MiB/s"; "file.iso: failed: the reason (a second
// look: HTTP 404)"
std::string EndLine(const FileView& file, const Outcome& outcome);

// "2 of 6 files finished, 1 skipped, 1 failed, 1 stopped, 1 not begun"; empty when there is but one
// file.
std::string SummaryLine(const Totals& totals);

// What a worker has reported: "file.iso: code 10: 64.0 MiB are to come"
std::string StateLine(const FileView& file, std::int32_t code);

// A file's task: "file.iso: task 1f2e3d, http://host/file.iso -> dir/file.iso"
std::string TaskLine(const FileView& file);

// The line as it is shown where colours are wanted: what went wrong is red.
std::string Coloured(const std::string& line, EndResult result);

// Seconds until the rest of `bytes` has come at `speed`; below 0 when that cannot be said.
double TimeLeft(double bytes, double speed);

// ---- Output, for the main thread.

// Writes everything to a descriptor. False when that cannot be done, or when the command is to end
// and whoever reads takes nothing more.
bool WriteAll(int descriptor, std::string_view bytes);

// Why a write to standard output has failed just now, by errno; empty when whoever read has gone,
// who knows.
std::string OutputFault();

// Writes what a verb has found to standard output and what is wrong to standard error. False when
// that cannot be done, which is told as well.
bool WriteResult(const std::string& found, std::string faults = "");

// Writes everything to standard output. When that fails, it ends the command as SIGTERM does,
// nothing more is written, and the result is false; the first time `fault` is the OutputFault().
bool Print(std::string_view bytes, std::string& fault);
