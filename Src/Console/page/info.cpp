#include "Console/page/info.h"

#include <semaphore.h>
#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <thread>

#include "Console/cli/session.h"
#include "Console/cli/signals.h"
#include "Console/get/filename.h"
#include "Console/get/secondlook.h"
#include "Console/page/pagetask.h"
#include "Console/screen/jsontext.h"
#include "Console/screen/plaindisplay.h"
#include "Console/screen/text.h"
#include "TaskMan/taskman.h"

namespace {

constexpr int kColumns = 80;
constexpr int kLabelColumns = 8;
constexpr int kMostOfId = 30;

// Tells why there is no page: people on standard error, and programs, when they are to read, by an
// object on standard output.
class InfoDisplay : public PlainDisplay {
  public:
    // `options` outlive the object.
    explicit InfoDisplay(const InfoOptions& options)
        : PlainDisplay(STDERR_FILENO), options_(options) {}

    // Writes to standard output.
    void Tell(const std::string& out) {
        std::string fault;
        if (!Print(out, fault) && !fault.empty()) Note("taskman: " + fault);
    }

    void Fail(const Outcome& outcome) {
        Note(EndLine({text::Printable(options_.address)}, outcome));
        reason_ = outcome.reason;
        second_look_ = outcome.secondLook;
    }

    void Note(const std::string& line) override {
        constexpr std::string_view kOwn = "taskman: ";  // a fault of the command itself
        if (line.starts_with(kOwn)) reason_ = line.substr(kOwn.size());
        PlainDisplay::Note(line);
    }

    void Close(const Totals&, int status) override {
        if (!options_.json || status == EXIT_STATUS_FINISHED) return;
        nlohmann::ordered_json end{{"v", JSON_VERSION}, {"event", "end"}};
        SetText(end, "address", options_.address);
        SetText(end, "reason", reason_);
        SetText(end, "second_look", second_look_);
        end["exit"] = status;
        Tell(JsonLine(end));
    }

  private:
    const InfoOptions& options_;
    std::string reason_{};  // empty: none, or it was interrupted
    std::string second_look_{};
};

// The one task of the verb.
class Inquiry : public Work {
  public:
    // The references outlive the object.
    Inquiry(const InfoOptions& options, const Proxy& proxy, EventQueue& events,
            InfoDisplay& display)
        : options_(options), proxy_(proxy), events_(events), display_(display) {}
    ~Inquiry() override {
        if (look_.joinable()) look_.join();
    }

    bool StartNext() override;
    void Handle(const Event& event) override;
    std::size_t Stop() override;
    void Abandon() override { sem_unlink(id_.c_str()); }
    bool Done() const override { return done_; }
    ExitStatus Status() const override { return outcome_.status; }
    std::vector<const FileView*> Running() const override { return {}; }
    const Totals& Counts() const override { return totals_; }

    // After a finished outcome.
    const std::string& Text() const { return text_; }

  private:
    void Look(const Outcome& failure);
    void End(Outcome outcome);

    const InfoOptions& options_;
    const Proxy& proxy_;
    EventQueue& events_;
    InfoDisplay& display_;
    std::string id_{};  // empty: no task has been added
    std::string text_{};
    Outcome outcome_{};
    bool done_ = false;
    std::thread look_{};  // a second one, at the page
    const Totals totals_{};
};

bool Inquiry::StartNext() {
    if (done_ || !id_.empty()) return false;
    id_ = MakeTaskID();
    std::string reason;
    if (!AddPageTask(id_, options_.address, proxy_, {}, events_, reason)) {
        End({EndResult::kRefused, EXIT_STATUS_FAILED, reason});
    }
    return false;
}

void Inquiry::Handle(const Event& event) {
    if (event.id != id_ || done_) return;
    if (event.kind == Event::Kind::kEnd) return End(event.outcome);
    if ((FINAL_STATE_BITS >> event.code & 1U) == 0) return;
    if (event.code == DOWNLOAD_STATE_PARSE_FINISH) {
        text_ = event.text;
        return End({});
    }
    Outcome failure = PageFailure(options_.address, event);
    if (!MayBeTheSites(failure) || signals::StopCount() > 0) return End(std::move(failure));
    Look(failure);
}

void Inquiry::Look(const Outcome& failure) {
    outcome_ = failure;
    look_ = std::thread([this, failure] {
        Event event{Event::Kind::kEnd, id_};
        event.outcome = failure;
        event.outcome.secondLook = SecondLook(options_.address, proxy_, Wanted::kPage);
        events_.Add(std::move(event));
    });
}

std::size_t Inquiry::Stop() {
    // The process ends by the signal, whatever a look finds then.
    if (id_.empty() || look_.joinable()) done_ = true;
    return !done_ && StopTask(id_.c_str()) == 0 ? 1 : 0;
}

void Inquiry::End(Outcome outcome) {
    done_ = true;
    outcome_ = std::move(outcome);
    if (outcome_.result == EndResult::kFinished || signals::StopCount() > 0) return;
    display_.Fail(outcome_);
}

std::string FrameText(const VideoFormat& format) {
    if (!format.width) return "unknown";
    return std::to_string(*format.width) + "x" + std::to_string(*format.height);
}

std::string Labelled(const std::string& label, std::string_view bytes) {
    std::string lines;
    for (const std::string& line : text::Wrap(text::Printable(bytes), kColumns - kLabelColumns)) {
        lines += text::PadRight(lines.empty() ? label : "", kLabelColumns) + line + "\n";
    }
    return lines;
}

int Fail(InfoDisplay& display, const Outcome& outcome) {
    display.Fail(outcome);
    display.Close({}, outcome.status);
    return outcome.status;
}

// Writes what the options ask for.
int Write(const InfoOptions& options, const VideoPage& page, InfoDisplay& display) {
    const VideoFormat* taken = Choose(page, options.format);
    if (taken == nullptr && (options.format.Given() || options.url)) {
        return Fail(display,
                    {EndResult::kFailed, EXIT_STATUS_UNRESOLVED, "the page has no such format"});
    }
    std::string out;
    if (options.url) {
        const std::string fault = AddressFault(taken->address);
        if (!fault.empty()) {
            return Fail(display,
                        {EndResult::kFailed, EXIT_STATUS_USAGE, "address of the format: " + fault});
        }
        out = text::Printable(taken->address) + "\n";
    } else {
        out = options.json ? PageJson(page, taken) : PageTable(page, taken);
    }
    display.Tell(out);
    return EXIT_STATUS_FINISHED;
}

}  // namespace

