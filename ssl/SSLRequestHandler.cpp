#include "ssl/SSLRequestHandler.h"

#include <wx/log.h>

#include "host/TextHelpers.h"
#include "host/Ticks.h"
#include "host/Trace.h"
#include "ssl/SSLCertThread.h"
#include "ssl/SSLCredential.h"
#include "ssl/SSLHostConfiguration.h"

namespace VEXIL {

namespace {

const wchar_t* const kTrace = CSSLCertThread::kTraceCategory;

// A key unused for this long (milliseconds of SystemTickCount, compared as an
// unsigned difference) leaves the cache.
const u32 kKeyInactivityMsec = 60000;
// The largest encrypted pre-master secret, and the plain-text buffer.
const size_t kSecretBufferSize = 1024;
// Bytes of the TLS length prefix in front of the encrypted pre-master secret.
const size_t kTlsLengthPrefix = 2;

}  // namespace

CSSLRequestHandler::CSSLRequestHandler(CSSLCertThread& owner, const char* name) : m_Owner(owner) {
    strcpy_safe(m_Name, sizeof m_Name, name);
}

bool CSSLRequestHandler::ServeNow(norvi_handle_t handle, const SSLRequestHeader& header,
                                  const void* data, u32 dataLen) {
    if (!CSSLCertThread::RequestFits(header, dataLen)) {
        return false;
    }
    std::string item(reinterpret_cast<const char*>(&header), sizeof header);
    if (dataLen > 0) {
        item.append(static_cast<const char*>(data), dataLen);
    }
    Answer(handle, item);
    return true;
}

void CSSLRequestHandler::SendFailure(norvi_handle_t handle, const SSLRequestHeader& header) {
    m_Owner.SendSSLCertResponse(handle, &header, nullptr, 0);
}

bool CSSLRequestHandler::Answer(norvi_handle_t handle, const std::string& item) {
    // The listener queues nothing shorter than a header, and never more
    // pre-master bytes than the data holds.
    const SSLRequestHeader header = SSLRequestHeader::From(item.data());
    // The key comes first: an unknown configuration is reported as such,
    // whatever else is wrong with the request.
    CRSAKey* key = GetKey(header.SslConfigurationId());
    if (key == nullptr) {
        SendFailure(handle, header);
        return false;
    }
    if (header.KeyExchangeMethod() != kKeyExchangeRsa) {
        wxLogError("%.64s::ProcessSSLCertRequest() - Unsupported key exchange method = %d", m_Name,
                   static_cast<int>(header.KeyExchangeMethod()));
        SendFailure(handle, header);
        return true;
    }
    if (header.protocolMajor < 3) {
        wxLogError("%.64s::ProcessSSLCertRequest() - Unsupported Protocol version", m_Name);
        SendFailure(handle, header);
        return true;
    }
    // SSL 3.0 carries the encrypted secret bare; TLS puts a two-byte length
    // in front, which is stepped over unread.
    const size_t skip =
        header.protocolMajor == 3 && header.protocolMinor == 0 ? 0 : kTlsLengthPrefix;
    // A field shorter than the prefix wraps around and is refused here too.
    const u64 encryptedLen = static_cast<u64>(header.PreMasterLen()) - skip;
    if (encryptedLen > kSecretBufferSize || sizeof header + skip + encryptedLen > item.size()) {
        wxLogError("%.64s::ProcessSSLCertRequest() - premaster key too large", m_Name);
        SendFailure(handle, header);
        return true;
    }
    u8 secret[kSecretBufferSize];
    size_t secretSize = 0;
    if (!key->Decrypt(encryptedLen, item.data() + sizeof header + skip, secret, sizeof secret,
                      &secretSize)) {
        SendFailure(handle, header);
        return true;
    }
    if (!m_Owner.SendSSLCertResponse(handle, &header, secret, secretSize)) {
        // One more attempt, now as the failure response; its result changes
        // nothing.
        SendFailure(handle, header);
    }
    return true;
}

CRSAKey* CSSLRequestHandler::GetKey(u32 sslConfigurationId) {
    if (m_KeyCacheInvalid) {
        ClearKeyCache();
    }
    auto found = m_KeyCache.find(sslConfigurationId);
    if (found != m_KeyCache.end()) {
        NORV_TRACE(kTrace, wxString::Format("%.64s: found existing key for SSL configuration %d "
                                            "in my private key cache",
                                            m_Name, static_cast<int>(sslConfigurationId)));
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
            m_Name, name, static_cast<int>(sslConfigurationId));
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
                                        m_Name, static_cast<int>(sslConfigurationId)));
    KeyCacheEntry& entry = m_KeyCache[sslConfigurationId];
    entry.lastUsedTick = NorvCore::SystemTickCount();
    entry.key = std::move(key);
    return entry.key.get();
}

void CSSLRequestHandler::InvalidateKeyCache() {
    NORV_TRACE(kTrace, wxString::Format("%.64s::InvalidateKeyCache()", m_Name));
    m_KeyCacheInvalid = true;
}

void CSSLRequestHandler::CullKeyCache() {
    if (m_KeyCacheInvalid) {
        ClearKeyCache();
        return;
    }
    const u32 now = NorvCore::SystemTickCount();
    for (auto entry = m_KeyCache.begin(); entry != m_KeyCache.end();) {
        if (now - entry->second.lastUsedTick > kKeyInactivityMsec) {
            NORV_TRACE(kTrace, wxString::Format("%.64s: removing key for SSL configuration %d "
                                                "from my private key cache due to inactivity",
                                                m_Name, static_cast<int>(entry->first)));
            entry = m_KeyCache.erase(entry);
        } else {
            ++entry;
        }
    }
}

void CSSLRequestHandler::ClearKeyCache() {
    NORV_TRACE(kTrace, wxString::Format("%.64s::ClearKeyCache()", m_Name));
    m_KeyCache.clear();
    m_KeyCacheInvalid = false;
}

}  // namespace VEXIL
