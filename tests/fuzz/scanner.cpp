// The scanner over slots that workers write anything into between its passes. The input is the
// workers; what each pass has to call and to leave behind is worked out before it begins.
#include <chrono>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "TaskMan/taskman.h"
#include "common/AutoLock.h"
#include "common/fieldtext.h"
#include "common/stringutility.h"
#include "fuzz.h"

using fuzz::Expect;

namespace {

// Task id, code, value, text.
using Call = std::tuple<std::string, int, std::string, std::string>;

std::string Bits(double value) {
    return std::string(reinterpret_cast<const char*>(&value), sizeof value);
}

// Everything here happens on the scanner's thread while it runs.
class Workers {
  public:
    explicit Workers(fuzz::Input input) : input_(input) {
        section_.assign(SHARE_MEM_SIZE, input_.Take<char>());
        g_VideoInfoSection.hPrt = section_.data();
        const int tasks = input_.Take<std::uint8_t>() % (TASK_SLOT_COUNT + 1);
        for (int i = 0; i < tasks; ++i) Add(std::string(1, static_cast<char>('a' + i)), i);
        CheckAndCalcTaskCount();
        left_ = section_;
        Predict();
    }
    ~Workers() {
        Expect(g_ScanThradIsExit, "the scanner says that it has ended");
        for (const auto& [id, node] : g_TaskInfo_map) delete node;
        g_TaskInfo_map.clear();
        g_VideoInfoSection.hPrt = nullptr;
        g_Exit = false;
    }

    // What happens in the second between two passes.
    void Pause() {
        Expect(calls_ == expected_, "each report was called back, no other");
        Expect(section_ == left_, "nothing else was changed");
        calls_.clear();
        g_Exit = input_.Empty();
        for (int i = input_.Take<std::uint8_t>() % 8; i >= 0 && !input_.Empty(); --i) Write();
        Predict();
    }

  private:
    void Add(const std::string& id, int index) {
        auto* node = new tagTaskNode(id.c_str());
        const auto choice = input_.Take<std::uint8_t>();
        constexpr std::int32_t kCommands[] = {0, 1, 3, 1};
        node->nCmd = kCommands[choice & 3];
        node->nTaskKind = (choice & 3) == 3 ? 1 : 0;
        node->nTaskIndex = (choice & 4) != 0 ? -1 : index;
        node->mutexLock = new Threading::Mutex;
        node->pCallbackParam = this;
        if ((choice & 8) == 0) node->pfnStateCallback = OnState;
        if ((choice & 16) == 0) node->pfnResultCallback = OnResult;
        SetField(SlotAt(g_VideoInfoSection, SlotOf(*node))->szTaskID, id);
        Threading::AutoLock hold(&g_access_taskmap_mutex);
        g_TaskInfo_map[id] = node;
    }

    // Something that a worker, or who poses as one, stores in a slot.
    void Write() {
        const int index = input_.Take<std::uint8_t>() % TASK_SLOT_COUNT;
        tagTaskContext& slot = *SlotAt(g_VideoInfoSection, index);
        const auto choice = input_.Take<std::uint8_t>();
        slot.nStateBits = input_.Take<std::uint32_t>();
        if ((choice & 1) != 0) input_.Fill(slot.szTaskID);
        if ((choice & 2) != 0) input_.Fill(slot.szVideoInfo);
        if ((choice & 4) != 0) slot.dProgress = input_.Take<double>();
        if ((choice & 8) != 0) slot.dSpeed = input_.Take<double>();
        if ((choice & 16) != 0) slot.dFileSize = input_.Take<double>();
        slot.bStateChanged = choice & 32;
        CopySlot(&LeftOf(index), &slot);
    }

