#include "common/AutoLock.h"

namespace Threading {

AutoLock::AutoLock(Mutex* mutex) TS_NO_ANALYSIS : m_pMutex(mutex), m_bLocked(false) {
    Lock();
}

AutoLock::~AutoLock() TS_NO_ANALYSIS {
    if (m_bLocked) UnLock();
    m_pMutex = nullptr;
}

void AutoLock::Lock() TS_NO_ANALYSIS {
    if (m_pMutex == nullptr) return;
    m_pMutex->Lock();
    m_bLocked = true;
}

void AutoLock::UnLock() TS_NO_ANALYSIS {
    if (m_pMutex == nullptr) return;
    m_pMutex->UnLock();
    m_bLocked = false;
}

void AutoLock::SetUnlock() {
    m_bLocked = false;
}

}  // namespace Threading
