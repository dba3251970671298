// What a worker's intake leaves to its job, made in this process: a task in slot 5 of a section,
// and its lock. The slot's id has an end that the task's lacks.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "Tarnwick/jobstate.h"
#include "common/fieldtext.h"
#include "support/helpers.h"

namespace test_support {

class Job {
  public:
    explicit Job(std::int32_t nCmd = TASK_CMD_DOWNLOAD) {
        g_VideoInfoSection.hPrt = reinterpret_cast<char*>(memory_.data());
        g_TaskIndex = 5;
        SetField(Slot().szTaskID, id + "-and-more");
        SetField(g_TaskInfo.szTaskID, id);
        g_TaskInfo.mutexLock = new Threading::Mutex(id.c_str());
        g_CurTaskContext_prt = &Slot();
        g_TaskConData.nCmd = nCmd;
        g_TryCount = 0;
        g_Exit = false;
    }
    ~Job() { delete std::exchange(g_TaskInfo.mutexLock, nullptr); }
    tagTaskContext& Slot() { return *SlotAt(g_VideoInfoSection, g_TaskIndex); }

    const std::string id = UniqueName();

  private:
    std::vector<std::uint64_t> memory_ = std::vector<std::uint64_t>(SHARE_MEM_SIZE / 8 + 1);
};

}  // namespace test_support
