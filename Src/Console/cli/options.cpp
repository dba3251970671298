#include "Console/cli/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <iostream>
#include <utility>

#include "Console/cli/outcome.h"
#include "Console/get/digest.h"
#include "Console/get/filename.h"
#include "Console/screen/text.h"

namespace {

constexpr std::int32_t kLongestTimeout = 1'000'000;
// Where the help tells what an option does; its lines have 80 columns.
constexpr std::size_t kHelpColumn = 29;

constexpr const char* kUsage =
    "Examples:\n"
    "  taskman get https://example.org/file.iso\n"
    "  taskman get --help\n"
    "\n"
    "Downloads files and resolves video pages, each by a worker process of its own.\n"
    "\n"
    "Verbs:\n"
    "  get    download files, or the videos of pages\n"
    "  info   tell what the page of a video offers\n"
    "  top    show what runs, again every second\n"
    "  stop   ask running tasks to stop\n"
    "  clean  remove what killed commands left behind\n";

constexpr const char* kGetExamples =
    "Examples:\n"
    "  taskman get https://example.org/file.iso\n"
    "  taskman get -d ~/Downloads -j 2 URL1 URL2 URL3\n"
    "  taskman get -o today.zip 'https://example.org/archive?day=today'\n"
    "  tar xf \"$(taskman get -q https://example.org/source.tar.gz)\"\n"
    "  until taskman get -s -i todo.txt --failed todo.txt; do sleep 600; done\n"
    "  taskman get --size 640x360 'http://video.example/watch?v=ID'\n"
    "\n"
    "Downloads each URL into NAME.part and renames it when all of it has come. When\n"
    "standard output is no terminal, the paths of the files are written there, one a\n"
    "line. With --format or --size each URL is the page of a video, whose title names\n"
    "the file. A list has a URL in each line; a name and a SHA-256 digest may follow,\n"
    "each behind a TAB.\n";

constexpr const char* kGetExits =
    "Exit status: 0 all finished, 1 a download failed, 2 wrong usage or address,\n"
    "3 local file, 4 a page was not resolved or has no such format, 5 size or SHA-256\n"
    "differs, 6 stopped on request, 130 and 143 interrupted. When several apply, the\n"
    "smallest that is not 0.";

constexpr const char* kInfoExamples =
    "Examples:\n"
    "  taskman info 'http://video.example/watch?v=ID'\n"
    "  taskman info --json 'http://video.example/watch?v=ID' | jq -r .title\n"
    "  mpv \"$(taskman info --size 640x360 --url 'http://video.example/watch?v=ID')\"\n"
    "\n"
    "Resolves the page of a video and prints its title, its length and its formats.\n";

constexpr const char* kInfoExits =
    "Exit status: 0 done, 1 the worker died, 2 wrong usage or address, 4 the page was\n"
    "not resolved or has no such format, 6 stopped on request, 130 and 143\n"
    "interrupted.";

// An option whose value is a text. An empty one, as of a variable that is not set, is no text: it
// would pass for an option that was not given.
void AddText(CLI::App& verb, const char* names, std::string& text, const char* form,
             const char* what) {
    verb.add_option(names, text, what)->option_text(form)->check([](const std::string& value) {
        return value.empty() ? "the value is empty" : "";
    });
}

// Options of all verbs that have tasks.
void AddTaskOptions(CLI::App& verb, ProxyRules& proxy, std::string& worker) {
    verb.add_option("-x,--proxy",
                    "http, socks4, socks4a, socks5 or socks5h proxy,\n"
                    "[SCHEME://][USER[:PASSWORD]@]HOST[:PORT]; @FILE\n"
                    "reads it from the first line of a file, none\n"
                    "ignores the environment")
        ->option_text("URL|@FILE|none")
        ->check([&proxy](const std::string& text) { return proxy.Give(text); });
    AddText(verb, "--worker", worker, "PATH", "program of the workers");
}

// An option whose value is one of some words, which stand in the order of the values.
template <class Value>
void AddWord(CLI::App& verb, const char* name, Value& value, std::vector<std::string> words,
             const std::string& what) {
    std::string all = words.front();
    for (std::size_t i = 1; i < words.size(); ++i) all += "|" + words[i];
    verb.add_option(name, what)
        ->option_text(all)
        ->check([&value, words, all](const std::string& word) {
            const auto found = std::find(words.begin(), words.end(), word);
            if (found == words.end()) return "must be one of " + all;
            value = static_cast<Value>(found - words.begin());
            return std::string();
        });
}

CLI::Option* AddSize(CLI::App& verb, FormatWish& format, const std::string& what) {
    return verb.add_option("--size", what)
        ->option_text("WxH")
        ->check([&format](const std::string& size) { return ParseFrameSize(size, format); });
}

CLI::App* AddInfo(CLI::App& app, InfoOptions& info) {
    CLI::App* verb = app.add_subcommand("info", kInfoExamples);
    verb->group("");
    verb->footer(kInfoExits);
    verb->add_option("URL", info.address, "address of the page")->option_text(" ")->required();
    AddSize(*verb, info.format, "choose the format whose frame comes closest");
    CLI::Option* json =
        verb->add_flag("--json", info.json, "print one JSON object")->option_text(" ");
    verb->add_flag("--url", info.url, "print just the address of the chosen format")
        ->option_text(" ")
        ->excludes(json);
    AddTaskOptions(*verb, info.proxy, info.worker);
    return verb;
}

// Which files `taskman get` makes of what.
void AddFileOptions(CLI::App& verb, GetOptions& get) {
    verb.add_option("URL", get.addresses, "http or https addresses")->option_text("...");
    AddText(verb, "-i,--input", get.input, "FILE", "list of more URLs; - is standard input");
    verb.add_option("-o,--output", get.output, "name of the file (one URL only)")
        ->type_name("FILE")
        ->check([](const std::string& name) { return NameFault(name); });
    AddText(verb, "-d,--dir", get.directory, "DIR", "directory for the files");
    CLI::Option* force = verb.add_flag_callback(
        "-f,--force", [&get] { get.existing = Existing::kReplace; }, "replace existing files");
    force->option_text(" ");
    verb.add_flag_callback(
            "-s,--skip-existing", [&get] { get.existing = Existing::kSkip; },
            "take existing files for finished ones")
        ->option_text(" ")
        ->excludes(force);
    verb.add_option("--sha256", get.sha256, "SHA-256 digest of the file (one URL only)")
        ->option_text("HEX")
        ->check([](const std::string& digest) {
            return IsDigest(digest) ? "" : "64 hexadecimal digits are needed";
        });
    verb.add_flag("--keep-part", get.keepPart, "keep the part of what did not finish");
    AddText(verb, "--failed", get.failed, "FILE", "list what did not finish, as --input reads it");
    CLI::Option* size =
        AddSize(verb, get.format, "of a page: the format whose frame comes closest");
    verb.add_option("--format", get.format.id, "of a page: the format of that id")
        ->option_text("ID")
        ->excludes(size)
        ->check([](const std::string& id) { return id.empty() ? "an id is needed" : ""; });
}

void AddDisplayOptions(CLI::App& verb, DisplayOptions& display) {
    verb.add_flag("--json", display.json, "events for programs, one JSON object a line");
    verb.add_flag("-q,--quiet", display.quiet, "tell failures only");
    verb.add_flag("-v,--verbose", display.verbose, "tell what the workers report, too");
    AddWord(verb, "--progress", display.progress, {"auto", "bar", "plain", "none"},
            "how the progress is shown");
    AddWord(verb, "--color", display.colour, {"auto", "always", "never"}, "when to use colours");
}

CLI::App* AddGet(CLI::App& app, GetOptions& get) {
    CLI::App* verb = app.add_subcommand("get", kGetExamples);
    verb->group("");  // the overview has a line of its own for it
    verb->footer(kGetExits);
    AddFileOptions(*verb, get);
    AddNumber(*verb, "-j,--jobs", get.jobs, 1, 8, "files at once, 1 to 8 (4)")->option_text("N");
    AddNumber(*verb, "--tries", get.tries.count, 1, 3, "tries without a byte, 1 to 3 (3)")
        ->option_text("N");
    AddNumber(*verb, "--wait", get.tries.seconds, 0, 3, "seconds between tries, 0 to 3 (1)")
        ->option_text("SEC");
    AddNumber(*verb, "--timeout", get.timeout, 0, kLongestTimeout,
              "time for a server to tell the size of a file,\n"
              "0 to 1000000 (30); 0 is for ever")
        ->option_text("SEC");
    AddTaskOptions(*verb, get.proxy, get.worker);
    AddDisplayOptions(*verb, get.display);
    return verb;
}

// What is wrong with the options together; empty when nothing is.
std::string GetFault(const GetOptions& get) {
    if (get.addresses.empty() && get.input.empty()) return "a URL is required, or --input";
    if (get.addresses.size() == 1 && get.input.empty()) return "";
    if (!get.output.empty()) return "--output takes one URL only";
    return get.sha256.empty() ? "" : "--sha256 takes one URL only";
}

// The option that stands as "--name=": the parser would take the next argument for its value.
// Empty: there is none.
std::string EmptyValue(int argc, const char* const* argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--") break;
        if (argument.starts_with("--") && argument.find('=') == argument.size() - 1) {
            return argument.substr(0, argument.size() - 1);
        }
    }
    return "";
}

