// CSSLCertThread: the SSL key service for the driver.
//
// The driver can't do the RSA step of an SSL handshake that it inspects, so
// it asks user space to decrypt the client's pre-master secret with the key of
// the SSL host configuration concerned. This thread (the listener) takes one
// request at a time from the driver interface, checks and queues it; an
// elastic pool of CSSLCertThreadWorker threads (one per eight queued items, up
// to m_MaxWorkers) decrypts and answers on handles of their own. The object
// also holds the copy of the credential and host configuration records that
// the workers search, and SendSSLCertResponse, the only code that answers the
// driver. Scripts make it with a CDom, start and stop it through CRunnable,
// and call OnSecurityConfigurationChanged when the configuration changes.
//
// Threads and locks. The listener runs OnRun and ProcessDriverData; workers
// call SendSSLCertResponse, FindSSLConfiguration and the queue functions; the
// script thread calls OnSecurityConfigurationChanged and the stop. Locks nest
// only in this order: m_WorkerLock, then m_QueueLock or m_WakeMutex (never
// those two together). m_ConfigLock and m_EventLock nest under nothing.
// Workers never take m_WorkerLock, so the listener may hold it while it waits
// for them to end.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <wx/thread.h>

#include "host/Dom.h"
#include "host/Lock.h"
#include "host/Runnable.h"
#include "host/Types.h"
#include "host/norvi.h"
#include "ssl/SSLCredentials.h"
#include "ssl/SSLHostConfigurations.h"
#include "ssl/SSLMessages.h"

namespace VEXIL {

class CSSLCertThreadWorker;
class CSSLCredential;
class CSSLHostConfiguration;

class CSSLCertThread : public NorvCore::CRunnable {
public:
    // Trace category of the listener and its workers.
    static constexpr const wchar_t* kTraceCategory = L"norvp.vexil.SSLCertThread";

    // Reads the pool settings; makes no driver call and starts no thread.
    explicit CSSLCertThread(NorvCore::CDom& dom);
    ~CSSLCertThread() override;

    const char* GetThreadName() const override;
    // Sets the driver event, which ends the listener's wait for a request,
    // then wakes the thread as the base does.
    void interrupt() override;

    // Takes one request from the driver (listener thread): checks it, queues
    // it or refuses it when the queue is full, and grows the pool. False when
    // the listener is to leave its read loop, which is when the exit is due.
    virtual bool ProcessDriverData(norvi_handle_t handle, const SSLRequestHeader* header,
                                   const void* data, u32 dataLen);
    // Whether a request's pre-master field lies within its data; a request
    // that fails is logged and never answered.
    static bool RequestFits(const SSLRequestHeader& header, u32 dataLen);
    // Sends one response on handle, which belongs to the calling thread; with
    // preMasterSize 0 the failure response. True only when the driver took it.
    bool SendSSLCertResponse(norvi_handle_t handle, const SSLRequestHeader* request,
                             const void* preMaster, size_t preMasterSize);
    // Reloads the records from the configuration and has every running worker
    // drop its key cache before its next lookup. Any thread but a worker.
    void OnSecurityConfigurationChanged() EXCLUDES(m_ConfigLock, m_WorkerLock);
    // Copies the first host configuration with the id whose credential exists,
    // and that credential, into the outputs. False when there is none; the
    // host configuration then holds the last one with the id, or defaults.
    bool FindSSLConfiguration(u32 id, CSSLHostConfiguration& hostConfiguration,
                              CSSLCredential& credential) EXCLUDES(m_ConfigLock);

    // The pool, driven by the listener: brings the worker table up to date
    // (reaps workers that have ended) and starts workers until there is one
    // for every eight of queueSize items, within m_MaxWorkers.
    void ManageWorkerThreads(size_t queueSize) EXCLUDES(m_WorkerLock, m_QueueLock, m_WakeMutex);
    // Ends every worker (the queue gets the shutdown marker) and frees the
    // table. A worker finishes the request in hand; what is still queued then
    // stays unanswered.
    void ShutdownWorkerThreads() EXCLUDES(m_WorkerLock, m_QueueLock, m_WakeMutex);

    // For workers.
    NorvCore::CDom& Dom() const { return m_Dom; }
    enum class WorkItem { None, Request, Shutdown };
    // Takes the front of the queue into item. The shutdown marker is put back
    // at the end of the queue for the next worker.
    WorkItem TakeWorkItem(std::string& item) EXCLUDES(m_QueueLock);
    // Requests queued and not yet taken by a worker (the shutdown marker not
    // counted). After a stop, these are the requests left without an answer.
    size_t QueuedRequests() EXCLUDES(m_QueueLock);
    // The count of wake-ups so far; a worker notes it before it looks at the
    // queue and waits only while it hasn't moved, so that no wake-up between
    // its look and its wait is lost.
    u64 WakeSequence() EXCLUDES(m_WakeMutex);
    // Waits up to waitMsec for a wake-up after the one counted as seen.
    void WaitForWork(u64 seen, u32 waitMsec) EXCLUDES(m_WakeMutex);

protected:
    void OnRun() override;
    void OnExit() override;

private:
    // Reads requests on handle until a read fails or the exit is due.
    void ReadRequests(norvi_handle_t handle);
    void RegisterDriverEvent(norvi_handle_t handle);
    // Counts a wake-up and wakes one waiting worker, or all of them.
    void WakeWorkers(bool all) EXCLUDES(m_WakeMutex);
    void CloseDriverEvent();

    const bool m_TraceEnabled;  // trace category on at construction; gates per-request lines
    NorvCore::CDom& m_Dom;

    NorvCore::CCriticalSection m_EventLock;
    // Handed to the driver (an eventfd), -1 once closed; the lock keeps it
    // from being closed while it is set or registered.
    int m_DriverEvent GUARDED_BY(m_EventLock);

    u64 m_MaxWorkers;  // size of the worker table, at least 1
    i32 m_CpuCount;    // processors, at least 1
    u64 m_QueueSizeMax;

    NorvCore::CCriticalSection m_WorkerLock ACQUIRED_BEFORE(m_QueueLock, m_WakeMutex);
    // Slot i holds the worker with index i, or null; the table is empty until
    // the first ManageWorkerThreads and after the shutdown.
    std::vector<std::unique_ptr<CSSLCertThreadWorker>> m_Workers GUARDED_BY(m_WorkerLock);

    NorvCore::CCriticalSection m_ConfigLock;
    CSSLCredentials m_Credentials GUARDED_BY(m_ConfigLock);
    CSSLHostConfigurations m_HostConfigurations GUARDED_BY(m_ConfigLock);

    NorvCore::CCriticalSection m_QueueLock;
    // Pending requests (header and data), oldest first; the empty string is
    // the shutdown marker.
    std::deque<std::string> m_WorkQueue GUARDED_BY(m_QueueLock);

    NorvCore::CWxMutex m_WakeMutex;
    std::unique_ptr<wxCondition> m_WakeCondition;  // on m_WakeMutex
    u64 m_WakeSequence GUARDED_BY(m_WakeMutex);
};

}  // namespace VEXIL
