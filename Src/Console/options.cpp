#include "Console/options.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>

#include "Console/outcome.h"
#include "Console/text.h"

namespace {

constexpr const char* kUsage =
    "Examples:\n"
    "  taskman get https://example.org/file.iso\n"
    "  taskman get --help\n"
    "\n"
    "Downloads files and resolves video pages, each through a worker process of its own.\n"
    "\n"
    "Verbs:\n"
    "  get   download files, or the videos of pages\n"
    "  info  tell what the page of a video offers\n";

constexpr const char* kGetExamples =
    "Examples:\n"
    "  taskman get https://example.org/file.iso\n"
    "  taskman get -d ~/Downloads -j 2 URL1 URL2 URL3\n"
    "  taskman get -o today.zip 'https://example.org/archive?day=today'\n"
    "  tar xf \"$(taskman get https://example.org/source.tar.gz)\"\n"
    "  taskman get --size 640x360 'http://video.example/watch?v=ID'\n"
    "\n"
    "Downloads each URL into NAME.part and renames it when all of it has come. When standard\n"
    "output is no terminal, the paths of the finished files are written there, one a line.\n"
    "With --format or --size each URL is the page of a video, whose title names the file.\n";

constexpr const char* kGetExits =
    "Exit status: 0 all finished, 1 a download failed, 2 wrong usage or address, 3 local file,\n"
    "4 a page was not resolved or has no such format, 5 the size differs, 6 stopped on request,\n"
    "130 and 143 interrupted. When several apply, the smallest that is not 0.";

constexpr const char* kInfoExamples =
    "Examples:\n"
    "  taskman info 'http://video.example/watch?v=ID'\n"
    "  taskman info --json 'http://video.example/watch?v=ID' | jq -r .title\n"
    "  mpv \"$(taskman info --size 640x360 --url 'http://video.example/watch?v=ID')\"\n"
    "\n"
    "Resolves the page of a video and prints its title, its length and its formats.\n";

constexpr const char* kInfoExits =
    "Exit status: 0 done, 1 the worker died, 2 wrong usage or address, 4 the page was not "
    "resolved\n"
    "or has no such format, 6 stopped on request, 130 and 143 interrupted.";

// Options of all verbs that have tasks.
void AddTaskOptions(CLI::App& verb, Proxy& proxy, std::string& worker) {
    verb.add_option("-x,--proxy",
                    "http, socks4, socks4a, socks5 or socks5h proxy,\n"
                    "[SCHEME://][USER[:PASSWORD]@]HOST[:PORT]")
        ->type_name("URL")
        ->check([&proxy](const std::string& address) { return ParseProxy(address, proxy); });
    verb.add_option("--worker", worker, "program of the workers")->type_name("PATH");
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

CLI::App* AddGet(CLI::App& app, GetOptions& get) {
    CLI::App* verb = app.add_subcommand("get", kGetExamples);
    verb->group("");  // the overview has a line of its own for it
    verb->footer(kGetExits);
    verb->add_option("URL", get.addresses, "http or https addresses")
        ->option_text("...")
        ->required();
    verb->add_option("-o,--output", get.output, "name of the file (one URL only)")
        ->type_name("FILE")
        ->check([](const std::string& name) {
            const bool usable = !name.empty() && name != "-" && name.back() != '/';
            return usable ? "" : "the name of a file is needed";
        });
    verb->add_option("-d,--dir", get.directory, "directory for the files")->type_name("DIR");
    verb->add_option("-j,--jobs", get.jobs, "files at once, 1 to 8 (4)")
        ->option_text("N")
        ->check(CLI::Range(1, 8));
    verb->add_flag("-f,--force", get.force, "replace existing files");
    CLI::Option* size =
        AddSize(*verb, get.format, "of a page: the format whose frame comes closest");
    verb->add_option("--format", get.format.id, "of a page: the format of that id")
        ->option_text("ID")
        ->excludes(size)
        ->check([](const std::string& id) { return id.empty() ? "an id is needed" : ""; });
    AddTaskOptions(*verb, get.proxy, get.worker);
    return verb;
}

int Refuse(const std::string& reason, const std::string& verb) {
    std::fprintf(stderr, "taskman: %s (see taskman%s --help)\n", text::Printable(reason).c_str(),
                 verb.c_str());
    return EXIT_STATUS_USAGE;
}

}  // namespace

std::optional<int> ParseCommandLine(int argc, const char* const* argv, Command& command) {
    CLI::App app(kUsage, "taskman");
    app.set_version_flag("--version", "taskman " TASKMAN_VERSION);
    app.require_subcommand(0, 1);
    const CLI::App* get = AddGet(app, command.get);
    const CLI::App* info = AddInfo(app, command.info);
    if (argc < 2) {
        std::fputs(kUsage, stderr);
        return EXIT_STATUS_USAGE;
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& asked) {
        return app.exit(asked);
    } catch (const CLI::ParseError& error) {
        return Refuse(error.what(), get->parsed() ? " get" : info->parsed() ? " info" : "");
    }
    if (info->parsed()) {
        command.verb = Verb::kInfo;
        return std::nullopt;
    }
    if (!get->parsed()) return Refuse("what is to be done?", "");
    if (!command.get.output.empty() && command.get.addresses.size() > 1) {
        return Refuse("--output takes one URL only", " get");
    }
    return std::nullopt;
}
