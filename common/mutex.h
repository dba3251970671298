// The lock of the system, in two forms: a named semaphore that processes share, and a mutex of this
// process.
#pragma once

#include <pthread.h>
#include <semaphore.h>

#include <string>

#include "common/threadsafety.h"

namespace Threading {

// Neither form is recursive. The named form has no owner: any thread may release it, and a process
// that dies while it holds the lock leaves it taken.
class TS_CAPABILITY("mutex") Mutex {
  public:
    // The process-local form. The thread that took it must be the one that releases it.
    Mutex();

    // The named form: opens the semaphore `name` (its current value is kept), or creates it with
    // value 1 and mode 0644. The name is passed to the system as it is. A semaphore that cannot be
    // opened ends the process with the standard assertion.
    explicit Mutex(const char* name);

    // The named form over a semaphore that is open already, and that somebody else closes.
    struct Lent {
        sem_t* semaphore;
        std::string name{};  // removed with the lock; empty: that is somebody else's, too
    };
    explicit Mutex(Lent lent);

    // Closes the semaphore and removes its name; a process that still has it open keeps using it.
    virtual ~Mutex();

    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    // Blocks until the lock is acquired, also across interruptions by signals. Always true.
    bool Lock() TS_ACQUIRE();

    // Releases the lock. Always true.
    bool UnLock() TS_RELEASE();

  private:
    int m_nInitValue;         // value a new semaphore gets: 1, free
    std::string m_strName;    // to be removed; empty: none
    bool m_bNamed;            // which of the two forms this is
    bool m_bLent = false;     // somebody else closes the semaphore
    sem_t* m_NamedLock;       // NULL in the process-local form and after destruction
    pthread_mutex_t m_Mutex;  // used by the process-local form only
};

}  // namespace Threading
