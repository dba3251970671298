#include "Console/cli/options.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <limits>

#include "Console/base/outcome.h"
#include "Console/cli/arguments.h"
#include "Console/cli/forms.h"
#include "common/platform.h"

Setter More(std::vector<std::string>& texts, std::string (*fault)(std::string_view)) {
    return [&texts, fault](const std::string& value) {
        texts.push_back(value);
        return fault(value);
    };
}

std::string IdFault(std::string_view id) {
    return id.empty() ? "an id is needed" : "";
}

namespace {

constexpr const char* kUsage =
    "Examples:\n"
    "  taskman get https://example.org/file.iso\n"
    "  taskman get --help\n"
    "\n"
    "Downloads files and resolves video pages, each by a worker process of its own.\n"
    "\n"
    "Verbs:\n"
    "  get    download files, or the videos of pages\n"
    "  info   show what the page of a video offers\n"
    "  top    show what runs, again every second\n"
    "  stop   ask running tasks to stop\n"
    "  clean  remove what killed commands left behind\n";

constexpr const char* kTopExamples =
    "Examples:\n"
    "  taskman top\n"
    "  watch -n 5 taskman top --once\n"
    "  taskman top --json | jq -r 'select(.state == \"downloading\").id'\n"
    "\n"
    "Shows the tasks of this user's managers: on a terminal every second, until q is\n"
    "pressed; elsewhere once. The managers are not disturbed.\n";

constexpr const char* kTopExits = "Exit status: 0 shown, 1 no such manager, 2 wrong usage.";

constexpr const char* kStopExamples =
    "Examples:\n"
    "  taskman stop 000b356b03985b\n"
    "  taskman stop --all\n"
    "\n"
    "Asks tasks of this user to stop; \"taskman top\" lists their ids. The beginning of\n"
    "an id is enough when no other id begins so. A task stops within seconds.\n";

constexpr const char* kStopExits =
    "Exit status: 0 all were asked, 1 an id names no task, or several, 2 wrong usage.";

constexpr const char* kCleanExamples =
    "Examples:\n"
    "  taskman clean -n\n"
    "  taskman clean\n"
    "\n"
    "Removes what managers of this user that were killed have left: their sections\n"
    "and locks, workers that go on for nobody, and the parts of their files but for\n"
    "those that can be continued. \"get\" and \"info\" do the same when they start;\n"
    "where a part lies is known no more then.\n";

constexpr const char* kCleanExits =
    "Exit status: 0 nothing is left, 2 wrong usage, 3 a part cannot be removed.";

VerbForm TopForm(Command& command) {
    TopOptions& top = command.top;
    return {"top [OPTIONS] [PID]",
            kTopExamples,
            kTopExits,
            {
                {"PID", "", "process id of the only manager to be shown",
                 Number(top.manager, 1, std::numeric_limits<std::int32_t>::max())},
                {"--once", "", "one table, also on a terminal", Set(top.once, true)},
                {"--json", "", "once, one JSON object a line", Set(top.json, true)},
            }};
}

VerbForm StopForm(Command& command) {
    StopOptions& stop = command.stop;
    return {
        "stop [OPTIONS] [ID...]",
        kStopExamples,
        kStopExits,
        {
            {"ID", "...", "ids of tasks, or their beginnings", More(stop.ids, IdFault), "--all"},
            {"--all", "", "every task of this user", Set(stop.all, true)},
        },
        [&stop] { return stop.ids.empty() && !stop.all ? "an ID is required, or --all" : ""; }};
}

VerbForm CleanForm(Command& command) {
    return {"clean [OPTIONS]",
            kCleanExamples,
            kCleanExits,
            {
                {"-n,--dry-run", "", "only tell what is there", Set(command.clean.lookOnly, true)},
                {"--parts", "", "partial files that can be continued, too",
                 Set(command.clean.parts, true)},
            }};
}

constexpr struct {
    const char* name;
    Verb verb;
    VerbForm (*form)(Command& command);
} kVerbs[] = {
    {"get", Verb::kGet, GetForm},       {"info", Verb::kInfo, InfoForm},
    {"top", Verb::kTop, TopForm},       {"stop", Verb::kStop, StopForm},
    {"clean", Verb::kClean, CleanForm},
};

int Refuse(const std::string& reason, const std::string& verb) {
    WriteAll(STDERR_FILENO, FaultLine(reason + " (see taskman" + verb + " --help)"));
    return EXIT_STATUS_USAGE;
}

// The version, and what workers of this system give up (platform.h).
std::string Version() {
    std::string words;
    for (const std::string& word : platform::Confines()) {
        words += (words.empty() ? "" : ", ") + word;
    }
    return "taskman " TASKMAN_VERSION "\nconfinement: " + (words.empty() ? "none" : words) + "\n";
}

}  // namespace

std::optional<int> ParseCommandLine(int argc, const char* const* argv, Command& command) {
    const std::vector<std::string> arguments(argv + std::min(argc, 2), argv + argc);
    const std::string word = argc < 2 ? "--" : argv[1];
    const auto print = [](const std::string& text) {
        std::fputs(text.c_str(), stdout);
        return EXIT_STATUS_FINISHED;
    };
    if (word == "-h" || word == "--help") {
        return print(HelpText({"[OPTIONS] VERB",
                               kUsage,
                               "",
                               {{"--version", "", "Print the version and exit", nullptr}}}));
    }
    if (word == "--version") return print(Version());
    if (word == "--") {
        std::fputs(kUsage, stderr);
        return EXIT_STATUS_USAGE;
    }
    for (const auto& [name, verb, form] : kVerbs) {
        if (word != name) continue;
        command.verb = verb;
        bool help = false;
        const VerbForm own = form(command);
        const std::string fault = ParseArguments(own, arguments, help);
        if (!fault.empty()) return Refuse(fault, std::string(" ") + name);
        return help ? std::optional<int>(print(HelpText(own))) : std::nullopt;
    }
    return Refuse(
        word.starts_with("-") ? "unknown option " + word : "unknown verb \"" + word + "\"", "");
}
