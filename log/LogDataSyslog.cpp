// LogData: one driver record as the text of one syslog message, in the
// native key=value form or in Common Event Format (CEF). The host's syslog
// settings pick the form (cef) and the way keys are written (format): 0 the
// native keys, any other value lower-case keys, 1 without the early act field
// of packet records, 2 and more with the CEF label keys and the two keys of
// our own. The two settings are separate inputs: some keys follow the form,
// others the format, and that mix is what receivers of these messages expect.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

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

// LogBuf with the length of the text in it. Every append is cut at the end of
// the buffer, as strcat_safe and snprintfcat cut, but without measuring the
// text again; the text stays terminated. Only the bytes written are touched.
struct MessageBuffer {
    char text[kLogBufSize];
    size_t length = 0;

    MessageBuffer() { text[0] = '\0'; }

    void Append(const char* bytes, size_t count) {
        const size_t room = kLogBufSize - 1 - length;
        const size_t taken = count < room ? count : room;
        if (taken <= 16) {
            // The usual piece: a key, a word, a number.
            for (size_t i = 0; i < taken; ++i) {
                text[length + i] = bytes[i];
            }
        } else {
            std::memcpy(text + length, bytes, taken);
        }
        length += taken;
        text[length] = '\0';
    }
    void Append(const char* bytes) { Append(bytes, std::strlen(bytes)); }
    void Append(const std::string& bytes) { Append(bytes.data(), bytes.size()); }
    // At most limit bytes of bytes, as "%.<limit>s" takes them.
    void AppendUpTo(const std::string& bytes, size_t limit) {
        Append(bytes.data(), std::min(bytes.size(), limit));
    }
    void AppendUnsigned(u64 value) {
        char digits[20];
        size_t count = 0;
        do {
            digits[sizeof digits - ++count] = char('0' + value % 10);
            value /= 10;
        } while (value != 0);
        Append(digits + sizeof digits - count, count);
    }
    void AppendSigned(i64 value) {
        if (value < 0) {
            Append("-", 1);
            AppendUnsigned(0 - u64(value));
        } else {
            AppendUnsigned(u64(value));
        }
    }
    // A key and its number: " key=value".
    void AppendField(const char* key, i64 value) {
        Append(" ", 1);
        Append(key);
        Append("=", 1);
        AppendSigned(value);
    }
    // After a helper that appended to the terminated text by itself.
    void Resync() { length += std::strlen(text + length); }
};

// Whether text is ASCII without a zero byte: its UTF-8 bytes are then its
// characters one for one, as the toolkit's wide text would hold them, and
// the narrow transforms below give what the toolkit's give.
bool IsPlainAscii(const std::string& text) {
    for (const char c : text) {
        if (c <= 0 || u8(c) >= 0x80) {
            return false;
        }
    }
    return true;
}

wxString Wide(const std::string& utf8) {
    return wxString::FromUTF8(utf8.data(), utf8.size());
}

// A text of the configuration table as the toolkit reads it: bytes that are
// no UTF-8 read as the empty text.
std::string ValidUtf8(std::string text) {
    return IsPlainAscii(text) ? text : Wide(text).utf8_string();
}

// A value of the native form: fields are split at blanks, and a receiver
// ends the message at a line break, so every blank and control character
// becomes '_'; no value can then start a field or a message of its own.
wxString NativeValue(const wxString& text) {
    wxString shown;
    shown.reserve(text.length());
    for (wxString::const_iterator it = text.begin(); it != text.end(); ++it) {
        const bool separator = *it == wxS(' ') || CSyslogger::IsControlCharacter(*it);
        shown += separator ? wxUniChar('_') : *it;
    }
    return shown;
}

// How a text (valid UTF-8) is made fit for its place in a message:
// NativeValue, for the native head then in ASCII as the toolkit's ToAscii
// makes it (each character beyond ASCII a '_'), or the syslogger's CEF
// escapes.
enum class Placement { kNative, kNativeAscii, kCefPrefix, kCefExtension };

