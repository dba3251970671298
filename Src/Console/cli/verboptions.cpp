#include "Console/cli/verboptions.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <limits>
#include <utility>

namespace {

constexpr const char* kTopExamples =
    "Examples:\n"
    "  taskman top\n"
    "  watch -n 5 taskman top --once\n"
    "  taskman top --json | jq -r 'select(.state == \"downloading\").id'\n"
    "\n"
    "Shows what the managers of this user do: on a terminal again every second, until\n"
    "q is pressed; else one table. Nothing is disturbed by it.\n";

constexpr const char* kTopExits = "Exit status: 0 shown, 1 no such manager, 2 wrong usage.";

constexpr const char* kStopExamples =
    "Examples:\n"
    "  taskman stop 000b356b03985b\n"
    "  taskman stop --all\n"
    "\n"
    "Asks tasks of this user to stop; \"taskman top\" tells their ids. The beginning of\n"
    "an id is enough when no other task's begins alike. A task stops within seconds.\n";

constexpr const char* kStopExits =
    "Exit status: 0 all were asked, 1 one was not found or not told apart, 2 wrong\n"
    "usage.";

constexpr const char* kCleanExamples =
    "Examples:\n"
    "  taskman clean -n\n"
    "  taskman clean\n"
    "\n"
    "Removes what managers of this user that were killed have left: their sections\n"
    "and locks, workers that go on for nobody, and the parts of their files. \"get\"\n"
    "and \"info\" do the same when they start.\n";

constexpr const char* kCleanExits =
    "Exit status: 0 nothing is left, 2 wrong usage, 3 a part cannot be removed.";

CLI::App* AddVerb(CLI::App& app, const char* name, const char* examples, const char* exits) {
    CLI::App* verb = app.add_subcommand(name, examples);
    verb->group("");  // the overview has a line of its own for it
    verb->footer(exits);
    return verb;
}

}  // namespace

CLI::Option* AddNumber(CLI::App& verb, const std::string& names, std::int32_t& number, int least,
                       int most, const std::string& what) {
    return verb.add_option(names, what)->check([&number, least, most](const std::string& text) {
        std::uint32_t value = 0;  // takes no sign
        const char* end = text.data() + text.size();
        const auto [stop, error] = std::from_chars(text.data(), end, value);
        if (error != std::errc() || stop != end || std::cmp_less(value, least) ||
            std::cmp_greater(value, most)) {
            return "Value " + text + " not in range " + std::to_string(least) + " to " +
                   std::to_string(most);
        }
        number = static_cast<std::int32_t>(value);
        return std::string();
    });
}

CLI::App* AddTop(CLI::App& app, TopOptions& options) {
    CLI::App* verb = AddVerb(app, "top", kTopExamples, kTopExits);
    AddNumber(*verb, "PID", options.manager, 1, std::numeric_limits<int>::max(),
              "process id of the only manager to be shown")
        ->option_text(" ");
    verb->add_flag("--once", options.once, "one table, also on a terminal")->option_text(" ");
    verb->add_flag("--json", options.json, "once, one JSON object a line")->option_text(" ");
    return verb;
}

CLI::App* AddStop(CLI::App& app, StopOptions& options) {
    CLI::App* verb = AddVerb(app, "stop", kStopExamples, kStopExits);
    CLI::Option* ids =
        verb->add_option("ID", options.ids, "ids of tasks, or their beginnings")
            ->option_text("...")
            ->check([](const std::string& id) { return id.empty() ? "an id is needed" : ""; });
    CLI::Option* all =
        verb->add_flag("--all", options.all, "every task of this user")->option_text(" ");
    ids->excludes(all);
    verb->parse_complete_callback([&options] {
        if (options.ids.empty() && !options.all) {
            throw CLI::ValidationError("an ID is required, or --all");
        }
    });
    return verb;
}

CLI::App* AddClean(CLI::App& app, CleanOptions& options) {
    CLI::App* verb = AddVerb(app, "clean", kCleanExamples, kCleanExits);
    verb->add_flag("-n,--dry-run", options.lookOnly, "only tell what is there")->option_text(" ");
    return verb;
}