// An option was given more often than it takes values, or as the last argument without its value.
std::string MismatchReason(const CLI::App& app, const std::string& last) {
    for (const CLI::App* verb : app.get_subcommands()) {
        for (const CLI::Option* option : verb->get_options()) {
            if (option->get_items_expected_max() == 1 && option->count() > 1) {
                return option->get_name() + ": given more than once";
            }
        }
    }
    return last + ": a value is missing";
}

// An argument was left over.
std::string ExtraReason(const CLI::App& app) {
    std::string extra;
    for (const std::string& left : app.remaining(true)) {
        if (extra = left; extra != "--") break;
    }
    if (extra.starts_with("-")) return "unknown option " + extra;
    const bool verb = app.get_subcommands().empty();
    return (verb ? "unknown verb \"" : "unexpected argument \"") + extra + "\"";
}

int Refuse(const std::string& reason, const std::string& verb) {
    std::fprintf(stderr, "taskman: %s (see taskman%s --help)\n", text::Printable(reason).c_str(),
                 verb.c_str());
    return EXIT_STATUS_USAGE;
}

}  // namespace

std::optional<int> ParseCommandLine(int argc, const char* const* argv, Command& command) {
    CLI::App app(kUsage, "taskman");
    app.get_formatter()->column_width(kHelpColumn);
    app.set_version_flag("--version", "taskman " TASKMAN_VERSION);
    app.require_subcommand(0, 1);
    const CLI::App* get = AddGet(app, command.get);
    const CLI::App* info = AddInfo(app, command.info);
    const std::pair<const CLI::App*, Verb> verbs[] = {
        {get, Verb::kGet},
        {info, Verb::kInfo},
        {AddTop(app, command.top), Verb::kTop},
        {AddStop(app, command.stop), Verb::kStop},
        {AddClean(app, command.clean), Verb::kClean},
    };
    const auto refuse = [&app](const std::string& reason) {
        const auto parsed = app.get_subcommands();
        return Refuse(reason, parsed.empty() ? "" : " " + parsed.front()->get_name());
    };
    const std::string empty = EmptyValue(argc, argv);
    if (!empty.empty()) return Refuse(empty + ": the value is empty", "");
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& asked) {
        return app.exit(asked);
    } catch (const CLI::ArgumentMismatch&) {
        return refuse(MismatchReason(app, argv[argc - 1]));
    } catch (const CLI::ConversionError&) {
        return refuse("an option that takes no value has one");
    } catch (const CLI::ExtrasError&) {
        return refuse(ExtraReason(app));
    } catch (const CLI::ParseError& error) {
        return refuse(error.what());
    }
    if (app.get_subcommands().empty()) {
        std::fputs(kUsage, stderr);
        return EXIT_STATUS_USAGE;
    }
    for (const auto& [app_of, verb] : verbs) {
        if (app_of->parsed()) command.verb = verb;
    }
    if (command.verb != Verb::kGet) return std::nullopt;
    const std::string fault = GetFault(command.get);
    if (fault.empty()) return std::nullopt;
    return Refuse(fault, " get");
}
