// The lock of a task: its named semaphore, under the task's id.
//
// Making one, mapping it into two processes and taking all of it away again costs more than
// anything else that is done for a small file. So where semaphores are files, that of a worker
// which stays has a name of its own besides, and goes with the worker: each task of it gives the
// semaphore a further name.
#pragma once

#include <semaphore.h>

#include <string>
#include <utility>

#include "common/file.h"

// Whoever has the watches' lock may call; but Try and Release, which work on a lock that is open.
// Nothing is closed by destruction: a forked child would take the names away when it exits.
class TaskLock {
  public:
    // Makes the lock for the task `id`, or gives that name to the one that it was left with. A
    // semaphore of that name that is there already is replaced: it may have been left locked, or be
    // another program's. The lock is taken then, by the caller. `keep`: it may be left to a next
    // task. Returns 0; or an error number, and nothing is open.
    int Make(const std::string& id, bool keep);

    bool IsOpen() const { return semaphore_ != nullptr; }
    sem_t* Semaphore() const { return semaphore_; }

    // Takes the lock if it is free; whether it was.
    bool Try() const { return sem_trywait(semaphore_) == 0; }
    void Release() const { sem_post(semaphore_); }

    // Releases it on behalf of a holder that is taken for dead. Should that release it as well, no
    // further task has the lock.
    void ReleaseForDead();

    // Whether a next task may have it.
    bool IsKept() const { return !kept_as_.empty(); }

    // Takes its own name away: no next task has it.
    void Unkeep();

    // Whether it is that of the task before, which its worker has.
    bool IsSame() const { return same_; }

    // Its descriptor, by which the worker of the task before knows it again, but cannot cut it; -1:
    // the system has none, or does not give it, with errno set.
    int File();

    // Closes the lock and takes its own name away, if there is one; the task's stays. Does nothing
    // when it is closed.
    void Close();

    // Moves the lock away.
    TaskLock Take() { return std::exchange(*this, {}); }

  private:
    bool TakeKept() const;
    int TakeName() const;
    int MakeAs(const std::string& name);

    sem_t* semaphore_ = nullptr;
    std::string id_{};       // of the task
    std::string kept_as_{};  // its own name; empty: it has none
    bool same_ = false;
    Descriptor file_{};
};
