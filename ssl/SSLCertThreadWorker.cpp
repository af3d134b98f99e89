#include "ssl/SSLCertThreadWorker.h"

#include <wx/log.h>

#include "host/Dom.h"
#include "host/TextHelpers.h"
#include "host/Ticks.h"
#include "host/Trace.h"
#include "ssl/SSLCertThread.h"
#include "ssl/SSLCredential.h"
#include "ssl/SSLHostConfiguration.h"
#include "ssl/SSLMessages.h"

namespace VEXIL {

namespace {

const wchar_t* const kTrace = CSSLCertThread::kTraceCategory;

// Timings in milliseconds of SystemTickCount, compared as unsigned 32-bit
// differences so that the counter's wrap does no harm.
const u32 kCullIntervalMsec = 10000;
const u32 kKeyInactivityMsec = 60000;
const u32 kWorkerIdleMsec = 300000;
const u32 kWakeWaitMsec = 10000;

// The largest encrypted pre-master secret, and the worker's plain-text buffer.
const size_t kSecretBufferSize = 1024;
// Bytes of the TLS length prefix in front of the encrypted pre-master secret.
const size_t kTlsLengthPrefix = 2;

}  // namespace

CSSLCertThreadWorker::CSSLCertThreadWorker(CSSLCertThread& owner, u32 index, int cpu)
    : CRunnable(false, cpu, false),
      m_KeyCacheInvalid(false),
      m_Owner(owner),
      m_DriverHandle(nullptr),
      m_WorkerIndex(index) {
    snprintf_safe(m_WorkerName, sizeof m_WorkerName, "CSSLCertThreadWorker%d",
                  static_cast<int>(m_WorkerIndex));
}

CSSLCertThreadWorker::~CSSLCertThreadWorker() {
    StopThread(nullptr);
}

const char* CSSLCertThreadWorker::GetThreadName() const {
    return m_WorkerName;
}

void CSSLCertThreadWorker::InvalidateKeyCache() {
    NORV_TRACE(kTrace, wxString::Format("%.64s::InvalidateKeyCache()", m_WorkerName));
    m_KeyCacheInvalid = true;
}

bool CSSLCertThreadWorker::ExitDue() {
    return m_Owner.Dom().ShouldExit(0, nullptr) || TestDestroy(0, nullptr);
}

void CSSLCertThreadWorker::OnRun() {
    u32 lastCull = NorvCore::SystemTickCount();
    u32 lastActive = lastCull;
    NORV_TRACE(kTrace, wxString::Format("%.64s::OnRun()", m_WorkerName));
    m_DriverHandle = norvi_open();
    if (m_DriverHandle == nullptr) {
        char text[128] = "";
        norvi_get_error(nullptr, text, sizeof text);
        wxLogError("%s shutting down since norvi_open() failed: %s", m_WorkerName, text);
        return;
    }
    for (;;) {
        if (ExitDue()) {
            return;
        }
        const u32 now = NorvCore::SystemTickCount();
        if (now - lastCull > kCullIntervalMsec) {
            CullKeyCache();
            lastCull = now;
        }
        if (now - lastActive > kWorkerIdleMsec) {
            NORV_TRACE(kTrace,
                       wxString::Format("%.64s: shutting down since we're idle", m_WorkerName));
            return;
        }
        const u64 wakeSeen = m_Owner.WakeSequence();
        bool exitDue = false;
        std::string item;
        for (;;) {
            const CSSLCertThread::WorkItem taken = m_Owner.TakeWorkItem(item);
            if (taken == CSSLCertThread::WorkItem::Shutdown) {
                NORV_TRACE(kTrace, wxString::Format("%.64s: shutting down.", m_WorkerName));
                return;
            }
            if (taken == CSSLCertThread::WorkItem::None) {
                break;
            }
            NORV_TRACE(kTrace,
                       wxString::Format("%.64s: pulled an item off the work queue.", m_WorkerName));
            ProcessSSLCertRequest(item);
            lastActive = NorvCore::SystemTickCount();
            exitDue = ExitDue();
            if (exitDue) {
                break;
            }
        }
        if (!exitDue && !ExitDue()) {
            m_Owner.WaitForWork(wakeSeen, kWakeWaitMsec);
        }
    }
}

void CSSLCertThreadWorker::OnExit() {
    NORV_TRACE(kTrace, wxString::Format("%.64s::OnExit()", m_WorkerName));
    ClearKeyCache();
    if (m_DriverHandle != nullptr) {
        norvi_close(m_DriverHandle);
        m_DriverHandle = nullptr;
    }
    CRunnable::OnExit();
}

void CSSLCertThreadWorker::SendFailure(const std::string& item) {
    const SSLRequestHeader header = SSLRequestHeader::From(item.data());
    m_Owner.SendSSLCertResponse(m_DriverHandle, &header, nullptr, 0);
}

bool CSSLCertThreadWorker::ProcessSSLCertRequest(const std::string& item) {
    // The listener queues nothing shorter than a header, and never more
    // pre-master bytes than the data holds.
    const SSLRequestHeader header = SSLRequestHeader::From(item.data());
    // The key comes first: an unknown configuration is reported as such,
    // whatever else is wrong with the request.
    CRSAKey* key = GetKey(header.SslConfigurationId());
    if (key == nullptr) {
        SendFailure(item);
        return false;
    }
    if (header.KeyExchangeMethod() != kKeyExchangeRsa) {
        wxLogError("%.64s::ProcessSSLCertRequest() - Unsupported key exchange method = %d",
                   m_WorkerName, static_cast<int>(header.KeyExchangeMethod()));
        SendFailure(item);
        return true;
    }
    if (header.protocolMajor < 3) {
        wxLogError("%.64s::ProcessSSLCertRequest() - Unsupported Protocol version", m_WorkerName);
        SendFailure(item);
        return true;
    }
    // SSL 3.0 carries the encrypted secret bare; TLS puts a two-byte length
    // in front, which is stepped over unread.
    const size_t skip =
        header.protocolMajor == 3 && header.protocolMinor == 0 ? 0 : kTlsLengthPrefix;
    // A field shorter than the prefix wraps around and is refused here too.
    const u64 encryptedLen = static_cast<u64>(header.PreMasterLen()) - skip;
    if (encryptedLen > kSecretBufferSize || sizeof header + skip + encryptedLen > item.size()) {
        wxLogError("%.64s::ProcessSSLCertRequest() - premaster key too large", m_WorkerName);
        SendFailure(item);
        return true;
    }
    u8 secret[kSecretBufferSize];
    size_t secretSize = 0;
    if (!key->Decrypt(encryptedLen, item.data() + sizeof header + skip, secret, sizeof secret,
                      &secretSize)) {
        SendFailure(item);
        return true;
    }
    if (!m_Owner.SendSSLCertResponse(m_DriverHandle, &header, secret, secretSize)) {
        // One more attempt, now as the failure response; its result changes
        // nothing.
        SendFailure(item);
    }
    return true;
}

CRSAKey* CSSLCertThreadWorker::GetKey(u32 sslConfigurationId) {
    if (m_KeyCacheInvalid) {
        ClearKeyCache();
    }
    auto found = m_KeyCache.find(sslConfigurationId);
    if (found != m_KeyCache.end()) {
        NORV_TRACE(kTrace, wxString::Format("%.64s: found existing key for SSL configuration %d "
                                            "in my private key cache",
                                            m_WorkerName, static_cast<int>(sslConfigurationId)));
        found->second.lastUsedTick = NorvCore::SystemTickCount();
        return found->second.key.get();
    }
    CSSLCredential credential;
    CSSLHostConfiguration hostConfiguration;
    if (!m_Owner.FindSSLConfiguration(sslConfigurationId, hostConfiguration, credential)) {
        const wxString name = hostConfiguration.GetName().empty() ? wxString(wxS("<Not Found>"))
                                                                  : hostConfiguration.GetName();
        wxLogError(
            "%.64s::GetKey() - unable to locate SSL credential for SSL host "
            "configuration '%.128s' with ID %d",
            m_WorkerName, name, static_cast<int>(sslConfigurationId));
        return nullptr;
    }
    // A key that can't be loaded isn't remembered: the next request tries
    // again.
    std::unique_ptr<CRSAKey> key(CRSAKey::Create(credential, nullptr));
    if (key == nullptr) {
        return nullptr;
    }
    NORV_TRACE(kTrace, wxString::Format("%.64s: adding key for SSL configuration %d to my "
                                        "private key cache",
                                        m_WorkerName, static_cast<int>(sslConfigurationId)));
    KeyCacheEntry& entry = m_KeyCache[sslConfigurationId];
    entry.lastUsedTick = NorvCore::SystemTickCount();
    entry.key = std::move(key);
    return entry.key.get();
}

void CSSLCertThreadWorker::CullKeyCache() {
    if (m_KeyCacheInvalid) {
        ClearKeyCache();
        return;
    }
    const u32 now = NorvCore::SystemTickCount();
    for (auto entry = m_KeyCache.begin(); entry != m_KeyCache.end();) {
        if (now - entry->second.lastUsedTick > kKeyInactivityMsec) {
            NORV_TRACE(kTrace, wxString::Format("%.64s: removing key for SSL configuration %d "
                                                "from my private key cache due to inactivity",
                                                m_WorkerName, static_cast<int>(entry->first)));
            entry = m_KeyCache.erase(entry);
        } else {
            ++entry;
        }
    }
}

void CSSLCertThreadWorker::ClearKeyCache() {
    NORV_TRACE(kTrace, wxString::Format("%.64s::ClearKeyCache()", m_WorkerName));
    m_KeyCache.clear();
    m_KeyCacheInvalid = false;
}

}  // namespace VEXIL
