#include "host/Syslogger.h"

#include <climits>
#include <cstring>

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

// Appends text in UTF-8 to the terminated text in buffer. What does not fit
// is cut at a character boundary, so the buffer never ends in half a
// character.
void AppendUtf8(char* buffer, size_t size, const wxString& text) {
    if (buffer == nullptr || size == 0 || strnlen(buffer, size) >= size - 1) {
        return;  // no room, or not a terminated text
    }
    const wxScopedCharBuffer utf8 = text.utf8_str();
    const size_t room = size - 1 - strlen(buffer);
    size_t length = utf8.length();
    if (length > room) {
        length = room;
        while (length > 0 && (static_cast<unsigned char>(utf8.data()[length]) & 0xC0) == 0x80) {
            --length;
        }
    }
    const std::string piece(utf8.data(), length);
    strcat_safe(buffer, size, piece.c_str());
}

// The text setting key, or fallback when it is absent or empty.
wxString TextSetting(const CDom& dom, const char* key, const wxString& fallback) {
    const wxString value = dom.GetWxString(key);
    return value.empty() ? fallback : value;
}

}  // namespace

CSyslogger::CSyslogger(const char* name)
    : m_Name(name != nullptr ? name : ""),
      m_Vendor(kDefaultVendor),
      m_Product(kDefaultProduct),
      m_Version(kDefaultVersion),
      m_HostName(wxGetHostName()) {}

void CSyslogger::UpdateConfig() {
    bool cef = false;
    int format = 0;
    wxString vendor = kDefaultVendor;
    wxString product = kDefaultProduct;
    wxString version = kDefaultVersion;
    wxString hostName;
    if (const CDom* dom = CDom::Current()) {
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

    CMutexLocker guard(m_Lock);
    m_Cef = cef;
    m_Format = format;
    m_Vendor = vendor;
    m_Product = product;
    m_Version = version;
    m_HostName = hostName;
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
    wxString header = wxS("CEF:0|");
    {
        CMutexLocker guard(m_Lock);
        header << EscapeCEFPrefix(m_Vendor) << wxS('|') << EscapeCEFPrefix(m_Product) << wxS('|')
               << EscapeCEFPrefix(m_Version) << wxS('|');
    }
    AppendUtf8(buffer, size, header);
}

void CSyslogger::AppendHostIdentityCEF(int hostId, char* buffer, size_t size) {
    wxString hostName;
    {
        CMutexLocker guard(m_Lock);
        hostName = m_HostName;
    }
    AppendUtf8(
        buffer, size,
        wxString::Format(" dvchost=%s deviceExternalId=%d", EscapeCEFExtension(hostName), hostId));
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
