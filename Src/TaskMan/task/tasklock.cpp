#include "TaskMan/task/tasklock.h"

#include <fcntl.h>

#include <cerrno>
#include <utility>

#include "TaskMan/manager.h"
#include "common/platform.h"

namespace {

// Has `make` make the name, once more without the one that is there already, if there is.
template <class Make>
int MakeNew(const std::string& name, Make make) {
    int error = make();
    if (error == EEXIST) {
        sem_unlink(name.c_str());
        error = make();
    }
    return error;
}

}  // namespace

int TaskLock::Make(const std::string& id, bool keep) {
    id_ = id;
    same_ = TakeKept();
    if (same_) return 0;
    Close();
    if (keep) {
        // Named like a task of this manager: a sweep finds it when the manager is dead.
        std::string own = MakeTaskID();
        if (MakeAs(own) == 0) {
            kept_as_ = std::move(own);
            if (TakeName() == 0) return 0;
            Close();
        }
    }
    return MakeAs(id);
}

// Whether the lock that was left from the task before is this task's now. Not when somebody has it,
// or has released it twice.
bool TaskLock::TakeKept() const {
    int value = -1;
    return IsKept() && Try() && sem_getvalue(semaphore_, &value) == 0 && value == 0 &&
           TakeName() == 0;
}

// Gives the lock that is kept the task's name as well. Returns 0 or an error number.
int TaskLock::TakeName() const {
    return MakeNew(id_, [this] { return platform::LinkSemaphore(kept_as_, id_); });
}

int TaskLock::MakeAs(const std::string& name) {
    return MakeNew(name, [&] {
        constexpr mode_t kPrivate = 0600;
        sem_t* made = sem_open(name.c_str(), O_CREAT | O_EXCL, kPrivate, 0U);
        if (made == SEM_FAILED) return errno;
        semaphore_ = made;
        return 0;
    });
}

int TaskLock::File() {
    const std::string& name = IsKept() ? kept_as_ : id_;
    if (!file_.IsOpen()) errno = platform::SemaphoreFile(name, O_RDONLY, file_);
    return file_.Get();
}

void TaskLock::ReleaseForDead() {
    Unkeep();
    Release();
}

void TaskLock::Unkeep() {
    if (IsKept()) sem_unlink(std::exchange(kept_as_, {}).c_str());
}

void TaskLock::Close() {
    if (semaphore_ != nullptr) sem_close(std::exchange(semaphore_, nullptr));
    Unkeep();
    file_.Close();
}
