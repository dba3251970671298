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
    "Downloads files, each through a worker process of its own.\n"
    "\n"
    "Verbs:\n"
    "  get  download files\n";

constexpr const char* kGetExamples =
    "Examples:\n"
    "  taskman get https://example.org/file.iso\n"
    "  taskman get -d ~/Downloads -j 2 URL1 URL2 URL3\n"
    "  taskman get -o today.zip 'https://example.org/archive?day=today'\n"
    "  tar xf \"$(taskman get https://example.org/source.tar.gz)\"\n"
    "\n"
    "Downloads each URL into NAME.part and renames it when all of it has come. When standard\n"
    "output is no terminal, the paths of the finished files are written there, one a line.\n";

constexpr const char* kGetExits =
    "Exit status: 0 all finished, 1 a download failed, 2 wrong usage or address, 3 local file,\n"
    "5 the size differs, 6 stopped on request, 130 and 143 interrupted. When several apply, the\n"
    "smallest that is not 0.";

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
    verb->add_option("-x,--proxy",
                     "http, socks4, socks4a, socks5 or socks5h proxy,\n"
                     "[SCHEME://][USER[:PASSWORD]@]HOST[:PORT]")
        ->type_name("URL")
        ->check([&get](const std::string& address) { return ParseProxy(address, get.proxy); });
    verb->add_option("--worker", get.worker, "program of the workers")->type_name("PATH");
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
    const CLI::App* get = AddGet(app, command.get);
    if (argc < 2) {
        std::fputs(kUsage, stderr);
        return EXIT_STATUS_USAGE;
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& asked) {
        return app.exit(asked);
    } catch (const CLI::ParseError& error) {
        return Refuse(error.what(), get->parsed() ? " get" : "");
    }
    if (!get->parsed()) return Refuse("what is to be done?", "");
    if (!command.get.output.empty() && command.get.addresses.size() > 1) {
        return Refuse("--output takes one URL only", " get");
    }
    return std::nullopt;
}
