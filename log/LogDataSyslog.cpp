// LogData: one driver record as the text of one syslog message, in the
// native key=value form or in Common Event Format (CEF). The host's syslog
// settings pick the form (cef) and the way keys are written (format): 0 the
// native keys, any other value lower-case keys, 1 without the early act field
// of packet records, 2 and more with the CEF label keys and the two keys of
// our own. The two settings are separate inputs: some keys follow the form,
// others the format, and that mix is what receivers of these messages expect.
#include <cstdlib>

#include "config/ConfigUtils.h"
#include "host/TextHelpers.h"
#include "host/Trace.h"
#include "log/LogData.h"
#include "log/RecordText.h"
#include "log/Vocabulary.h"

namespace VEXIL {

namespace {

using NorvCore::CSyslogger;

constexpr size_t kLogBufSize = 0x10000;
// The fixed record bytes from interface_mac on: its length field is not
// clipped to the eight bytes of the field, only to the working copy.
constexpr size_t kInterfaceMacOffset = NORVI::Record::kInterfaceMac.m_Offset;

wxString Underscored(wxString text) {
    text.Replace(" ", "_");
    return text;
}

wxString HexText(const u8* bytes, size_t count) {
    return NorvCore::toHexString(std::string(reinterpret_cast<const char*>(bytes), count), false);
}

u32 ConfiguredHostId(const ConfigUtils& config) {
    wxString hostName;
    u32 hostId = 0;
    config.getAgentConfigurationHostIdentity(hostName, hostId);
    return hostId;
}

// CEF severity of a payload filter's severity.
int PayloadSeverity(u32 severity) {
    switch (severity) {
        case 1:
            return 3;
        case 2:
            return 6;
        case 3:
            return 8;
        case 4:
            return 10;
        default:
            return 9;
    }
}

// Everything step 1 learns about the event before any text is written.
struct EventName {
    wxString label;
    u32 packetAction = 2;  // for PacketActionText
    bool incoming = true;  // direction of a payload filter
    u32 severity = 0;      // of a payload filter
    wxString identifier;   // of a payload filter
};

EventName NameOf(const DriverLogEntry* record, const ConfigUtils& config, bool cef) {
    EventName name;
    const u32 id = record->id();
    if (record->isPacketRecord()) {
        if (id == 0) {
            if (record->reason() != 0) {
                name.label = PacketReasonText(record->reason());
            }
        } else {
            // A known rule shows by its number, an unknown one not at all.
            wxString ruleName;
            u32 ruleAction = 0;
            if (config.getPacketFilterInfo(id, ruleName, ruleAction)) {
                name.label = wxString::Format("%d", int(id));
                name.packetAction = ruleAction;
            }
            if (!cef) {
                name.label.Prepend("PKT:");
            }
        }
        const u16 action = u16(record->action());
        if (action != 0) {
            name.packetAction = (action & 0xFF7F) == 1 ? 2 : 0;
        }
    } else {
        if (id == 0) {
            name.label = PayloadReasonText(record->reason());
        } else {
            // A known filter shows by its name, an unknown one by its number.
            if (!config.getPayloadFilterInfo(id, name.label, name.incoming, name.severity,
                                             name.identifier)) {
                name.label = wxString::Format("%d", int(id));
            }
            if (!cef) {
                name.label.Prepend("PLD:");
            }
        }
    }
    return name;
}

void AppendCefHead(char* logBuf, const DriverLogEntry* record, const EventName& name) {
    const u32 id = record->id();
    wxString fields;
    if (record->isPacketRecord()) {
        const int signature = id == 0 ? record->reason() : (name.packetAction == 0 ? 20 : 21);
        const int severity = id != 0 && name.packetAction == 0 ? 0 : 5;
        fields = wxString::Format("%d|%s|%d|", signature, CSyslogger::EscapeCEFPrefix(name.label),
                                  severity);
    } else {
        wxString signature;
        if (id == 0) {
            signature = wxString::Format("%d", std::abs(int(record->reason())));
        } else {
            signature = name.identifier.empty() ? wxString("10") : name.identifier;
        }
        const int severity = id == 0 ? 5 : PayloadSeverity(name.severity);
        fields = wxString::Format("%s|%s|%d|", CSyslogger::EscapeCEFPrefix(signature),
                                  CSyslogger::EscapeCEFPrefix(name.label), severity);
    }
    strcat_safe(logBuf, kLogBufSize, fields.utf8_str());
}

// Field 2: the Ethernet addresses; in the native form with the interface's
// configured name on the side of the record's direction.
void AppendEthernet(char* logBuf, const DriverLogEntry* record, const ConfigUtils& config, bool cef,
                    int format, bool incoming) {
    const std::string destination = HexText(record->eth_dest(), 6).ToStdString();
    const std::string source = HexText(record->eth_src(), 6).ToStdString();
    const u16 ethType = record->eth_type();
    if (cef) {
        snprintfcat(logBuf, kLogBufSize, " dmac=%.24s smac=%.24s", destination.c_str(),
                    source.c_str());
        if (format >= 2) {
            strcat_safe(logBuf, kLogBufSize, " VarnokFrameType=");
            FrameTypeText(logBuf, kLogBufSize, ethType);
        }
        return;
    }
    const size_t macRoom = DriverLogEntry::kSize - kInterfaceMacOffset + record->boundedDataLen();
    const size_t macLength = std::min<size_t>(record->interface_mac_len(), macRoom);
    const std::string mac = HexText(record->interface_mac(), macLength).ToStdString();
    wxString name;
    config.getInterfaceName(mac, name);
    const std::string shown = Underscored(name).utf8_string();
    strcat_safe(logBuf, kLogBufSize, " IN=");
    if (incoming) {
        strcat_safe(logBuf, kLogBufSize, shown.c_str());
    }
    strcat_safe(logBuf, kLogBufSize, " OUT=");
    if (!incoming) {
        strcat_safe(logBuf, kLogBufSize, shown.c_str());
    }
    // Only the low four bits of each byte of the type: 0x86DD gives 06:0d.
    snprintfcat(logBuf, kLogBufSize, " MAC=%.24s:%.24s:%02x:%02x", destination.c_str(),
                source.c_str(), (ethType >> 8) & 0x0F, ethType & 0x0F);
}

// Fields 3 to 10, common to both kinds of record.
void AppendPacketFields(char* logBuf, const DriverLogEntry* record, bool cef, int format) {
    const bool native = format == 0;
    if (record->isIpv4()) {
        const u8* s = record->iph_src_bytes();
        const u8* d = record->iph_dest_bytes();
        snprintfcat(logBuf, kLogBufSize, " %s=%d.%d.%d.%d", native ? "SRC" : "src", s[0], s[1],
                    s[2], s[3]);
        snprintfcat(logBuf, kLogBufSize, " %s=%d.%d.%d.%d", native ? "DST" : "dst", d[0], d[1],
                    d[2], d[3]);
    } else if (record->isIpv6()) {
        for (int side = 0; side < 2; ++side) {
            u16 g[8];
            for (int i = 0; i < 8; ++i) {
                g[i] = side == 0 ? record->ipv6h_src(i) : record->ipv6h_dest(i);
            }
            const char* key = side == 0 ? (native ? "SRC" : "src") : (native ? "DST" : "dst");
            snprintfcat(logBuf, kLogBufSize, " %s=%hx:%hx:%hx:%hx:%hx:%hx:%hx:%hx", key, g[0], g[1],
                        g[2], g[3], g[4], g[5], g[6], g[7]);
        }
    }

    snprintfcat(logBuf, kLogBufSize, " %.16s=%u",
                !cef ? "LEN" : (record->isIncoming() ? "in" : "out"), record->packet_len());

    if (record->isIpv4()) {
        const u16 fragment = record->iph_frag_off();
        const bool dontFragment = (fragment & 0x4000) != 0;
        const bool moreFragments = (fragment & 0x2000) != 0;
        if (dontFragment || moreFragments) {
            // Times 8 in 16 bits: the offset in bytes, the flag bits pushed out.
            const unsigned offset = u16(fragment * 8);
            if (native) {
                snprintfcat(logBuf, kLogBufSize, "%s%s FRAG=%u", dontFragment ? " DF" : "",
                            moreFragments ? " MF" : "", offset);
            } else {
                snprintfcat(logBuf, kLogBufSize, " cs3=%s%s%u", dontFragment ? "DF " : "",
                            moreFragments ? "MF " : "", offset);
            }
            if (format >= 2) {
                strcat_safe(logBuf, kLogBufSize, " cs3Label=Fragmentation Bits");
            }
        }
    }

    if (record->hasProtocol()) {
        strcat_safe(logBuf, kLogBufSize, native ? " PROTO=" : " proto=");
        ProtocolText(logBuf, kLogBufSize, record);
    }
    if (record->hasPorts()) {
        snprintfcat(logBuf, kLogBufSize, " %s=%d", native ? "SPT" : "spt", record->th_sport());
        snprintfcat(logBuf, kLogBufSize, " %s=%d", native ? "DPT" : "dpt", record->th_dport());
    }
    if (record->hasProtocol() && record->protocol() == 6 && record->hasTransport()) {
        const u8 tcpFlags = record->tcph_flags();
        snprintfcat(logBuf, kLogBufSize, " %.3s=0x%02X", native ? "RES" : "cs2", tcpFlags >> 6);
        static const char* const kWords[6] = {" URG", " ACK", " PSH", " RST", " SYN", " FIN"};
        for (int bit = 0; bit < 6; ++bit) {
            if (tcpFlags & (0x20 >> bit)) {
                strcat_safe(logBuf, kLogBufSize, kWords[bit]);
            }
        }
        if (format >= 2) {
            strcat_safe(logBuf, kLogBufSize, " cs2Label=TCP Flags");
        }
    }
    if (record->isIpv4() && record->iph_proto() == 1 && record->hasTransport()) {
        snprintfcat(logBuf, kLogBufSize, " %s=%d %s%d", native ? "TYPE" : "cs4",
                    record->icmph_type(), native ? "CODE=" : "", record->icmph_code());
        if (format >= 2) {
            strcat_safe(logBuf, kLogBufSize, " cs4Label=ICMP");
        }
    }
    snprintfcat(logBuf, kLogBufSize, " %.16s=%u", native ? "CNT" : "cnt", record->count());
}

// Field 15: up to 16 bytes of the note, as text when all are printable and
// as base64 otherwise.
void AppendNote(char* logBuf, const DriverLogEntry* record, bool cef) {
    const size_t length = std::min<size_t>(record->note_len(), 16);
    const u8* note = record->note();
    bool printable = true;
    for (size_t i = 0; i < length; ++i) {
        printable = printable && note[i] >= 0x20 && note[i] <= 0x7E;
    }
    const char* key = cef ? "cs1" : "NOTE";
    if (printable) {
        const wxString text = wxString::FromUTF8(reinterpret_cast<const char*>(note), length);
        const wxString shown = cef ? CSyslogger::EscapeCEFExtension(text) : Underscored(text);
        snprintfcat(logBuf, kLogBufSize, " %s=%s", key, static_cast<const char*>(shown.utf8_str()));
    } else {
        wxString encoded = NorvCore::toBase64String(
            std::string(reinterpret_cast<const char*>(note), length), false);
        if (cef) {
            encoded = CSyslogger::EscapeCEFExtension(encoded);
        }
        snprintfcat(logBuf, kLogBufSize, " %s=%.128s", key,
                    static_cast<const char*>(encoded.utf8_str()));
    }
}

// Fields 11 to 16, of payload records only. The label keys follow format,
// the keys they describe follow the form.
void AppendPayloadFields(char* logBuf, const DriverLogEntry* record, bool cef, int format) {
    const bool labels = format >= 2;
    const i32 action = record->action();
    strcat_safe(logBuf, kLogBufSize, " act=");
    if (action & 0x80) {
        strcat_safe(logBuf, kLogBufSize, "IDS:");
    }
    strcat_safe(logBuf, kLogBufSize, PayloadActionText(action & ~0x80).ToAscii());

    // Reason -1, the plain filter action, is no status worth a field.
    if (record->reason() < -1) {
        snprintfcat(logBuf, kLogBufSize, " %s=%d", cef ? "cn2" : "STATUS", record->reason());
        if (labels) {
            strcat_safe(logBuf, kLogBufSize, " cn2Label=DPI Reason");
        }
    }
    snprintfcat(logBuf, kLogBufSize, " %s=%u", cef ? "cn3" : "POS", record->packet_pos());
    if (labels) {
        strcat_safe(logBuf, kLogBufSize, " cn3Label=DPI Packet Position");
    }
    snprintfcat(logBuf, kLogBufSize, " %s=%u", cef ? "cs5" : "SPOS", record->stream_pos());
    if (labels) {
        strcat_safe(logBuf, kLogBufSize, " cs5Label=DPI Stream Position");
    }
    if (record->note_len() != 0) {
        AppendNote(logBuf, record, cef);
        if (labels) {
            strcat_safe(logBuf, kLogBufSize, " cs1Label=DPI Note");
        }
    }
    snprintfcat(logBuf, kLogBufSize, " %s=%u", cef ? "cs6" : "FLAGS",
                PrintedLogFlags(record->log_flags()));
    if (labels) {
        strcat_safe(logBuf, kLogBufSize, " cs6Label=DPI Flags");
    }
}

}  // namespace

void LogData::AppendHostIdentity(char* buffer, size_t size) {
    if (m_ConfigUtils == nullptr) {
        NORV_TRACE(L"vexil", "Cannot append host identify ConfigUtils is NULL");
        return;
    }
    snprintfcat(buffer, size, " HOSTID=%d", int(ConfiguredHostId(*m_ConfigUtils)));
}

bool LogData::SyslogFormat(const DriverLogEntry* record, std::string& result) {
    if (m_ConfigUtils == nullptr) {
        NORV_TRACE(L"vexil", "Cannot do SyslogFormat when ConfigUtils is NULL");
        return false;
    }
    const ConfigUtils& config = *m_ConfigUtils;
    m_Syslogger.UpdateConfig();
    const bool cef = m_Syslogger.GetSyslogFormatCEF();
    const int format = m_Syslogger.GetSyslogFormat();
    const bool packetRecord = record->isPacketRecord();
    const EventName name = NameOf(record, config, cef);

    char logBuf[kLogBufSize];
    logBuf[0] = '\0';
    if (!cef) {
        const wxString label = Underscored(name.label);
        const wxScopedCharBuffer ascii = label.ToAscii();
        if (packetRecord) {
            snprintfcat(logBuf, kLogBufSize, "REASON=%.128s", ascii.data());
        } else {
            snprintfcat(logBuf, kLogBufSize, "REASON=%.128s %s", ascii.data(),
                        (record->flags() & DriverLogEntry::kFlagBit1) ? "FWD" : "REV");
        }
        AppendHostIdentity(logBuf, kLogBufSize);
    } else {
        m_Syslogger.AppendHeaderCEF(logBuf, kLogBufSize);
        AppendCefHead(logBuf, record, name);
        m_Syslogger.AppendHostIdentityCEF(int(ConfiguredHostId(config)), logBuf, kLogBufSize);
    }

    if (packetRecord && format != 1) {
        wxString act = (record->action() & 0x80) ? "IDS:" : "";
        act += PacketActionText(name.packetAction);
        act = format == 0 ? Underscored(act) : CSyslogger::EscapeCEFExtension(act);
        snprintfcat(logBuf, kLogBufSize, " act=%.32s", static_cast<const char*>(act.utf8_str()));
    }
    if (record->flags() & DriverLogEntry::kEthernetValid) {
        AppendEthernet(logBuf, record, config, cef, format,
                       packetRecord ? record->isIncoming() : name.incoming);
    }
    AppendPacketFields(logBuf, record, cef, format);
    if (!packetRecord) {
        AppendPayloadFields(logBuf, record, cef, format);
        wxASSERT_MSG(strlen(logBuf) < sizeof(logBuf) - 1, "strlen(LogBuf) < sizeof(LogBuf) - 1");
    }
    result.assign(logBuf);

    // The packet data goes behind the bounded text, so it is not cut.
    if (format >= 2 && (record->log_flags() & DriverLogEntry::kLogTrailingData) &&
        record->data_len() != 0) {
        const wxString data = NorvCore::toBase64String(
            std::string(reinterpret_cast<const char*>(record->trailingData()),
                        record->boundedDataLen()),
            false);
        result += " VarnokPacketData=";
        result += CSyslogger::EscapeCEFExtension(data).utf8_str();
    }
    return true;
}

}  // namespace VEXIL
