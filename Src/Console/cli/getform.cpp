#include <unistd.h>

#include "Console/cli/forms.h"
#include "Console/get/digest.h"
#include "Console/get/filename.h"

namespace {

constexpr const char* kGetExamples =
    "Examples:\n"
    "  taskman get https://example.org/file.iso\n"
    "  taskman get -d ~/Downloads -j 2 URL1 URL2 URL3\n"
    "  taskman get -o today.zip 'https://example.org/archive?day=today'\n"
    "  tar xf \"$(taskman get -q https://example.org/source.tar.gz)\"\n"
    "  until taskman get -s -i todo.txt --failed todo.txt; do sleep 600; done\n"
    "  taskman get --size 640x360 'http://video.example/watch?v=ID'\n"
    "\n"
    "Downloads each URL into NAME.part and renames it when all of it has come. What\n"
    "did not finish stays there, and the same command continues it. When standard\n"
    "output is no terminal, the paths of the files are written there, one a line.\n"
    "With --format or --size each URL is the page of a video, whose title names the\n"
    "file. A list has a URL in each line; a name and a SHA-256 digest may follow,\n"
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

Option ProxyRow(ProxyRules& proxy) {
    return {"-x,--proxy", "URL|@FILE|none",
            "http, socks4, socks4a, socks5 or socks5h proxy,\n"
            "[SCHEME://][USER[:PASSWORD]@]HOST[:PORT]; @FILE\n"
            "reads it from the first line of a file, none\n"
            "ignores the environment",
            [&proxy](const std::string& text) { return proxy.Set(text); }};
}

Option WorkerRow(std::string& worker) {
    return {"--worker", "PATH", "program of the workers", Text(worker)};
}

Option SizeRow(FormatWish& format, const char* help, const char* excludes = nullptr) {
    return {"--size", "WxH", help,
            [&format](const std::string& size) { return ParseFrameSize(size, format); }, excludes};
}

// For an address: it is looked at when its turn comes.
std::string NoFault(std::string_view) {
    return "";
}

std::string DigestFault(std::string_view digest) {
    return IsDigest(digest) ? "" : "64 hexadecimal digits are needed";
}

std::string OutputNameFault(std::string_view name) {
    return name == OUTPUT_NAME ? "" : NameFault(name);
}

// Completes the options. What is wrong with them together; empty when nothing is.
std::string GetFault(GetOptions& get) {
    if (get.addresses.empty() && get.input.empty()) return "a URL is required, or --input";
    if (std::string fault = CompleteRequest(get.request); !fault.empty()) return fault;
    // It is the file with the final name that is asked about.
    if (get.newer && (get.serverName || get.existing == Existing::kNumber || get.ToOutput())) {
        return "--newer excludes --number, --server-name and --output -";
    }
    if (get.newer && get.existing == Existing::kSkip) return "--newer excludes --skip-existing";
    if (get.ToOutput() && get.display.json) return "--json and --output - exclude each other";
    if (get.ToOutput() && isatty(STDOUT_FILENO) == 1) {
        return "--output -: no file is written to a terminal";
    }
    if (get.addresses.size() == 1 && get.input.empty()) return "";
    if (!get.output.empty()) return "--output takes one URL only";
    return get.sha256.empty() ? "" : "--sha256 takes one URL only";
}

// What is fetched, and which files it becomes.
std::vector<Option> FileRows(GetOptions& get) {
    return {
        {"URL", "...", "http or https addresses", More(get.addresses, NoFault)},
        {"-i,--input", "FILE", "list of more URLs; - is standard input", Text(get.input)},
        {"-o,--output", "FILE", "name of the one file; - is standard output",
         Text(get.output, OutputNameFault)},
        {"-d,--dir", "DIR", "directory for the files", Text(get.directory)},
        {"-f,--force", "", "replace existing files", Set(get.existing, Existing::kReplace),
         "--skip-existing"},
        {"-s,--skip-existing", "", "take existing files for finished ones",
         Set(get.existing, Existing::kSkip), "--number"},
        {"--number", "", "add .1, .2 and so on to names that are taken",
         Set(get.existing, Existing::kNumber), "--force"},
        {"-J,--server-name", "", "give files the names that the servers give",
         Set(get.serverName, true), "--output"},
        {"-N,--newer", "", "replace existing files that have changed at the\nserver",
         Set(get.newer, true)},
        {"--sha256", "HEX", "SHA-256 digest of the file (one URL only)",
         Text(get.sha256, DigestFault)},
        {"--no-continue", "", "neither continue partial files nor keep them",
         Set(get.continues, false)},
        {"-R,--remote-time", "", "give files the time that the server tells",
         Set(get.remoteTime, true)},
        {"--failed", "FILE", "list what did not finish, as --input reads it", Text(get.failed)},
        SizeRow(get.format, "of a page: the format whose frame comes closest", "--format"),
        {"--format", "ID", "of a page: the format of that id", Text(get.format.id, IdFault),
         "--size"},
    };
}

// How many at once, how fast, how often, and how long to wait.
std::vector<Option> PaceRows(GetOptions& get) {
    return {
        {"-j,--jobs", "N", "files at once, 1 to 8 (4)", Number(get.jobs, 1, 8)},
        {"--per-host", "N", "files of one host at once, 1 to 8 (any number)",
         Number(get.perHost, 1, 8)},
        {"-n,--connections", "N", "most connections for one file, 1 to 10 (1)",
         Number(get.connections, 1, 10)},
        {"--limit-rate", "RATE",
         "most bytes per second of all files together, also\nwith k, m or g, 1k to 1024g",
         Rate(get.limitRate)},
        {"--tries", "N", "tries in a row without progress, 1 to 100 (5)",
         Number(get.tries.count, 1, 100)},
        {"--wait", "SEC", "longest pause between tries, 0 to 300 (10)",
         Number(get.tries.seconds, 0, 300)},
        {"--retry-after", "SEC", "longest pause that a busy server may ask for, 0 to\n86400 (120)",
         Number(get.retryAfter, 0, 86400)},
        {"--timeout", "SEC", "time for a server to answer, 0 to 86400 (30); 0 is\nfor ever",
         Number(get.timeout, 0, 86400)},
    };
}

std::vector<Option> DisplayRows(DisplayOptions& display) {
    constexpr const char* kForms = "auto|bar|plain|none";
    constexpr const char* kColours = "auto|always|never";
    return {
        {"--json", "", "events for programs, one JSON object a line", Set(display.json, true)},
        {"-q,--quiet", "", "report failures only", Set(display.quiet, true)},
        {"-v,--verbose", "", "show what the workers report, too", Set(display.verbose, true)},
        {"--progress", kForms, "how the progress is shown", Word(display.progress, kForms)},
        {"--color", kColours, "when to use colours", Word(display.colour, kColours)},
    };
}

std::vector<Option> Joined(const std::vector<std::vector<Option>>& parts) {
    std::vector<Option> all;
    for (const auto& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

}  // namespace

VerbForm GetForm(Command& command) {
    GetOptions& get = command.get;
    const Option userAgent{"-A,--user-agent", "TEXT", "what the command calls itself; not to pages",
                           Text(get.request.strUserAgent)};
    const Option freshWorkers{"--fresh-workers", "", "start a worker process for each file",
                              Set(get.freshWorkers, true)};
    return {"get [OPTIONS] [URL...]", kGetExamples, kGetExits,
            Joined({FileRows(get),
                    PaceRows(get),
                    LoginRows(get.request),
                    {userAgent},
                    TrustRows(get.request),
                    {ProxyRow(get.proxy), freshWorkers, WorkerRow(get.worker)},
                    DisplayRows(get.display)}),
            [&get] {
                std::string fault = GetFault(get);
                if (get.newer) get.existing = Existing::kReplace;
                return fault;
            }};
}

VerbForm InfoForm(Command& command) {
    InfoOptions& info = command.info;
    return {
        "info [OPTIONS] URL", kInfoExamples, kInfoExits,
        Joined({
            {
                {"URL", "", "address of the page", Text(info.address, NoFault)},
                SizeRow(info.format, "choose the format whose frame comes closest"),
                {"--json", "", "print one JSON object", Set(info.json, true), "--url"},
                {"--url", "", "print just the address of the chosen format", Set(info.url, true)},
            },
            LoginRows(info.request),
            TrustRows(info.request),
            {ProxyRow(info.proxy), WorkerRow(info.worker)},
        }),
        [&info] {
            return info.address.empty() ? "URL is required" : CompleteRequest(info.request);
        }};
}
