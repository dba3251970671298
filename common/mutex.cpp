#include "common/mutex.h"

#include <fcntl.h>

#include <cerrno>
#include <utility>

#include "common/assertion.h"

namespace Threading {
namespace {

constexpr const char* kSource = "common/mutex";
constexpr const char* kHasSemaphore = "NULL != m_NamedLock";

}  // namespace

Mutex::Mutex() : m_nInitValue(1), m_bNamed(false), m_NamedLock(nullptr) {
    pthread_mutex_init(&m_Mutex, nullptr);
}

Mutex::Mutex(const char* name)
    : m_nInitValue(1), m_strName(name), m_bNamed(true), m_NamedLock(nullptr), m_Mutex() {
    sem_t* opened = sem_open(name, O_CREAT, 0644, static_cast<unsigned>(m_nInitValue));
    // SEM_FAILED is not a null pointer on every system.
    m_NamedLock = opened == SEM_FAILED ? nullptr : opened;
    assertion::Require(m_NamedLock != nullptr, "Mutex", kSource, kHasSemaphore, 60);
}

Mutex::Mutex(Lent lent)
    : m_nInitValue(1),
      m_strName(std::move(lent.name)),
      m_bNamed(true),
      m_bLent(true),
      m_NamedLock(lent.semaphore),
      m_Mutex() {}

Mutex::~Mutex() {
    if (!m_bNamed) {
        pthread_mutex_destroy(&m_Mutex);
    } else if (m_NamedLock != nullptr) {
        if (!m_bLent) sem_close(m_NamedLock);
        if (!m_strName.empty()) sem_unlink(m_strName.c_str());
        m_NamedLock = nullptr;
    }
}

bool Mutex::Lock() TS_NO_ANALYSIS {
    if (!m_bNamed) {
        pthread_mutex_lock(&m_Mutex);
        return true;
    }
    assertion::Require(m_NamedLock != nullptr, "Lock", kSource, kHasSemaphore, 105);
    // Returning after an interruption would lead to a post without a wait, and the semaphore would
    // admit two holders from then on.
    while (sem_wait(m_NamedLock) != 0 && errno == EINTR) {
    }
    return true;
}

bool Mutex::UnLock() TS_NO_ANALYSIS {
    if (!m_bNamed) {
        pthread_mutex_unlock(&m_Mutex);
        return true;
    }
    assertion::Require(m_NamedLock != nullptr, "UnLock", kSource, kHasSemaphore, 133);
    sem_post(m_NamedLock);
    return true;
}

}  // namespace Threading
