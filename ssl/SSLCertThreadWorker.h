// CSSLCertThreadWorker: one thread of the SSL key service's pool.
//
// It takes requests off the queue of its owner, CSSLCertThread, finds the
// private key of the request's SSL host configuration, decrypts the
// pre-master secret and answers on a driver handle of its own. Loaded keys are
// cached per worker, keyed by host configuration id: a key is loaded once per
// worker and used without any lock, dropped after a minute without use, and
// the whole cache goes when the configuration changes. A worker ends by
// itself after five minutes without work, at the owner's shutdown marker, on
// its exit request, or when it can't open the driver interface.
//
// Threads: everything but InvalidateKeyCache and GetThreadName runs on the
// worker's own thread, which owns m_KeyCache and m_DriverHandle without a
// lock. m_KeyCacheInvalid is set by other threads, atomically.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <unordered_map>

#include "host/Runnable.h"
#include "host/Types.h"
#include "host/norvi.h"
#include "ssl/RSAKey.h"

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
    struct KeyCacheEntry {
        u32 lastUsedTick;  // SystemTickCount at the last use
        std::unique_ptr<CRSAKey> key;
    };

    // Answers one queued item (header, then data), always: with the secret or
    // with the failure response. False only when no key could be had.
    bool ProcessSSLCertRequest(const std::string& item);
    // The key of the host configuration, loaded on a miss; null when there is
    // none. The cache keeps the key.
    CRSAKey* GetKey(u32 sslConfigurationId);
    void ClearKeyCache();
    // Drops keys not used for a minute, or all after a configuration change.
    void CullKeyCache();
    void SendFailure(const std::string& item);
    // Whether the agent or this thread is to end; never waits.
    bool ExitDue();

    std::atomic<bool> m_KeyCacheInvalid;
    CSSLCertThread& m_Owner;
    norvi_handle_t m_DriverHandle;  // own handle, open from OnRun to OnExit
    std::unordered_map<u32, KeyCacheEntry> m_KeyCache;
    char m_WorkerName[32];  // fixed at construction
    const u32 m_WorkerIndex;
};

}  // namespace VEXIL
