// The state that a worker's intake leaves to its job, made in this process.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "Tarnwick/jobstate.h"
#include "common/fieldtext.h"
#include "support/helpers.h"

namespace test_support {

// A task in slot 5 of a section in this process's memory, with its lock. The slot's id has an end
// that the task's lacks.
class Job {
  public:
    explicit Job(std::int32_t nCmd = TASK_CMD_DOWNLOAD) : id(UniqueName()) {
        g_VideoInfoSection.hPrt = reinterpret_cast<char*>(memory_.data());
        g_TaskIndex = 5;
        SetField(Slot().szTaskID, id + "-and-more");
        SetField(g_TaskInfo.szTaskID, id);
        g_TaskInfo.mutexLock = new Threading::Mutex(id.c_str());
        g_CurTaskContext_prt = &Slot();
        g_TaskConData.nCmd = nCmd;
    }
    ~Job() {
        delete std::exchange(g_TaskInfo.mutexLock, nullptr);
        g_VideoInfoSection.hPrt = nullptr;
        g_CurTaskContext_prt = nullptr;
    }
    tagTaskContext& Slot() {
        return reinterpret_cast<tagTaskContext*>(memory_.data())[g_TaskIndex];
    }

    const std::string id;

  private:
    std::vector<std::uint64_t> memory_ = std::vector<std::uint64_t>(SHARE_MEM_SIZE / 8 + 1);
};

}  // namespace test_support