// The toolkit's own rules, for text that is not plain ASCII: they also cover
// the characters beyond it (C1 controls, line and paragraph separators).
std::string WidePlaced(const std::string& text, Placement placement) {
    const wxString wide = Wide(text);
    switch (placement) {
        case Placement::kNative:
            return NativeValue(wide).utf8_string();
        case Placement::kNativeAscii:
            return std::string(NativeValue(wide).ToAscii().data());
        case Placement::kCefPrefix:
            return CSyslogger::EscapeCEFPrefix(wide).utf8_string();
        case Placement::kCefExtension:
            return CSyslogger::EscapeCEFExtension(wide).utf8_string();
    }
    return std::string();
}

// Appends text as placement makes it, at most limit bytes of the result, as
// "%.<limit>s" takes them. Plain ASCII, the usual case, is placed here byte
// by byte straight into the buffer.
void AppendPlaced(MessageBuffer& message, const std::string& text, Placement placement,
                  size_t limit = SIZE_MAX) {
    if (!IsPlainAscii(text)) {
        message.AppendUpTo(WidePlaced(text, placement), limit);
        return;
    }
    char* out = message.text + message.length;
    const size_t room = kLogBufSize - 1 - message.length;
    char* const end = out + (limit < room ? limit : room);
    for (const char c : text) {
        const bool control = u8(c) < 0x20 || u8(c) == 0x7F;
        char placed[2] = {c, 0};
        size_t count = 1;
        switch (placement) {
            case Placement::kNative:
            case Placement::kNativeAscii:
                placed[0] = control || c == ' ' ? '_' : c;
                break;
            case Placement::kCefPrefix:
                if (c == '\\' || c == '|') {
                    placed[0] = '\\';
                    placed[1] = c;
                    count = 2;
                } else if (control) {
                    placed[0] = ' ';
                }
                break;
            case Placement::kCefExtension:
                if (c == '\n' || c == '\r' || c == '\\' || c == '=') {
                    placed[0] = '\\';
                    placed[1] = c == '\n' ? 'n' : c == '\r' ? 'r' : c;
                    count = 2;
                } else if (control) {
                    placed[0] = ' ';
                }
                break;
        }
        for (size_t i = 0; i < count && out < end; ++i) {
            *out++ = placed[i];
        }
        if (out == end) {
            break;
        }
    }
    *out = '\0';
    message.length = size_t(out - message.text);
}

// The text (valid UTF-8) in ASCII: each character beyond it becomes '_', as
// the toolkit's ToAscii makes it; the text ends at a zero character.
std::string AsciiOf(const std::string& text) {
    if (IsPlainAscii(text)) {
        return text;
    }
    return std::string(Wide(text).ToAscii().data());
}

// A text that filled the buffer may end in part of a multi-byte character;
// that part goes, so that the message stays valid UTF-8.
void DropCutCharacter(char* text, size_t length) {
    size_t lead = length;
    while (lead > 0 && length - lead < 4 && (u8(text[lead - 1]) & 0xC0) == 0x80) {
        --lead;
    }
    if (lead == 0) {
        return;
    }
    --lead;  // the byte that begins the last character
    const u8 first = u8(text[lead]);
    const size_t needed = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : first >= 0xC0 ? 2 : 1;
    if (length - lead < needed) {
        text[lead] = '\0';
    }
}

// Lower-case hexadecimal, two digits a byte, as the host's toHexString
// writes it without separators.
std::string HexText(const u8* bytes, size_t count) {
    static const char kDigits[] = "0123456789abcdef";
    std::string text(count * 2, '\0');
    for (size_t i = 0; i < count; ++i) {
        text[2 * i] = kDigits[bytes[i] >> 4];
        text[2 * i + 1] = kDigits[bytes[i] & 0x0F];
    }
    return text;
}

