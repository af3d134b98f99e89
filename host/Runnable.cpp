// CRunnable: start, stop and wake-up of the system's threads.
#include "host/Runnable.h"

#include <pthread.h>
#include <sched.h>
#include <signal.h>

#include <cxxabi.h>
#include <algorithm>
#include <chrono>
#include <exception>

#include <wx/log.h>

#include "host/ExitGuard.h"
#include "host/TextHelpers.h"
#include "host/Trace.h"

namespace NorvCore {

// The CRunnable whose body runs on this thread. The record is destroyed when
// the system thread ends, which is after the toolkit has called OnExit: that
// is the moment the object stops counting as running.
struct CurrentRunnable {
    CRunnable* runnable = nullptr;
    ~CurrentRunnable() {
        if (runnable != nullptr) {
            runnable->MarkFinished();
        }
    }
};

namespace {

thread_local CurrentRunnable t_Current;

const wchar_t* const kThreadTrace = L"norv.thread";

}  // namespace

CRunnable::CRunnable(bool blockSignals, int cpu, bool nameThread)
    : wxThread(wxTHREAD_JOINABLE),
      m_BlockSignals(blockSignals),
      m_Cpu(cpu),
      m_NameThread(nameThread) {}

CRunnable::~CRunnable() {
    StopThread(nullptr);
}

CRunnable* CRunnable::Current() {
    return t_Current.runnable;
}

void CRunnable::start(u32 priority, bool waitForStart, u32 stackSize) {
    {
        CMutexLocker guard(m_StateLock);
        if (m_Started) {
            wxLogError("Thread %s was started before; a thread object runs once", GetThreadName());
            return;
        }
        if (Create(stackSize) != wxTHREAD_NO_ERROR) {
            wxLogError("Can't create thread %s", GetThreadName());
            return;
        }
        if (priority != wxPRIORITY_DEFAULT) {
            SetPriority(std::min<u32>(priority, wxPRIORITY_MAX));
        }
        m_Started = true;
        m_Running = true;
        CExitGuard::ThreadStarting();
        if (Run() != wxTHREAD_NO_ERROR) {
            // The system thread exists but never runs the body: nothing to
            // wait for later.
            wxLogError("Can't run thread %s", GetThreadName());
            CExitGuard::ThreadFinished();
            m_Running = false;
            m_Joined = true;
            return;
        }
        NORV_TRACE(kThreadTrace, wxString::Format("%s started", GetThreadName()));
    }
    if (waitForStart) {
        CMutexLocker lock(m_WaitLock);
        while (!m_Entered) {
            lock.Wait(m_WaitChanged);
        }
    }
}

bool CRunnable::isRunning() const {
    return m_Running.load();
}

void CRunnable::StopThread(const wchar_t* name) {
    const wxString who = name != nullptr ? wxString(name) : wxString(GetThreadName());
    if (Current() == this) {
        // A thread can't wait for its own end; it can only ask for it.
        NORV_TRACE(kThreadTrace, wxString::Format("StopThread(%s) on its own thread", who));
        requestExit();
        interrupt();
        return;
    }
    CMutexLocker guard(m_StateLock);
    if (!m_Started || m_Joined) {
        return;
    }
    NORV_TRACE(kThreadTrace, wxString::Format("StopThread(%s)", who));
    requestExit();
    interrupt();
    Wait();
    m_Joined = true;
    m_Running = false;
    NORV_TRACE(kThreadTrace, wxString::Format("%s stopped", who));
    if (wxThread::IsMain()) {
        // What OnExit logged waits in the toolkit until the main thread
        // flushes: the thread's own log target ends with Entry.
        wxLog::FlushActive();
    }
}

bool CRunnable::ExitRequested() const {
    CMutexLocker guard(m_WaitLock);
    return m_ExitRequested;
}

wxThreadError CRunnable::Delete(ExitCode* rc, wxThreadWait) {
    StopThread(nullptr);
    if (rc != nullptr) {
        *rc = nullptr;
    }
    return wxTHREAD_NO_ERROR;
}

bool CRunnable::TestDestroy() {
    if (ExitRequested()) {
        return true;
    }
    return Current() == this && wxThread::TestDestroy();
}

const char* CRunnable::GetThreadName() const {
    return "CRunnable";
}

void CRunnable::Awaken() {
    {
        CMutexLocker guard(m_WaitLock);
        m_Awakened = true;
    }
    m_WaitChanged.notify_all();
}

void CRunnable::interrupt() {
    Awaken();
}

void CRunnable::requestExit() {
    {
        CMutexLocker guard(m_WaitLock);
        m_ExitRequested = true;
    }
    Awaken();
}

bool CRunnable::TestDestroy(u32 waitMsec, bool* woken) {
    if (woken != nullptr) {
        *woken = false;
    }
    bool exitRequested = false;
    {
        CMutexLocker lock(m_WaitLock);
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMsec);
        while (waitMsec > 0 && !m_ExitRequested && !m_Awakened &&
               lock.WaitUntil(m_WaitChanged, deadline)) {
        }
        exitRequested = m_ExitRequested;
        if (m_Awakened) {
            m_Awakened = false;
            if (woken != nullptr) {
                *woken = true;
            }
        }
    }
    // The toolkit's own test may only be made on the thread itself.
    if (!exitRequested && Current() == this) {
        exitRequested = wxThread::TestDestroy();
    }
    return exitRequested;
}

void* CRunnable::Entry() {
    t_Current.runnable = this;
    // Without a target of its own the thread's log lines would wait for the
    // main thread to flush them.
    wxLog::SetThreadActiveTarget(OperatorLogTarget());
    CExitGuard::ThreadEntered();
    PrepareThread();
    {
        CMutexLocker guard(m_WaitLock);
        m_Entered = true;
    }
    m_WaitChanged.notify_all();
    try {
        OnRun();
    } catch (abi::__forced_unwind&) {
        throw;  // thread cancellation must unwind on
    } catch (const std::exception& e) {
        wxLogError("Thread %s ended by an exception: %s", GetThreadName(), e.what());
    } catch (...) {
        wxLogError("Thread %s ended by an unknown exception", GetThreadName());
    }
    return nullptr;
}

void CRunnable::OnExit() {
    NORV_TRACE(kThreadTrace, wxString::Format("%s::OnExit()", GetThreadName()));
}

void CRunnable::PrepareThread() {
    if (m_BlockSignals) {
        sigset_t signals;
        sigfillset(&signals);
        // Faults must still reach the thread that caused them.
        for (int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS}) {
            sigdelset(&signals, fault);
        }
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    }
    if (m_Cpu >= 0 && m_Cpu < CPU_SETSIZE) {
        cpu_set_t cpus;
        CPU_ZERO(&cpus);
        CPU_SET(m_Cpu, &cpus);
        const int error = pthread_setaffinity_np(pthread_self(), sizeof(cpus), &cpus);
        if (error != 0) {
            NORV_TRACE(kThreadTrace,
                       wxString::Format("%s can't be bound to processor %d: %s", GetThreadName(),
                                        m_Cpu, ErrnoToString(error)));
        }
    }
    if (m_NameThread) {
        char name[16];
        strcpy_safe(name, sizeof(name), GetThreadName());
        pthread_setname_np(pthread_self(), name);
    }
}

void CRunnable::MarkFinished() {
    m_Running = false;
    CExitGuard::ThreadFinished();
}

}  // namespace NorvCore
