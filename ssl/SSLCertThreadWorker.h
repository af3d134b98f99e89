// CSSLCertThreadWorker: one thread of the SSL key service's pool.
//
// It takes requests off the queue of its owner, CSSLCertThread, and has its
// own CSSLRequestHandler (with its key cache) answer each on a driver handle
// of its own. A worker ends by
// itself after five minutes without work, at the owner's shutdown marker, on
// its exit request, or when it can't open the driver interface.
//
// Threads: everything but InvalidateKeyCache and GetThreadName runs on the
// worker's own thread, which owns m_Requests and m_DriverHandle without a
// lock; InvalidateKeyCache only sets the handler's atomic flag.
#pragma once

#include <memory>

#include "host/Runnable.h"
#include "host/Types.h"
#include "host/norvi.h"
#include "ssl/SSLRequestHandler.h"

namespace VEXIL {

class CSSLCertThread;

class CSSLCertThreadWorker : public NorvCore::CRunnable {
public:
    // index is the worker's slot in the owner's table; cpu the processor the
    // thread is bound to.
    CSSLCertThreadWorker(CSSLCertThread& owner, u32 index, int cpu);
    ~CSSLCertThreadWorker() override;

    // "CSSLCertThreadWorker<index>".
    const char* GetThreadName() const override;
    // Has the cache dropped before the next key lookup. Any thread.
    void InvalidateKeyCache();

protected:
    void OnRun() override;
    void OnExit() override;

private:
    // Whether the agent or this thread is to end; never waits.
    bool ExitDue();

    CSSLCertThread& m_Owner;
    norvi_handle_t m_DriverHandle;  // own handle, open from OnRun to OnExit
    std::unique_ptr<CSSLRequestHandler> m_Requests;
    char m_WorkerName[32];  // fixed at construction
    const u32 m_WorkerIndex;
};

}  // namespace VEXIL
