#include "Console/others/info.h"

#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "Console/base/signals.h"
#include "Console/get/downloads.h"
#include "Console/get/filename.h"
#include "Console/get/session.h"
#include "Console/screen/display.h"
#include "Console/screen/jsontext.h"
#include "Console/screen/text.h"
#include "common/address.h"

namespace {

constexpr int kColumns = 80;
constexpr int kLabelColumns = 8;
constexpr int kMostOfId = 30;

// Says why there is no page: to people on standard error, with --json also to programs by an object
// on standard output.
class InfoDisplay : public Display {
  public:
    // `options` outlive the object.
    explicit InfoDisplay(const InfoOptions& options) : options_(options) {}

    // Writes to standard output.
    void Write(const std::string& out) {
        std::string fault;
        if (!Print(out, fault) && !fault.empty()) Fault(fault);
    }

    void Ended(const FileView& file, const Outcome& outcome) override {
        information_ = file.information;
        answer_ = file.answer;
        // After a signal nobody asks why.
        if (outcome.result != EndResult::kFinished && signals::StopCount() == 0) Fail(outcome);
    }

    void Fail(const Outcome& outcome) {
        Note(EndLine({text::Printable(options_.address)}, outcome));
        message_ = outcome.message;
    }

    void Note(const std::string& line) override { WriteAll(STDERR_FILENO, line + "\n"); }

    void Fault(const std::string& fault) override {
        message_ = text::Printable(fault);
        Display::Fault(fault);
    }

    void Finish(const Totals&, int status) override {
        if (!options_.json || status == EXIT_STATUS_FINISHED) return;
        nlohmann::ordered_json end{{"v", JSON_VERSION}, {"event", "end"}};
        SetText(end, "address", options_.address);
        SetAnswer(end, answer_, message_);
        if (options_.request.bInsecure) end["insecure"] = true;
        end["exit"] = status;
        Write(JsonLine(end));
    }

    // What the page offers; empty when it was not resolved.
    const std::string& Information() const { return information_; }

  private:
    const InfoOptions& options_;
    std::string information_{};
    std::string message_{};  // empty: none, or it was interrupted
    tagTaskAnswer answer_{};
};

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
    display.Finish({}, outcome.status);
    return outcome.status;
}

// Writes what the options ask for.
int Write(const InfoOptions& options, const VideoPage& page, InfoDisplay& display) {
    const VideoFormat* taken = Choose(page, options.format);
    if (taken == nullptr && (options.format.Given() || options.url)) {
        return Fail(display, {EndResult::kFailed, EXIT_STATUS_UNRESOLVED, NO_SUCH_FORMAT});
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
        out = options.json ? PageJson(page, taken, options.request.bInsecure)
                           : PageTable(page, taken);
    }
    display.Write(out);
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

std::string PageJson(const VideoPage& page, const VideoFormat* taken, bool insecure) {
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
    if (insecure) all["insecure"] = true;
    return JsonLine(all);
}

int RunInfo(InfoOptions options) {
    tagTaskRequest& request = options.request;
    std::string fault = TakeLogin(options.address, request.strUser, request.strPassword);
    if (fault.empty()) fault = RefusalOf(request);
    InfoDisplay display(options);
    Proxy proxy;
    if (fault.empty()) fault = AddressFault(options.address, PAGE_ADDRESS_MOST);
    if (fault.empty()) fault = options.proxy.For(options.address, proxy);
    if (!fault.empty()) {
        return Fail(display, {EndResult::kRefused, EXIT_STATUS_USAGE, std::move(fault)});
    }
    GetOptions get;
    get.addresses = {options.address};
    get.proxy = options.proxy;
    get.request = options.request;
    get.resolveOnly = true;
    if (request.bInsecure) display.Warn(INSECURE_WARNING);
    const WakePipe& wake = signals::Install();
    EventQueue events(wake);
    InputList noList;
    FailedList noFailedList;
    Downloads pages(get, noList, noFailedList, events, display);
    int status = Session(pages, "page", wake, events, display).Run(options.worker);
    if (status == EXIT_STATUS_FINISHED) {
        status = Write(options, ReadVideoPage(display.Information()), display);
    }
    // Print raises SIGTERM when the reader has left.
    if (signals::StopCount() > 0) signals::EndBy(signals::StopSignal());
    return status;
}
