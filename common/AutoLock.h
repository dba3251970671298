// Holds a Threading::Mutex for the length of a scope.
#pragma once

#include "common/mutex.h"
#include "common/uncopyable.h"

namespace Threading {

// Does not own the mutex, which has to outlive it. A null mutex is allowed: nothing is locked then
// and nothing released.
class TS_SCOPED_CAPABILITY AutoLock : private Uncopyable {
  public:
    explicit AutoLock(Mutex* mutex) TS_ACQUIRE(mutex);

    // Releases the mutex if it is still held, also when an exception leaves the scope.
    virtual ~AutoLock() TS_RELEASE();

    // Neither checks whether this holder has the mutex: they are to be called in turns.
    void Lock() TS_ACQUIRE();
    void UnLock() TS_RELEASE();

    // Forgets that the mutex is held: the destructor leaves it locked.
    void SetUnlock();

    // Whether this holder has the mutex.
    operator bool() const { return m_bLocked; }

  private:
    Mutex* m_pMutex;
    bool m_bLocked;
};

}  // namespace Threading
