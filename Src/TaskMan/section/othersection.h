// The section of any manager of this user, attached without creating it.
#pragma once

#include <string>
#include <vector>

#include "TaskMan/othermanagers.h"
#include "common/file.h"
#include "common/uncopyable.h"

class OtherSection : private Uncopyable {
  public:
    // `access`: O_RDONLY or O_RDWR.
    OtherSection(int nManagerPid, int access);

    // False when there is none, or none of this user. The other calls want true.
    bool IsOpen() const { return file_.IsOpen(); }

    // Whether its manager lives. If not, the object keeps the section locked (flock), so that two
    // sweeps never meet.
    bool Lives() const;

    // The slots that carry a valid id; none when the section is too short to hold slots.
    std::vector<OtherTask> Tasks() const;

    // Stores the stop word into the slot if it carries the id, as one aligned store without a lock.
    // False when it does not, before or right after the store. Wants O_RDWR.
    bool StoreStop(int nTaskIndex, const std::string& id) const;

    // Removes the name if it still is this section's.
    void Remove() const;

    int ManagerPid() const { return pid_; }
    const std::string& Name() const { return name_; }

  private:
    const int pid_;
    const std::string name_;
    Descriptor file_;
};

// Process ids in the names of all sections, in ascending order.
std::vector<int> SectionNumbers();