std::string PageTable(const VideoPage& page, const VideoFormat* taken) {
    std::string table = Labelled("Title", page.title.empty() ? "unknown" : page.title);
    table += Labelled("Length",
                      page.length ? text::Clock(static_cast<double>(*page.length)) : "unknown");
    if (page.formats.empty()) return table + "No formats.\n";
    std::vector<std::string> ids{"ID"};
    std::vector<std::string> frames{"Frame"};
    for (const VideoFormat& format : page.formats) {
        ids.push_back(text::CutMiddle(text::Printable(format.id), kMostOfId));
        frames.push_back(FrameText(format));
    }
    const auto widest = [](const std::vector<std::string>& column) {
        int columns = 0;
        for (const std::string& cell : column) columns = std::max(columns, text::Width(cell));
        return columns;
    };
    const int idColumns = widest(ids);
    const int frameColumns = widest(frames);
    table += '\n';
    for (std::size_t row = 0; row < ids.size(); ++row) {
        std::string note;
        if (row > 0 && page.formats[row - 1].address.empty()) note = "no address";
        if (row > 0 && &page.formats[row - 1] == taken) note = "taken";
        std::string line = text::PadRight(ids[row], idColumns) + "  ";
        line += note.empty() ? frames[row] : text::PadRight(frames[row], frameColumns) + "  ";
        table += line + note + "\n";
    }
    return table;
}

std::string PageJson(const VideoPage& page, const VideoFormat* taken) {
    nlohmann::ordered_json all{{"v", JSON_VERSION}, {"event", "page"}};
    SetText(all, "title", page.title);
    all["length_seconds"] = nullptr;
    if (page.length) all["length_seconds"] = *page.length;
    SetText(all, "thumbnail_url", page.thumbnail);
    all["formats"] = nlohmann::ordered_json::array();
    for (const VideoFormat& format : page.formats) {
        nlohmann::ordered_json entry;
        SetText(entry, "id", format.id);
        entry["width"] = nullptr;
        entry["height"] = nullptr;
        if (format.width) {
            entry["width"] = *format.width;
            entry["height"] = *format.height;
        }
        SetText(entry, "url", format.address);
        entry["taken"] = &format == taken;
        all["formats"].push_back(std::move(entry));
    }
    return JsonLine(all);
}

int RunInfo(const InfoOptions& options) {
    InfoDisplay display(options);
    Proxy proxy;
    std::string fault = AddressFault(options.address);
    if (fault.empty()) fault = options.proxy.For(options.address, proxy);
    if (!fault.empty()) {
        return Fail(display, {EndResult::kRefused, EXIT_STATUS_USAGE, std::move(fault)});
    }
    PrepareSecondLooks();
    const WakePipe& wake = InstallSignals();
    EventQueue events(wake);
    Inquiry inquiry(options, proxy, events, display);
    int status = Session(inquiry, "page", wake, events, display).Run(options.worker);
    if (status == EXIT_STATUS_FINISHED) {
        status = Write(options, ReadVideoPage(inquiry.Text()), display);
    }
    // Whoever was to read may be gone.
    if (signals::StopCount() > 0) signals::EndBy(signals::StopSignal());
    return status;
}
