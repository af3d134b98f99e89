// CSSLRequestHandler: serves SSL requests of the driver one at a time on the
// caller's thread: finds the key of the request's SSL host configuration,
// decrypts the pre-master secret and answers on the caller's driver handle.
//
// Each pool worker owns one and runs it for every request it takes off the
// queue; ServeNow runs a request of the driver from its header and data the
// whole way at once, the listener's checks included, with no thread at all.
// Loaded keys are cached per handler, keyed by host configuration id: a key is
// loaded once and used without any lock, dropped after a minute without use,
// and the whole cache goes when the configuration changes.
//
// Threads: everything but InvalidateKeyCache runs on the owning thread, which
// owns m_KeyCache without a lock. m_KeyCacheInvalid is set by other threads,
// atomically.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <unordered_map>

#include "host/Types.h"
#include "host/norvi.h"
#include "ssl/RSAKey.h"
#include "ssl/SSLMessages.h"

namespace VEXIL {

class CSSLCertThread;

class CSSLRequestHandler {
public:
    // owner holds the configuration records and sends the responses; name
    // labels the operator log lines (the worker's name).
    CSSLRequestHandler(CSSLCertThread& owner, const char* name);
    CSSLRequestHandler(const CSSLRequestHandler&) = delete;
    CSSLRequestHandler& operator=(const CSSLRequestHandler&) = delete;

    // Serves one request as the driver hands it over: refused without an
    // answer when the listener would refuse it (false), otherwise answered
    // once on handle, with the secret or with the failure response (true).
    bool ServeNow(norvi_handle_t handle, const SSLRequestHeader& header, const void* data,
                  u32 dataLen);
    // Answers one queued item (header, then data), always: with the secret or
    // with the failure response. False only when no key could be had.
    bool Answer(norvi_handle_t handle, const std::string& item);

    // Has the cache dropped before the next key lookup. Any thread.
    void InvalidateKeyCache();
    // Drops keys not used for a minute, or all after a configuration change.
    void CullKeyCache();
    void ClearKeyCache();

private:
    struct KeyCacheEntry {
        u32 lastUsedTick;  // SystemTickCount at the last use
        std::unique_ptr<CRSAKey> key;
    };

    // The key of the host configuration, loaded on a miss; null when there is
    // none. The cache keeps the key.
    CRSAKey* GetKey(u32 sslConfigurationId);
    void SendFailure(norvi_handle_t handle, const SSLRequestHeader& header);

    CSSLCertThread& m_Owner;
    char m_Name[32];  // fixed at construction
    std::atomic<bool> m_KeyCacheInvalid{false};
    std::unordered_map<u32, KeyCacheEntry> m_KeyCache;
};

}  // namespace VEXIL