std::string DecimalText(i64 value) {
    MessageBuffer digits;
    digits.AppendSigned(value);
    return std::string(digits.text, digits.length);
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

// Everything step 1 learns about the event before any text is written, and
// the host's id; the texts in UTF-8.
struct EventName {
    std::string label;
    u32 packetAction = 2;    // for PacketActionText
    bool incoming = true;    // direction of a payload filter
    u32 severity = 0;        // of a payload filter
    std::string identifier;  // of a payload filter
    u32 hostId = 0;
};

EventName NameOf(const DriverLogEntry* record, const ConfigUtils& config, bool cef) {
    EventName name;
    const u32 id = record->id();
    const bool packetRecord = record->isPacketRecord();
    // The rule or filter and the host's id come in one read of the table.
    ConfigUtils::SyslogEventInfo info;
    info.incoming = name.incoming;
    const bool found = config.getSyslogEventInfo(!packetRecord, id, info, name.hostId);
    if (packetRecord) {
        if (id == 0) {
            if (record->reason() != 0) {
                name.label = PacketReasonText(record->reason());
            }
        } else {
            // A known rule shows by its number, an unknown one not at all.
            if (found) {
                name.label = DecimalText(int(id));
                name.packetAction = info.action;
            }
            if (!cef) {
                name.label.insert(0, "PKT:");
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
            if (found) {
                name.label = ValidUtf8(std::move(info.name));
                name.identifier = ValidUtf8(std::move(info.identifier));
                name.incoming = info.incoming;
                name.severity = info.severity;
            } else {
                name.label = DecimalText(int(id));
            }
            if (!cef) {
                name.label.insert(0, "PLD:");
            }
        }
    }
    return name;
}

void AppendCefHead(MessageBuffer& message, const DriverLogEntry* record, const EventName& name) {
    const u32 id = record->id();
    if (record->isPacketRecord()) {
        const int signature = id == 0 ? record->reason() : (name.packetAction == 0 ? 20 : 21);
        const int severity = id != 0 && name.packetAction == 0 ? 0 : 5;
        message.AppendSigned(signature);
        message.Append("|", 1);
        AppendPlaced(message, name.label, Placement::kCefPrefix);
        message.Append("|", 1);
        message.AppendSigned(severity);
    } else {
        if (id == 0) {
            message.AppendSigned(std::abs(int(record->reason())));
        } else {
            AppendPlaced(message, name.identifier.empty() ? std::string("10") : name.identifier,
                         Placement::kCefPrefix);
        }
        message.Append("|", 1);
        AppendPlaced(message, name.label, Placement::kCefPrefix);
        message.Append("|", 1);
        message.AppendSigned(id == 0 ? 5 : PayloadSeverity(name.severity));
    }
    message.Append("|", 1);
}

// Field 2: the Ethernet addresses; in the native form with the interface's
// configured name on the side of the record's direction.
void AppendEthernet(MessageBuffer& message, const DriverLogEntry* record, const ConfigUtils& config,
                    bool cef, int format, bool incoming) {
    const std::string destination = HexText(record->eth_dest(), 6);
    const std::string source = HexText(record->eth_src(), 6);
    const u16 ethType = record->eth_type();
    if (cef) {
        message.Append(" dmac=");
        message.AppendUpTo(destination, 24);
        message.Append(" smac=");
        message.AppendUpTo(source, 24);
        if (format >= 2) {
            message.Append(" VarnokFrameType=");
            FrameTypeText(message.text, kLogBufSize, ethType);
            message.Resync();
        }
        return;
    }
    const size_t macRoom = DriverLogEntry::kSize - kInterfaceMacOffset + record->boundedDataLen();
    const size_t macLength = std::min<size_t>(record->interface_mac_len(), macRoom);
    const std::string mac = HexText(record->interface_mac(), macLength);
    std::string name;
    config.getInterfaceName(mac, name);
    const std::string valid = ValidUtf8(std::move(name));
    message.Append(" IN=");
    if (incoming) {
        AppendPlaced(message, valid, Placement::kNative);
    }
    message.Append(" OUT=");
    if (!incoming) {
        AppendPlaced(message, valid, Placement::kNative);
    }
    // Only the low four bits of each byte of the type: 0x86DD gives 06:0d.
    static const char kDigits[] = "0123456789abcdef";
    const char type[] = {':', '0', kDigits[(ethType >> 8) & 0x0F],
                         ':', '0', kDigits[ethType & 0x0F]};
    message.Append(" MAC=");
    message.AppendUpTo(destination, 24);
    message.Append(":", 1);
    message.AppendUpTo(source, 24);
    message.Append(type, sizeof type);
}

// An address of field 3: IPv4 in dotted decimal written here, the first
// octet first, as it is on every message; IPv6 by the shared text.
void AppendAddress(MessageBuffer& message, const DriverLogEntry* record, bool source) {
    if (record->isIpv4()) {
        const u8* octets = source ? record->iph_src_bytes() : record->iph_dest_bytes();
        for (int i = 0; i < 4; ++i) {
            if (i != 0) {
                message.Append(".", 1);
            }
            message.AppendUnsigned(octets[i]);
        }
    } else {
        AddressText(message.text, kLogBufSize, record, source);
        message.Resync();
    }
}

// Fields 3 to 10, common to both kinds of record.
void AppendPacketFields(MessageBuffer& message, const DriverLogEntry* record, bool cef,
                        int format) {
    const bool native = format == 0;
    if (record->hasProtocol()) {
        message.Append(native ? " SRC=" : " src=");
        AppendAddress(message, record, true);
        message.Append(native ? " DST=" : " dst=");
        AppendAddress(message, record, false);
    }

    message.AppendField(!cef ? "LEN" : (record->isIncoming() ? "in" : "out"), record->packet_len());

    if (record->isIpv4()) {
        const FragmentBits bits = FragmentBitsOf(record);
        const bool dontFragment = bits.dontFragment;
        const bool moreFragments = bits.moreFragments;
        if (dontFragment || moreFragments) {
            if (native) {
                message.Append(dontFragment ? " DF" : "");
                message.Append(moreFragments ? " MF" : "");
                message.Append(" FRAG=");
            } else {
                message.Append(" cs3=");
                message.Append(dontFragment ? "DF " : "");
                message.Append(moreFragments ? "MF " : "");
            }
            message.AppendUnsigned(bits.offsetBytes);
            if (format >= 2) {
                message.Append(" cs3Label=Fragmentation Bits");
            }
        }
    }

    if (record->hasProtocol()) {
        message.Append(native ? " PROTO=" : " proto=");
        ProtocolText(message.text, kLogBufSize, record);
        message.Resync();
    }
    if (record->hasPorts()) {
        message.AppendField(native ? "SPT" : "spt", record->th_sport());
        message.AppendField(native ? "DPT" : "dpt", record->th_dport());
    }
    if (record->hasTcpHeader()) {
        const u8 tcpFlags = record->tcph_flags();
        // The two top bits (CWR, ECE) as a number, the other six as words.
        message.Append(native ? " RES=0x0" : " cs2=0x0");
        const char top = char('0' + (tcpFlags >> 6));
        message.Append(&top, 1);
        for (int bit = 2; bit < 8; ++bit) {
            if (tcpFlags & (0x80 >> bit)) {
                message.Append(" ", 1);
                message.Append(kTcpFlagWords[bit]);
            }
        }
        if (format >= 2) {
            message.Append(" cs2Label=TCP Flags");
        }
    }
    if (record->hasIcmpHeader()) {
        message.AppendField(native ? "TYPE" : "cs4", record->icmph_type());
        message.Append(native ? " CODE=" : " ");
        message.AppendSigned(record->icmph_code());
        if (format >= 2) {
            message.Append(" cs4Label=ICMP");
        }
    }
    message.AppendField(native ? "CNT" : "cnt", record->count());
}

// Field 15: up to 16 bytes of the note, as text when all are printable and
// as base64 otherwise.
void AppendNote(MessageBuffer& message, const DriverLogEntry* record, bool cef) {
    const size_t length = std::min<size_t>(record->note_len(), 16);
    const char* note = reinterpret_cast<const char*>(record->note());
    bool printable = true;
    for (size_t i = 0; i < length; ++i) {
        printable = printable && u8(note[i]) >= 0x20 && u8(note[i]) <= 0x7E;
    }
    message.Append(cef ? " cs1=" : " NOTE=");
    if (printable) {
        AppendPlaced(message, std::string(note, length),
                     cef ? Placement::kCefExtension : Placement::kNative);
    } else {
        const std::string encoded =
            NorvCore::toBase64String(std::string(note, length), false).utf8_string();
        if (cef) {
            AppendPlaced(message, encoded, Placement::kCefExtension, 128);
        } else {
            message.AppendUpTo(encoded, 128);
        }
    }
}

// Fields 11 to 16, of payload records only. The label keys follow format,
// the keys they describe follow the form.
void AppendPayloadFields(MessageBuffer& message, const DriverLogEntry* record, bool cef,
                         int format) {
    const bool labels = format >= 2;
    const i32 action = record->action();
    message.Append(" act=");
    if (action & 0x80) {
        message.Append("IDS:");
    }
    message.Append(AsciiOf(PayloadActionText(action & ~0x80)));

    // Reason -1, the plain filter action, is no status worth a field.
    if (record->reason() < -1) {
        message.AppendField(cef ? "cn2" : "STATUS", record->reason());
        if (labels) {
            message.Append(" cn2Label=DPI Reason");
        }
    }
    message.AppendField(cef ? "cn3" : "POS", record->packet_pos());
    if (labels) {
        message.Append(" cn3Label=DPI Packet Position");
    }
    message.AppendField(cef ? "cs5" : "SPOS", record->stream_pos());
    if (labels) {
        message.Append(" cs5Label=DPI Stream Position");
    }
    if (record->note_len() != 0) {
        AppendNote(message, record, cef);
        if (labels) {
            message.Append(" cs1Label=DPI Note");
        }
    }
    message.AppendField(cef ? "cs6" : "FLAGS", PrintedLogFlags(record->log_flags()));
    if (labels) {
        message.Append(" cs6Label=DPI Flags");
    }
}

}  // namespace

void LogData::AppendHostIdentity(char* buffer, size_t size, u32 hostId) {
    char text[24] = " HOSTID=";
    strcat_safe(text, sizeof text, DecimalText(int(hostId)).c_str());
    strcat_safe(buffer, size, text);
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

    MessageBuffer message;
    if (!cef) {
        message.Append("REASON=");
        AppendPlaced(message, name.label, Placement::kNativeAscii, 128);
        if (!packetRecord) {
            message.Append((record->flags() & DriverLogEntry::kFlagBit1) ? " FWD" : " REV");
        }
        AppendHostIdentity(message.text, kLogBufSize, name.hostId);
        message.Resync();
    } else {
        m_Syslogger.AppendHeaderCEF(message.text, kLogBufSize);
        message.Resync();
        AppendCefHead(message, record, name);
        m_Syslogger.AppendHostIdentityCEF(int(name.hostId), message.text, kLogBufSize);
        message.Resync();
    }

    if (packetRecord && format != 1) {
        std::string act = (record->action() & 0x80) ? "IDS:" : "";
        act += PacketActionText(name.packetAction);
        message.Append(" act=");
        AppendPlaced(message, act, format == 0 ? Placement::kNative : Placement::kCefExtension, 32);
    }
    if (record->flags() & DriverLogEntry::kEthernetValid) {
        AppendEthernet(message, record, config, cef, format,
                       packetRecord ? record->isIncoming() : name.incoming);
    }
    AppendPacketFields(message, record, cef, format);
    if (!packetRecord) {
        AppendPayloadFields(message, record, cef, format);
        wxASSERT_MSG(message.length < kLogBufSize - 1, "strlen(LogBuf) < sizeof(LogBuf) - 1");
    }
    if (message.length == kLogBufSize - 1) {
        DropCutCharacter(message.text, message.length);
        message.length = std::strlen(message.text);
    }
    result.assign(message.text, message.length);

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
