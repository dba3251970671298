#include "Console/others/top.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <numeric>

#include "Console/base/outcome.h"
#include "Console/screen/display.h"
#include "Console/screen/jsontext.h"
#include "Console/screen/livescreen.h"
#include "Console/screen/text.h"
#include "TaskMan/taskcontext.h"
#include "common/platform.h"

namespace {

constexpr double kMostBytes = 1e18;

// A value that another process wrote; nothing when it is no number from `least` to `most`.
std::optional<double> InRange(double value, double least, double most) {
    if (!(value >= least && value <= most)) return std::nullopt;
    return value;
}

std::optional<double> SizeOf(const OtherTask& task) {
    return InRange(task.dFileSize, 1, kMostBytes);
}

std::optional<double> PercentOf(const OtherTask& task) {
    return InRange(task.dProgress, 0, 100);
}

std::optional<double> SpeedOf(const OtherTask& task) {
    return InRange(task.dSpeed, 0, kMostBytes);
}

// Process id of the worker; of a dead one as its slot has it. Below 1 while there is none.
pid_t PidOf(const TaskRow& row) {
    return row.worker > 0 ? row.worker : row.task.nPid;
}

const char* CommandName(const OtherTask& task) {
    return IsDownloadCommand(task.nCmd) ? "download" : "page";
}

// The final name of the file; of a page, or without one, the address.
std::string NameOf(const OtherTask& task) {
    constexpr std::string_view kPart = TASK_PART_ENDING;
    std::string name = task.path.substr(task.path.rfind('/') + 1);
    if (!IsDownloadCommand(task.nCmd) || name.empty()) return task.address;
    if (name.ends_with(kPart)) name.resize(name.size() - kPart.size());
    return name;
}

using Cells = std::vector<std::string>;

// The columns in their order, and those that a narrow screen leaves out, the first one first.
const Cells kTitles{"ID",     "STATE", "DONE",    "SPEED",   "AGE", "PID",
                    "WORKER", "SIZE",  "COMMAND", "MANAGER", "NAME"};
const Cells kLeftOut{"MANAGER", "SIZE", "COMMAND", "PID", "AGE", "WORKER", "SPEED"};
// Blanks between two columns; a screen that is too narrow for all columns has the narrow gap.
constexpr int kGap = 2;
constexpr int kNarrowGap = 1;
constexpr int kLeastOfName = 8;
constexpr std::size_t kLeastOfId = 8;

// The shortest length at which all ids differ, but at least kLeastOfId.
std::size_t IdLength(const TopView& view) {
    std::vector<std::string> ids;
    for (const TaskRow& row : view.rows) ids.push_back(row.task.id);
    std::sort(ids.begin(), ids.end());
    std::size_t length = kLeastOfId;
    for (std::size_t i = 1; i < ids.size(); ++i) {
        const auto [end, other] =
            std::mismatch(ids[i].begin(), ids[i].end(), ids[i - 1].begin(), ids[i - 1].end());
        length = std::max(length, static_cast<std::size_t>(end - ids[i].begin()) + 1);
    }
    return length;
}

Cells CellsOf(const TaskRow& row) {
    const OtherTask& task = row.task;
    const auto size = SizeOf(task);
    const auto percent = PercentOf(task);
    const auto speed = SpeedOf(task);
    const pid_t pid = PidOf(row);
    return {task.id.empty() ? "-" : task.id,
            StateName(task),
            percent ? std::to_string(std::lround(*percent)) + " %" : "-",
            speed ? text::Size(*speed) + "/s" : "-",
            row.age ? text::Clock(*row.age) : "-",
            pid > 0 ? std::to_string(pid) : "-",
            row.worker > 0 ? "alive" : "gone",
            size ? text::Size(*size) : "-",
            task.id.empty() ? "-" : CommandName(task),
            std::to_string(task.nManagerPid),
            text::Printable(NameOf(task))};
}

// The width of each column on the screen, with the gap behind it.
std::vector<int> Widths(const std::vector<Cells>& table, int gap) {
    std::vector<int> widths(table.front().size(), 0);
    for (const Cells& cells : table) {
        for (std::size_t i = 0; i < cells.size(); ++i) {
            widths[i] = std::max(widths[i], text::Width(cells[i]) + gap);
        }
    }
    return widths;
}

// Leaves columns out, then cuts the ids, then the names, until the table fits the screen. Returns
// the gap between columns.
int Fit(std::vector<Cells>& table, int columns) {
    int gap = kGap;
    const auto withoutName = [&] {
        const std::vector<int> widths = Widths(table, gap);
        return std::accumulate(widths.begin(), widths.end() - 1, 0);
    };
    for (const std::string& title : kLeftOut) {
        if (withoutName() + kLeastOfName <= columns) break;
        gap = kNarrowGap;
        if (withoutName() + kLeastOfName <= columns) break;
        const auto at = std::find(table.front().begin(), table.front().end(), title);
        const auto column = at - table.front().begin();
        for (Cells& cells : table) cells.erase(cells.begin() + column);
    }
    if (withoutName() + kLeastOfName > columns) {
        const std::vector<int> widths = Widths(table, 0);
        const int missing = withoutName() + widths.back() - columns;
        const int room = std::max(widths.front() - missing, static_cast<int>(kLeastOfId));
        for (Cells& cells : table) cells.front() = text::CutMiddle(cells.front(), room);
    }
    const int room = columns - withoutName();
    for (Cells& cells : table) cells.back() = text::CutMiddle(cells.back(), room);
    return gap;
}

nlohmann::ordered_json OrNull(std::optional<double> value) {
    return value ? Number(*value) : nlohmann::ordered_json();
}

void AddTask(nlohmann::ordered_json& object, const OtherTask& task) {
    SetText(object, "name", NameOf(task));
    SetText(object, "address", task.address);
    SetText(object, "path", task.path);
    object["command"] = CommandName(task);
    object["state"] = StateName(task);
    object["percent"] = OrNull(PercentOf(task));
    object["size"] = OrNull(SizeOf(task));
    object["speed"] = OrNull(SpeedOf(task));
}

nlohmann::ordered_json ObjectOf(const TaskRow& row) {
    const OtherTask& task = row.task;
    nlohmann::ordered_json object{{"event", "worker"}};
    if (!task.id.empty()) object = {{"event", "task"}, {"id", task.id}};
    object["manager"] = task.nManagerPid;
    object["slot"] = task.nTaskIndex;
    if (task.id.empty()) {
        object["state"] = StateName(task);
    } else {
        AddTask(object, task);
    }
    object["pid"] = nullptr;
    if (PidOf(row) > 0) object["pid"] = PidOf(row);
    object["age"] = nullptr;
    if (row.age) object["age"] = std::round(*row.age * 1000) / 1000;
    object["alive"] = row.worker > 0;
    return object;
}

// The process was started like a worker for this slot of a manager that lives.
TaskRow RowOf(OtherTask task, const WorkerProcess& worker) {
    return {std::move(task), worker.pid, InRange(platform::ProcessAge(worker.pid), 0, kMostBytes)};
}

std::vector<std::string> LiveLines(const TopView& view) {
    std::vector<std::string> lines{text::Count(view.rows.size(), "task") + " of " +
                                   text::Count(view.managers, "manager") + " (q: end)"};
    for (std::string& line : TopTable(view, LiveScreen::Columns())) {
        lines.push_back(std::move(line));
    }
    return lines;
}

int Missing(int manager) {
    WriteAll(STDERR_FILENO, FaultLine("no manager " + std::to_string(manager)));
    return EXIT_STATUS_FAILED;
}

}  // namespace

