// The locks of the system, in a form that Clang's thread-safety analysis
// understands: each lock type is a capability and each scope guard says what
// it holds, so that members marked GUARDED_BY are only touched under their
// lock. The wrappers add nothing at run time.
//
//   CCriticalSection / CCriticalSectionLocker: the toolkit's critical section,
//       for the short data locks of the log object and the SSL service.
//   CWxMutex / CWxMutexLocker: the toolkit's mutex, where a wxCondition
//       waits on it.
//   CMutex / CMutexLocker: std::mutex, for the host core; the locker also
//       waits on a std::condition_variable, the lock held again on return.
//   CSharedMutex / CSharedLocker / CExclusiveLocker: std::shared_mutex, for
//       state that many threads read and few write.
//
// Thread safety: each is a lock; the lockers belong to the thread that made
// them.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <shared_mutex>

#include <wx/thread.h>

#include "host/ThreadAnnotations.h"

namespace NorvCore {

class CAPABILITY("mutex") CCriticalSection {
public:
    CCriticalSection() = default;
    CCriticalSection(const CCriticalSection&) = delete;
    CCriticalSection& operator=(const CCriticalSection&) = delete;

    void Enter() ACQUIRE() { m_Section.Enter(); }
    void Leave() RELEASE() { m_Section.Leave(); }

private:
    wxCriticalSection m_Section;
};

class SCOPED_CAPABILITY CCriticalSectionLocker {
public:
    explicit CCriticalSectionLocker(CCriticalSection& section) ACQUIRE(section)
        : m_Section(section) {
        m_Section.Enter();
    }
    ~CCriticalSectionLocker() RELEASE() { m_Section.Leave(); }
    CCriticalSectionLocker(const CCriticalSectionLocker&) = delete;
    CCriticalSectionLocker& operator=(const CCriticalSectionLocker&) = delete;

private:
    CCriticalSection& m_Section;
};

class CAPABILITY("mutex") CWxMutex {
public:
    CWxMutex() = default;
    CWxMutex(const CWxMutex&) = delete;
    CWxMutex& operator=(const CWxMutex&) = delete;

    void Lock() ACQUIRE() { m_Mutex.Lock(); }
    void Unlock() RELEASE() { m_Mutex.Unlock(); }
    // For the wxCondition that waits on this mutex.
    wxMutex& Native() { return m_Mutex; }

private:
    wxMutex m_Mutex;
};

class SCOPED_CAPABILITY CWxMutexLocker {
public:
    explicit CWxMutexLocker(CWxMutex& mutex) ACQUIRE(mutex) : m_Mutex(mutex) { m_Mutex.Lock(); }
    ~CWxMutexLocker() RELEASE() { m_Mutex.Unlock(); }
    CWxMutexLocker(const CWxMutexLocker&) = delete;
    CWxMutexLocker& operator=(const CWxMutexLocker&) = delete;

private:
    CWxMutex& m_Mutex;
};

class CAPABILITY("mutex") CMutex {
public:
    CMutex() = default;
    CMutex(const CMutex&) = delete;
    CMutex& operator=(const CMutex&) = delete;

    void lock() ACQUIRE() { m_Mutex.lock(); }
    void unlock() RELEASE() { m_Mutex.unlock(); }

private:
    friend class CMutexLocker;
    std::mutex m_Mutex;
};

class SCOPED_CAPABILITY CMutexLocker {
public:
    explicit CMutexLocker(CMutex& mutex) ACQUIRE(mutex) : m_Lock(mutex.m_Mutex) {}
    ~CMutexLocker() RELEASE() {}
    CMutexLocker(const CMutexLocker&) = delete;
    CMutexLocker& operator=(const CMutexLocker&) = delete;

    // Waits on condition, the lock given up meanwhile and held again on
    // return. The caller tests its own predicate in a loop: the analysis can
    // see that test only in the caller's body.
    void Wait(std::condition_variable& condition) { condition.wait(m_Lock); }
    // False when the deadline passed.
    bool WaitUntil(std::condition_variable& condition,
                   std::chrono::steady_clock::time_point deadline) {
        return condition.wait_until(m_Lock, deadline) == std::cv_status::no_timeout;
    }

private:
    std::unique_lock<std::mutex> m_Lock;
};

class CAPABILITY("mutex") CSharedMutex {
public:
    CSharedMutex() = default;
    CSharedMutex(const CSharedMutex&) = delete;
    CSharedMutex& operator=(const CSharedMutex&) = delete;

    void lock() ACQUIRE() { m_Mutex.lock(); }
    void unlock() RELEASE() { m_Mutex.unlock(); }
    void lock_shared() ACQUIRE_SHARED() { m_Mutex.lock_shared(); }
    void unlock_shared() RELEASE_SHARED() { m_Mutex.unlock_shared(); }

private:
    std::shared_mutex m_Mutex;
};

class SCOPED_CAPABILITY CSharedLocker {
public:
    explicit CSharedLocker(CSharedMutex& mutex) ACQUIRE_SHARED(mutex) : m_Mutex(mutex) {
        m_Mutex.lock_shared();
    }
    ~CSharedLocker() RELEASE() { m_Mutex.unlock_shared(); }
    CSharedLocker(const CSharedLocker&) = delete;
    CSharedLocker& operator=(const CSharedLocker&) = delete;

private:
    CSharedMutex& m_Mutex;
};

class SCOPED_CAPABILITY CExclusiveLocker {
public:
    explicit CExclusiveLocker(CSharedMutex& mutex) ACQUIRE(mutex) : m_Mutex(mutex) {
        m_Mutex.lock();
    }
    ~CExclusiveLocker() RELEASE() { m_Mutex.unlock(); }
    CExclusiveLocker(const CExclusiveLocker&) = delete;
    CExclusiveLocker& operator=(const CExclusiveLocker&) = delete;

private:
    CSharedMutex& m_Mutex;
};

}  // namespace NorvCore
