// Holds a Threading::Mutex for the length of a scope.
#pragma once

#include "common/mutex.h"
#include "common/uncopyable.h"

namespace Threading {

// Works on a mutex of somebody else, who keeps it alive. A null mutex is allowed: nothing is taken
// then and nothing is released.
class TS_SCOPED_CAPABILITY AutoLock : private Uncopyable {
  public:
    explicit AutoLock(Mutex* mutex) TS_ACQUIRE(mutex);

    // Releases the mutex if it is still held, also when an exception leaves the scope.
    virtual ~AutoLock() TS_RELEASE();

    // Neither looks whether the mutex is held: each is for its turn.
    void Lock() TS_ACQUIRE();
    void UnLock() TS_RELEASE();

    // Forgets that the mutex is held: it stays taken beyond this holder.
    void SetUnlock();

    // Whether this holder has the mutex.
    operator bool() const { return m_bLocked; }

  private:
    Mutex* m_pMutex;
    bool m_bLocked;
};

}  // namespace Threading