std::optional<TopView> ReadTop(int manager) {
    const std::vector<int> managers = ListManagers();
    if (manager != 0 && std::count(managers.begin(), managers.end(), manager) == 0) {
        return std::nullopt;
    }
    TopView view;
    view.managers = manager == 0 ? managers.size() : 1;
    std::vector<WorkerProcess> workers = ListWorkers();
    for (OtherTask& task : ListTasks()) {
        if (manager != 0 && task.nManagerPid != manager) continue;
        const auto worker =
            std::find_if(workers.begin(), workers.end(),
                         [&task](const WorkerProcess& process) { return Serves(process, task); });
        if (worker == workers.end()) {
            view.rows.push_back({std::move(task)});
        } else {
            view.rows.push_back(RowOf(std::move(task), *worker));
            workers.erase(worker);
        }
    }
    for (const WorkerProcess& worker : workers) {
        if (std::count(managers.begin(), managers.end(), worker.nManagerPid) == 0 ||
            (manager != 0 && worker.nManagerPid != manager)) {
            continue;
        }
        OtherTask none;
        none.nManagerPid = worker.nManagerPid;
        none.nTaskIndex = worker.nTaskIndex;
        view.idle.push_back(RowOf(std::move(none), worker));
    }
    return view;
}

const char* StateName(const OtherTask& task) {
    if (task.id.empty()) return "idle";
    const auto reported = [&task](tagDownloadStateCode code) {
        return (task.nStateBits >> code & 1U) != 0;
    };
    if (reported(DOWNLOAD_STATE_PARSE_FINISH) || reported(DOWNLOAD_STATE_DOWNLOAD_FINISH)) {
        return "finished";
    }
    if (reported(DOWNLOAD_STATE_STOPPED)) return "stopped";
    if ((task.nStateBits & FINAL_STATE_BITS) != 0) return "failed";
    if (task.nControl == TASK_CONTROL_STOP) return "stopping";
    if (task.nPid < 1) return "waiting";
    if (!IsDownloadCommand(task.nCmd)) return "resolving";
    return SizeOf(task) ? "downloading" : "probing";
}

