// The scanner against slots that the test fills in the workers' place, and what is told of tasks.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <map>
#include <sstream>

#include "TaskMan/taskman.h"
#include "common/AutoLock.h"
#include "common/fieldtext.h"

namespace {

// What happens in the second between two passes, on the scanner's thread; the first is 1.
std::function<void(int pass)> g_between;

}  // namespace

// Takes the place of the C library's in this program.
extern "C" unsigned sleep(unsigned seconds) {
    static thread_local int pass = 0;
    EXPECT_EQ(1U, seconds);
    g_between(++pass);
    return 0;
}

namespace {

// A section and a map of its own.
class ScannerTest : public testing::Test {
  protected:
    ScannerTest() { g_VideoInfoSection.hPrt = section_.data(); }
    ~ScannerTest() override {
        for (const auto& [id, node] : g_TaskInfo_map) delete node;
        g_TaskInfo_map.clear();
        g_VideoInfoSection = {};
    }

    tagTaskNode& Add(const std::string& id, int nTaskIndex, int nCmd, int nTaskKind) {
        auto* node = new tagTaskNode(id.c_str());
        node->nTaskIndex = nTaskIndex;
        node->nCmd = nCmd;
        node->nTaskKind = nTaskKind;
        node->pCallbackParam = this;
        node->pfnStateCallback = OnState;
        node->pfnResultCallback = OnResult;
        node->mutexLock = new Threading::Mutex;
        SetField(Slot(nTaskIndex).szTaskID, id);
        Threading::AutoLock hold(&g_access_taskmap_mutex);
        g_TaskInfo_map[id] = node;
        return *node;
    }
    static tagTaskContext& Slot(int index) { return *SlotAt(g_VideoInfoSection, index & 7); }

    // Runs the scanner until it ends.
    static void Scan(std::function<void(int)> between) {
        CheckAndCalcTaskCount();
        g_between = std::move(between);
        g_ScanThradIsExit = false;
        pthread_t thread{};
        ASSERT_EQ(0, pthread_create(&thread, nullptr, StartScanData, nullptr));
        pthread_join(thread, nullptr);
        EXPECT_TRUE(g_ScanThradIsExit);
    }

    std::string section_ = std::string(TASK_COMMDATA_OFFSET, '\0') + "/info";
    std::map<std::string, std::string> calls_;  // by task: codes with values or texts

  private:
    static void OnState(void* self, const char* id, int code, double value, int) {
        std::ostringstream call;
        call << code << '=' << value << ' ';
        static_cast<ScannerTest*>(self)->calls_[id] += call.str();
    }
    static void OnResult(void* self, const char* id, int code, const char* text, unsigned length) {
        static_cast<ScannerTest*>(self)->calls_[id] +=
            std::to_string(code) + ' ' + std::string(text, length);
    }
};

constexpr std::uint32_t Bits(std::initializer_list<int> codes) {
    std::uint32_t bits = 0;
    for (const int code : codes) bits |= 1U << code;
    return bits;
}

TEST_F(ScannerTest, TurnsEveryCodeIntoItsCall) {
    struct Row {
        const char* id;
        int nTaskIndex, nCmd, nTaskKind;
        std::uint32_t bits;
        std::string calls;
    };
    const std::string text(sizeof(tagTaskContext::szVideoInfo), 'x');
    const Row rows[] = {
        {"informs", 0, 1, 0, Bits({10, 2, 4, 5, 0, 9, 17, 31}), "0=0 2=0 4=41 5=42 10=43 7=0 "},
        {"final first", 1, 1, 0, Bits({4, 3}), "3=0 "},
        {"parse job by kind", 2, 3, 1, Bits({3}), "3=-1 "},
        {"text", 3, 0, 0, Bits({1}), "1 " + text},
        {"parse fails", 4, 0, 0, Bits({6, 7, 8, 16}), "6=0 "},
        {"too long", 5, 0, 0, Bits({16}), "16=0 "},
        {"no index", -1, 3, 0, Bits({8}), "8=0 "},
    };
    const std::string before = section_;
    for (const Row& row : rows) {
        Add(row.id, row.nTaskIndex, row.nCmd, row.nTaskKind);
        tagTaskContext& slot = Slot(row.nTaskIndex);
        slot.nStateBits = row.bits;
        slot.dProgress = 41;
        slot.dSpeed = 42;
        slot.dFileSize = 43;
        std::memcpy(slot.szVideoInfo, text.data(), text.size());
        slot.nReserved4 = -1;
    }
    Scan([&](int pass) {
        EXPECT_EQ(0, std::memcmp(&Slot(1), &before[TASK_SLOT_SIZE], 7 * TASK_SLOT_SIZE));
        Threading::AutoLock hold(&g_access_taskcount_mutex);
        EXPECT_EQ(0, g_ParseCount);
        EXPECT_EQ(pass < 3 ? 1 : 0, g_DownloadCount);
        // A slot that carries another id is left alone, until it is the task's again.
        tagTaskContext& slot = Slot(0);
        EXPECT_EQ(pass == 2 ? Bits({7}) : 0, slot.nStateBits);
        SetField(slot.szTaskID, pass == 1 ? "informs not" : "informs");
        slot.nStateBits = Bits({7});
    });
    for (const Row& row : rows) EXPECT_EQ(row.calls, calls_[row.id]) << row.id;
    EXPECT_EQ(43, g_TaskFileSize[0]);
    EXPECT_EQ(before, section_);
}

TEST_F(ScannerTest, WorksThreePassesAfterTheShutdownFlag) {
    Add("shut", 0, 1, 0);
    int passes = 0;
    g_Exit = true;
    Scan([&](int pass) { passes = pass; });
    g_Exit = false;
    EXPECT_EQ(3, passes);
}

TEST_F(ScannerTest, TellsOfTasksAndOfABackslash) {
    const std::string id(33, 'p');
    SetField(Add(id, 0, 3, 0).szOrgUrl, "http://site/page");
    testing::internal::CaptureStderr();
    tagTaskInfo unnamed("");
    EXPECT_FALSE(CheckTaskParam(&unnamed, ""));
    EXPECT_FALSE(CheckPath("C:\\v", "Row"));
    Threading::AutoLock hold(&g_access_taskmap_mutex);
    PrintTaskMapInfo(&unnamed);
    EXPECT_EQ(
        "ERROR: Tarnwicker szFilePath has problem,FilePath: C:\\v\n"
        "Error!! \xCE\xC4\xBC\xFE\xC3\xFB\xBB\xF2\xC2\xB7\xBE\xB6\xC3\xFB"
        "\xD3\xD0\xCE\xCA\xCC\xE2!! Function: Row\n"
        "DEBUG PrintTaskMapInfo Taskid: " +
            id + "(33), CMD: 3, Other  Pic, OrgUrl: http://site/page \r\n\r\n",
        testing::internal::GetCapturedStderr());
}

}  // namespace
