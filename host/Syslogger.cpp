#include "host/Syslogger.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <string>

#include <wx/utils.h>

#include "host/Dom.h"
#include "host/TextHelpers.h"
#include "host/Trace.h"
#include "host/Types.h"

namespace NorvCore {

namespace {

const wchar_t* const kTraceCategory = L"Syslogger";

const char* const kDefaultVendor = "Norv";
const char* const kDefaultProduct = "Agent";
const char* const kDefaultVersion = "1.0";

// Appends UTF-8 text to the terminated text in buffer. What does not fit is
// cut at a character boundary, so the buffer never ends in half a character.
void AppendUtf8(char* buffer, size_t size, const char* text, size_t length) {
    if (buffer == nullptr || size == 0 || strnlen(buffer, size) >= size - 1) {
        return;  // no room, or not a terminated text
    }
    const size_t used = strlen(buffer);
    const size_t room = size - 1 - used;
    if (length > room) {
        length = room;
        while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80) {
            --length;
        }
    }
    std::memcpy(buffer + used, text, length);
    buffer[used + length] = '\0';
}

std::string Utf8(const wxString& text) {
    const wxScopedCharBuffer utf8 = text.utf8_str();
    return std::string(utf8.data(), utf8.length());
}

std::string HeaderCEF(const wxString& vendor, const wxString& product, const wxString& version) {
    wxString header = wxS("CEF:0|");
    header << CSyslogger::EscapeCEFPrefix(vendor) << wxS('|')
           << CSyslogger::EscapeCEFPrefix(product) << wxS('|')
           << CSyslogger::EscapeCEFPrefix(version) << wxS('|');
    return Utf8(header);
}

// The text setting key, or fallback when it is absent or empty.
wxString TextSetting(const CDom& dom, const char* key, const wxString& fallback) {
    const wxString value = dom.GetWxString(key);
    return value.empty() ? fallback : value;
}

}  // namespace

CSyslogger::CSyslogger(const char* name)
    : m_Name(name != nullptr ? name : ""),
      m_HeaderCEF(HeaderCEF(kDefaultVendor, kDefaultProduct, kDefaultVersion)),
      m_HostNameCEF(Utf8(EscapeCEFExtension(wxGetHostName()))) {}

void CSyslogger::UpdateConfig() {
    const CDom* const dom = CDom::Current();
    const uint64_t stamp = dom != nullptr ? dom->SettingsStamp() : 0;
    {
        CMutexLocker guard(m_Lock);
        if (stamp == m_ConfigStamp) {
            return;
        }
    }
    bool cef = false;
    int format = 0;
    wxString vendor = kDefaultVendor;
    wxString product = kDefaultProduct;
    wxString version = kDefaultVersion;
    wxString hostName;
    if (dom != nullptr) {
        if (!dom->Get("norv.syslog.cef", cef)) {
            cef = false;
        }
        i64 value = 0;
        if (dom->Get("norv.syslog.format", value)) {
            if (value >= INT_MIN && value <= INT_MAX) {
                format = static_cast<int>(value);
            } else {
                NORV_TRACE(kTraceCategory,
                           wxString::Format("%.32s: norv.syslog.format %lld is out of range",
                                            m_Name.c_str(), static_cast<long long>(value)));
            }
        }
        vendor = TextSetting(*dom, "norv.syslog.cef.vendor", vendor);
        product = TextSetting(*dom, "norv.syslog.cef.product", product);
        version = TextSetting(*dom, "norv.syslog.cef.version", version);
        hostName = dom->GetWxString("norv.syslog.hostname");
    }
    if (hostName.empty()) {
        hostName = wxGetHostName();
    }

    std::string header = HeaderCEF(vendor, product, version);
    std::string escapedHostName = Utf8(EscapeCEFExtension(hostName));

    CMutexLocker guard(m_Lock);
    m_Cef = cef;
    m_Format = format;
    m_HeaderCEF.swap(header);
    m_HostNameCEF.swap(escapedHostName);
    m_ConfigStamp = stamp;
}

bool CSyslogger::GetSyslogFormatCEF() const {
    CMutexLocker guard(m_Lock);
    return m_Cef;
}

int CSyslogger::GetSyslogFormat() const {
    CMutexLocker guard(m_Lock);
    return m_Format;
}

void CSyslogger::AppendHeaderCEF(char* buffer, size_t size) {
    CMutexLocker guard(m_Lock);
    AppendUtf8(buffer, size, m_HeaderCEF.data(), m_HeaderCEF.size());
}

void CSyslogger::AppendHostIdentityCEF(int hostId, char* buffer, size_t size) {
    static const char kHostKey[] = " dvchost=";
    static const char kIdKey[] = " deviceExternalId=";
    // The identity is appended as one text, so that a cut falls on a
    // character boundary of the whole; it is built in place when it fits.
    const std::string id = std::to_string(hostId);
    char local[256];
    CMutexLocker guard(m_Lock);
    const size_t length =
        sizeof kHostKey - 1 + m_HostNameCEF.size() + sizeof kIdKey - 1 + id.size();
    std::string heap;
    char* text = local;
    if (length > sizeof local) {
        heap.resize(length);
        text = &heap[0];
    }
    char* end = text;
    end = std::copy(kHostKey, kHostKey + sizeof kHostKey - 1, end);
    end = std::copy(m_HostNameCEF.begin(), m_HostNameCEF.end(), end);
    end = std::copy(kIdKey, kIdKey + sizeof kIdKey - 1, end);
    std::copy(id.begin(), id.end(), end);
    AppendUtf8(buffer, size, text, length);
}

bool CSyslogger::IsControlCharacter(wxUniChar c) {
    const wxUniChar::value_type v = c.GetValue();
    return v < 0x20 || (v >= 0x7F && v <= 0x9F) || v == 0x2028 || v == 0x2029;
}

wxString CSyslogger::EscapeCEFPrefix(const wxString& text) {
    wxString escaped;
    escaped.reserve(text.length());
    for (wxString::const_iterator it = text.begin(); it != text.end(); ++it) {
        if (IsControlCharacter(*it)) {
            escaped += wxS(' ');
            continue;
        }
        if (*it == wxS('\\') || *it == wxS('|')) {
            escaped += wxS('\\');
        }
        escaped += *it;
    }
    return escaped;
}

wxString CSyslogger::EscapeCEFExtension(const wxString& text) {
    wxString escaped;
    escaped.reserve(text.length());
    for (wxString::const_iterator it = text.begin(); it != text.end(); ++it) {
        if (*it == wxS('\n')) {
            escaped += wxS("\\n");
        } else if (*it == wxS('\r')) {
            escaped += wxS("\\r");
        } else if (IsControlCharacter(*it)) {
            escaped += wxS(' ');
        } else {
            if (*it == wxS('\\') || *it == wxS('=')) {
                escaped += wxS('\\');
            }
            escaped += *it;
        }
    }
    return escaped;
}

}  // namespace NorvCore
