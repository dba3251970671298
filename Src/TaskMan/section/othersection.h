// The section of any manager of this user, attached without creating it.
#pragma once

#include <string>
#include <vector>

#include "TaskMan/othermanagers.h"
#include "common/uncopyable.h"

class OtherSection : private Uncopyable {
  public:
    // `access`: O_RDONLY or O_RDWR.
    OtherSection(int nManagerPid, int access);
    ~OtherSection();

    // False when there is none, or none of this user. The other calls want true.
    bool IsOpen() const { return descriptor_ != -1; }

    // Whether its manager lives. False leaves the section locked by this object, so that nobody
    // else takes it for dead at the same time.
    bool Lives() const;

    // The slots that carry a valid id; none when the section is too short to hold slots.
    std::vector<OtherTask> Tasks() const;

    // Stores the stop word into the slot while it carries the id. False when it does not, before or
    // afterwards. Wants O_RDWR.
    bool StoreStop(int nTaskIndex, const std::string& id) const;

    // Removes the name, unless it is another section's by now.
    void Remove() const;

    int ManagerPid() const { return pid_; }
    const std::string& Name() const { return name_; }

  private:
    const int pid_;
    const std::string name_;
    int descriptor_;
};

// Process ids in the names of all sections, in ascending order.
std::vector<int> SectionNumbers();
