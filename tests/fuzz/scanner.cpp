// The scanner over slots that workers write anything into between its passes.
#include <pthread.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <utility>
#include <vector>

#include "TaskMan/taskman.h"
#include "common/AutoLock.h"
#include "common/fieldtext.h"
#include "common/stringutility.h"
#include "fuzz.h"

namespace {

const std::string kUnheard = "b";  // the task without callbacks

using Calls = std::vector<std::pair<std::string, int>>;  // task and code

thread_local Input* t_input = nullptr;  // of the scanner's thread
std::vector<char> g_section;
std::vector<char> g_before;  // the section before a pass
std::vector<char> g_left;    // as the pass is to leave it
Calls g_due;                 // the calls it is to make
Calls g_calls;               // those it has made
int g_shutdown_passes = 0;   // since g_Exit was set
int g_parse_jobs = 0;        // that are left then
double g_sizes[TASK_SLOT_COUNT];

bool Ends(int code) {
    return (FINAL_STATE_BITS >> code & 1) != 0;
}

// Counts as the end of a parse job, whatever the task is.
bool IsPageCode(int code) {
    return code == 1 || code == 6 || code == 16;
}

bool IsParse(const std::string& id) {
    return id < "d" || id == "g";
}

// Tasks "a" to "h" have the slots 0 to 7.
tagTaskContext& SlotOf(const std::string& id, std::vector<char>& section) {
    return reinterpret_cast<tagTaskContext*>(section.data())[id[0] - 'a'];
}

// Works out what the next pass does with a task.
void Foresee(const std::string& id) {
    tagTaskContext& slot = SlotOf(id, g_left);
    if (strutil::trim(FieldText(slot.szTaskID)) != id) return;
    const std::uint32_t bits = std::exchange(slot.nStateBits, 0);
    slot.bStateChanged = 0;
    if ((bits >> DOWNLOAD_STATE_FILE_SIZE & 1) != 0) g_sizes[id[0] - 'a'] = slot.dFileSize;
    for (const int code : {0, 1, 2, 3, 4, 5, 6, 7, 8, 10, 16}) {
        if ((bits >> code & 1) == 0) continue;
        if (id != kUnheard) g_due.emplace_back(id, code);
        if (!Ends(code)) continue;
        if (IsPageCode(code) || IsParse(id)) --g_parse_jobs;
        std::memset(static_cast<void*>(&slot), 0, TASK_SLOT_SIZE);
        return;
    }
}

void Called(const char* id, int code) {
    g_calls.emplace_back(id, code);
    Threading::AutoLock hold(&g_access_taskmap_mutex);  // callbacks may take it
    Expect(Ends(code) != g_TaskInfo_map.contains(id), "a task that has ended is forgotten");
}

void OnState(void* /*param*/, const char* id, int code, double value, int kind) {
    const tagTaskContext& slot = SlotOf(id, g_before);
    const double values[32] = {0, 0, 0, kind == 1 ? -1.0 : 0, slot.dProgress, slot.dSpeed, 0,
                               0, 0, 0, slot.dFileSize};
    Expect(std::memcmp(&value, &values[code], sizeof value) == 0, "a value is the slot's");
    Called(id, code);
}

void OnResult(void* /*param*/, const char* id, int code, const char* text, std::uint32_t length) {
    const std::string sent = FieldText(SlotOf(id, g_before).szVideoInfo) + std::string(2, '\0');
    Expect(std::string(text, length + 2) == sent, "a text is the slot's, and two zeros");
    Called(id, code);
}

void* Scan(void* input) {
    t_input = static_cast<Input*>(input);
    return StartScanData(nullptr);
}

}  // namespace

// The second between two passes.
extern "C" unsigned sleep(unsigned seconds) {
    if (t_input == nullptr) return static_cast<unsigned>(usleep(seconds * 1000000));
    Expect(g_calls == g_due, "each report was called back, no other");
    Expect(g_section == g_left, "nothing else was changed");
    if (g_Exit) ++g_shutdown_passes;
    g_Exit = t_input->Empty();
    for (int i = t_input->Take<std::uint8_t>() % 8; i >= 0 && !t_input->Empty(); --i) {
        tagTaskContext* slot = SlotAt(g_VideoInfoSection, t_input->Take<std::uint8_t>() % 8);
        slot->nStateBits = t_input->Take<std::uint32_t>();
        slot->bStateChanged = 1;
        t_input->Scribble(*slot);
    }
    g_calls.clear();
    g_due.clear();
    g_before = g_left = g_section;
    Threading::AutoLock map(&g_access_taskmap_mutex);
    Threading::AutoLock count(&g_access_taskcount_mutex);
    Expect(static_cast<std::size_t>(g_TaskCount) == g_TaskInfo_map.size(), "tasks are counted");
    Expect(g_ParseCount == g_parse_jobs && g_DownloadCount == g_TaskCount - g_ParseCount,
           "so are their kinds");
    for (int i = 0; i < TASK_SLOT_COUNT; ++i) {
        const double size = g_TaskFileSize[i];
        Expect(std::memcmp(&size, &g_sizes[i], sizeof size) == 0, "sizes are kept");
        const bool lives = g_TaskInfo_map.contains(std::string(1, static_cast<char>('a' + i)));
        Expect(g_TaskEndTaken[i] != lives, "an end is marked before its call");
    }
    for (const auto& [id, node] : g_TaskInfo_map) Foresee(id);
    if (g_TaskInfo_map.empty()) std::fill_n(g_left.begin(), TASK_COMMDATA_OFFSET, '\0');
    return 0;
}

void Fuzz(Input input) {
    g_section.assign(SHARE_MEM_SIZE, 'x');
    g_VideoInfoSection.hPrt = g_section.data();
    for (const std::string id : {"a", "b", "c", "d", "e", "f", "g", "h"}) {
        SlotOf(id, g_section) = tagTaskContext();
        SetField(SlotOf(id, g_section).szTaskID, id);
        Threading::AutoLock hold(&g_access_taskmap_mutex);
        auto* node = g_TaskInfo_map[id] = new tagTaskNode(id.c_str());
        node->nCmd = id < "d" ? TASK_CMD_PARSE : TASK_CMD_DOWNLOAD;
        node->nTaskKind = id == "g" ? 1 : 0;
        node->nTaskIndex = id == "h" ? -1 : id[0] - 'a';
        node->mutexLock = new Threading::Mutex;
        if (id == kUnheard) continue;
        node->pfnStateCallback = OnState;
        node->pfnResultCallback = OnResult;
    }
    CheckAndCalcTaskCount();
    g_parse_jobs = 4;
    g_shutdown_passes = 0;
    std::fill_n(g_sizes, TASK_SLOT_COUNT, 0.0);
    std::fill_n(g_TaskFileSize, TASK_SLOT_COUNT, 0.0);
    std::fill_n(g_TaskEndTaken, TASK_SLOT_COUNT, false);
    g_left = g_section;
    g_calls = g_due;
    g_ScanThradIsExit = g_Exit = false;
    pthread_t scanner{};
    Expect(pthread_create(&scanner, nullptr, Scan, &input) == 0, "a scanner starts");
    pthread_join(scanner, nullptr);
    Expect(g_ScanThradIsExit, "the scanner says that it has ended");
    Expect(g_section == g_left, "its last pass changed nothing else, either");
    Threading::AutoLock hold(&g_access_taskmap_mutex);
    Expect(g_TaskInfo_map.empty() || g_shutdown_passes == 3, "workers have three passes to end");
    for (const auto& [id, node] : g_TaskInfo_map) delete node;
    g_TaskInfo_map.clear();
}