std::vector<std::string> TopTable(const TopView& view, int columns) {
    std::vector<Cells> table{kTitles};
    const std::size_t idLength = columns > 0 ? IdLength(view) : std::string::npos;
    std::vector<TaskRow> rows = view.rows;
    rows.insert(rows.end(), view.idle.begin(), view.idle.end());
    for (const TaskRow& row : rows) {
        table.push_back(CellsOf(row));
        std::string& id = table.back().front();
        id = id.substr(0, idLength);
    }
    const int gap = columns > 0 ? Fit(table, columns) : kGap;
    const std::vector<int> widths = Widths(table, gap);
    std::vector<std::string> lines;
    for (const Cells& cells : table) {
        std::string line;
        for (std::size_t i = 0; i + 1 < cells.size(); ++i) {
            line += text::PadRight(cells[i], widths[i]);
        }
        lines.push_back(line + cells.back());
    }
    return lines;
}

std::string TopJson(const TopView& view) {
    std::string lines = JsonLine({{"v", JSON_VERSION},
                                  {"event", "top"},
                                  {"managers", view.managers},
                                  {"tasks", view.rows.size()}});
    for (const TaskRow& row : view.rows) lines += JsonLine(ObjectOf(row));
    for (const TaskRow& row : view.idle) lines += JsonLine(ObjectOf(row));
    return lines;
}

int RunTop(const TopOptions& options) {
    std::optional<TopView> view = ReadTop(options.manager);
    if (!view) return Missing(options.manager);
    if (!options.once && !options.json && LiveScreen::Possible()) {
        LiveScreen screen;
        do {
            screen.Show(LiveLines(*view));
        } while (screen.Wait() && (view = ReadTop(options.manager)));
        return EXIT_STATUS_FINISHED;
    }
    std::string out;
    if (options.json) {
        out = TopJson(*view);
    } else {
        for (const std::string& line : TopTable(*view, 0)) out += line + "\n";
    }
    return WriteResult(out) ? EXIT_STATUS_FINISHED : EXIT_STATUS_FAILED;
}
