// CRunnable: the base of the system's threads.
//
// A joinable toolkit thread whose body is OnRun, followed by OnExit on the
// same thread. Other threads control it through requestExit, Awaken,
// interrupt and StopThread; the body tests for the end with TestDestroy.
//
// Locks: m_StateLock serialises start and StopThread and guards m_Started and
// m_Joined. m_WaitLock with m_WaitChanged guards m_ExitRequested, m_Awakened
// and m_Entered, the state that wakes the body. m_Running is atomic.
//
// A derived class calls StopThread in its own destructor: the base destructor
// stops the thread too, but by then the derived part is gone. An object is
// never destroyed on its own thread.
#pragma once

#include <atomic>
#include <condition_variable>

#include <wx/thread.h>

#include "host/Lock.h"
#include "host/Types.h"

namespace NorvCore {

class CRunnable : public wxThread {
public:
    ~CRunnable() override;

    // Creates and runs the thread. priority is the toolkit's scale, 0 to 100,
    // 50 being normal; with waitForStart the call returns only once the thread
    // has begun its body; stackSize is in bytes, 0 for the default. A thread
    // object runs once: a second start is refused with an operator log error.
    void start(u32 priority, bool waitForStart, u32 stackSize);
    // True from start until the thread has finished its body and OnExit.
    bool isRunning() const;
    // Asks the thread to end (requestExit, interrupt) and waits for it; name
    // is for the trace, GetThreadName() when null. Does nothing on a thread
    // never started or already stopped; on the thread itself it only asks.
    void StopThread(const wchar_t* name);
    // Whether requestExit has been called.
    bool ExitRequested() const;
    // The toolkit's stop, made to end the body's waits as well: the same as
    // StopThread(nullptr). rc, when given, receives null.
    wxThreadError Delete(ExitCode* rc = nullptr, wxThreadWait waitMode = wxTHREAD_WAIT_DEFAULT);

    // The CRunnable whose body runs on the calling thread, or null.
    static CRunnable* Current();

    // On the thread itself: whether the exit was requested, here or by the
    // toolkit, without waiting and without taking a pending wake.
    bool TestDestroy() override;

    // The thread's name for trace and logs.
    virtual const char* GetThreadName() const;
    // Wakes the body from TestDestroy(waitMsec); a wake that comes while the
    // body is not waiting ends its next wait at once.
    virtual void Awaken();
    // Breaks whatever the body waits on; the base wakes TestDestroy.
    virtual void interrupt();
    // Sets the exit request and wakes the body.
    virtual void requestExit();
    // On the thread itself: waits up to waitMsec for an exit request or a
    // wake. True when the exit was requested (here or by the toolkit's
    // Delete). woken, when given, tells whether a wake ended the wait.
    virtual bool TestDestroy(u32 waitMsec, bool* woken);

protected:
    // blockSignals: the thread blocks asynchronous signals so that the
    // process's handlers run elsewhere. cpu: the processor the thread is
    // bound to, -1 for none. nameThread: the system thread is named after
    // GetThreadName() (first 15 bytes), as tools such as top show it.
    CRunnable(bool blockSignals, int cpu, bool nameThread);

    // Runs OnRun; exceptions end up in the operator log.
    void* Entry() override;
    // Called on the thread after the body; derived classes call it last.
    void OnExit() override;
    // The thread's work.
    virtual void OnRun() = 0;

private:
    friend struct CurrentRunnable;

    void PrepareThread();
    void MarkFinished();

    const bool m_BlockSignals;
    const int m_Cpu;
    const bool m_NameThread;

    CMutex m_StateLock;  // held over join
    bool m_Started GUARDED_BY(m_StateLock) = false;
    bool m_Joined GUARDED_BY(m_StateLock) = false;
    std::atomic<bool> m_Running{false};

    mutable CMutex m_WaitLock;
    std::condition_variable m_WaitChanged;  // on m_WaitLock
    bool m_ExitRequested GUARDED_BY(m_WaitLock) = false;
    bool m_Awakened GUARDED_BY(m_WaitLock) = false;
    bool m_Entered GUARDED_BY(m_WaitLock) = false;
};

}  // namespace NorvCore
