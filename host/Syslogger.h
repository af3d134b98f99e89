// CSyslogger: the host's syslog settings for one message source, and the
// pieces of Common Event Format (CEF) text that the host writes itself: the
// header up to the signature field and the extension keys that identify the
// host.
//
// Settings, read from the current CDom by UpdateConfig (an absent one takes
// its default):
//   "norv.syslog.cef"          bool, false: messages in CEF form
//   "norv.syslog.format"       integer, 0: how the message's keys are written
//   "norv.syslog.cef.vendor"   "Norv"
//   "norv.syslog.cef.product"  "Agent"
//   "norv.syslog.cef.version"  "1.0"
//   "norv.syslog.hostname"     the machine's host name
//
// Thread safety: the values are guarded by m_Lock, so UpdateConfig may run on
// one thread while another formats a message.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <wx/string.h>

#include "host/Lock.h"

namespace NorvCore {

class CSyslogger {
public:
    // name: the message source, for trace lines.
    explicit CSyslogger(const char* name);

    // Reads the settings again if the store changed since the last read
    // (by its settings stamp), so that a change acts from the next message
    // on at the cost of one comparison for the messages between changes.
    void UpdateConfig();

    bool GetSyslogFormatCEF() const;
    int GetSyslogFormat() const;

    // Appends "CEF:0|vendor|product|version|" in UTF-8 to the terminated text
    // in buffer, cut at a character boundary where it does not fit.
    void AppendHeaderCEF(char* buffer, size_t size);
    // Appends " dvchost=<host name> deviceExternalId=<hostId>", the same way.
    void AppendHostIdentityCEF(int hostId, char* buffer, size_t size);

    // A header field: backslash and bar escaped by a backslash. A header may
    // hold no line break at all, so every control character becomes a blank.
    static wxString EscapeCEFPrefix(const wxString& text);
    // An extension value: backslash and equals sign escaped by a backslash,
    // line feed written as \n and carriage return as \r; any other control
    // character becomes a blank.
    static wxString EscapeCEFExtension(const wxString& text);
    // Whether c must not stand raw in a message, where a receiver could take
    // it for the end of the message or of a field: a control character (C0,
    // DEL, C1) or the Unicode line and paragraph separators.
    static bool IsControlCharacter(wxUniChar c);

private:
    const std::string m_Name;

    mutable CMutex m_Lock;
    // Settings stamp of the store the values were read from; 0 for the
    // defaults of no store, kNeverRead before the first read.
    static constexpr uint64_t kNeverRead = ~uint64_t(0);
    uint64_t m_ConfigStamp GUARDED_BY(m_Lock) = kNeverRead;
    bool m_Cef GUARDED_BY(m_Lock) = false;
    int m_Format GUARDED_BY(m_Lock) = 0;
    // The CEF header and the host name, escaped and in UTF-8 as they are
    // appended, made once per read of the settings.
    std::string m_HeaderCEF GUARDED_BY(m_Lock);
    std::string m_HostNameCEF GUARDED_BY(m_Lock);
};

}  // namespace NorvCore