    // Works out the next pass.
    void Predict() {
        Threading::AutoLock map(&g_access_taskmap_mutex);
        Threading::AutoLock count(&g_access_taskcount_mutex);
        Expect(static_cast<std::size_t>(g_TaskCount) == g_TaskInfo_map.size(), "tasks are counted");
        expected_.clear();
        if (g_TaskInfo_map.empty()) std::fill_n(left_.begin(), TASK_COMMDATA_OFFSET, '\0');
        for (const auto& [id, node] : g_TaskInfo_map) {
            const tagTaskContext& slot = *SlotAt(g_VideoInfoSection, SlotOf(*node));
            if (strutil::trim(FieldText(slot.szTaskID)) != id) continue;
            tagTaskContext& left = LeftOf(SlotOf(*node));
            left.bStateChanged = 0;
            left.nStateBits = 0;
            if (!PredictCalls(id, *node, slot)) continue;
            std::memset(static_cast<void*>(&left), 0, TASK_SLOT_SIZE);
        }
    }

    // Whether the task ends.
    bool PredictCalls(const std::string& id, const tagTaskNode& node, const tagTaskContext& slot) {
        const std::map<int, double> values{
            {0, 0}, {2, 0}, {4, slot.dProgress}, {5, slot.dSpeed}, {10, slot.dFileSize}};
        for (int code = 0; code < 32; ++code) {
            if ((slot.nStateBits >> code & 1) == 0) continue;
            const auto value = values.find(code);
            const bool ends = (FINAL_STATE_BITS >> code & 1) != 0;
            if (value == values.end() && !ends) continue;
            if (code == 1) {
                if (node.pfnResultCallback != nullptr) {
                    expected_.emplace_back(id, code, "", FieldText(slot.szVideoInfo));
                }
            } else if (node.pfnStateCallback != nullptr) {
                const double final = code == 3 && node.nTaskKind == 1 ? -1.0 : 0.0;
                expected_.emplace_back(id, code, Bits(ends ? final : value->second), "");
            }
            if (ends) return true;
        }
        return false;
    }

    static int SlotOf(const tagTaskNode& node) { return node.nTaskIndex < 0 ? 7 : node.nTaskIndex; }

    static tagTaskContext& LeftOf(int index) {
        return reinterpret_cast<tagTaskContext*>(left_.data())[index];
    }

    // Callbacks may take the locks.
    static bool IsKnown(const char* id) {
        Threading::AutoLock hold(&g_access_taskmap_mutex);
        return g_TaskInfo_map.contains(id);
    }
    static void OnState(void* param, const char* id, int code, double value, int) {
        static_cast<Workers*>(param)->calls_.emplace_back(id, code, Bits(value), "");
        const bool ends = (FINAL_STATE_BITS >> code & 1) != 0;
        Expect(ends == !IsKnown(id), "a task that has ended is forgotten");
    }
    static void OnResult(void* param, const char* id, int code, const char* text,
                         std::uint32_t length) {
        Expect(text[length] == 0 && text[length + 1] == 0, "two zeros are behind the text");
        static_cast<Workers*>(param)->calls_.emplace_back(id, code, "", std::string(text, length));
        Expect(!IsKnown(id), "a task that has ended is forgotten");
    }

    fuzz::Input input_;
    std::vector<Call> calls_;     // made in this pass
    std::vector<Call> expected_;  // to be made in it

    // Kept from one input to the next: making them anew takes longer than all the rest.
    static inline std::vector<char> section_;
    static inline std::vector<char> left_;  // the section after this pass
};

thread_local Workers* t_workers = nullptr;  // of the scanner's thread

void* Scan(void* workers) {
    t_workers = static_cast<Workers*>(workers);
    return StartScanData(nullptr);
}

}  // namespace

extern "C" unsigned sleep(unsigned seconds) {
    if (t_workers == nullptr) {
        std::this_thread::sleep_for(std::chrono::seconds(seconds));
    } else {
        Expect(seconds == 1, "a pass begins each second");
        t_workers->Pause();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Workers workers(fuzz::Input(data, size));
    g_ScanThradIsExit = false;
    pthread_t scanner{};
    Expect(pthread_create(&scanner, nullptr, Scan, &workers) == 0, "a scanner starts");
    pthread_join(scanner, nullptr);
    return 0;
}
