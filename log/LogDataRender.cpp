// LogData: rendering one record as the body of a log line (columns 3 to 28).
// The text is also the key of the coalescing cache, so nothing that changes
// from one event to the next (times, count) may stand in it.
#include <algorithm>

#include "config/ConfigUtils.h"
#include "host/TextHelpers.h"
#include "host/Trace.h"
#include "log/LogData.h"
#include "log/RecordText.h"

namespace VEXIL {

namespace {

const char kSeparator[] = ", ";

// Bytes in upper-case hex, two digits each, separated by one blank.
void AppendSpacedHex(char* buffer, size_t size, const u8* bytes, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        snprintfcat(buffer, size, i == 0 ? "%02X" : " %02X", bytes[i]);
    }
}

// Column 11: TCP flag words, ICMP type and code, fragment details.
void AppendPacketDetails(char* buffer, size_t size, const DriverLogEntry* record) {
    if (record->hasTcpHeader()) {
        TcpFlagsText(buffer, size, record);
    }
    if (!record->isIpv4()) {
        return;
    }
    if (record->hasIcmpHeader()) {
        snprintfcat(buffer, size, "Type:%d Code:%d", record->icmph_type(), record->icmph_code());
    }
    const FragmentBits bits = FragmentBitsOf(record);
    const bool dontFragment = bits.dontFragment;
    const bool moreFragments = bits.moreFragments;
    // The fragment reasons always show both bits and the offsets.
    const bool fragmentReason = record->reason() >= 108 && record->reason() <= 112;
    if (dontFragment) {
        strcat_safe(buffer, size, "DF=1");
    } else if (fragmentReason) {
        strcat_safe(buffer, size, "DF=0");
    }
    if (moreFragments) {
        strcat_safe(buffer, size, dontFragment || fragmentReason ? " MF=1" : "MF=1");
    } else if (fragmentReason) {
        strcat_safe(buffer, size, " MF=0");
    }
    if (fragmentReason) {
        snprintfcat(buffer, size, " FragOffs=%d IPTotalLen=%d", bits.offsetBytes,
                    record->iph_total_len());
    }
}

void AppendPackedHex(std::string& line, const u8* bytes, size_t count) {
    static const char kDigits[] = "0123456789ABCDEF";
    for (size_t i = 0; i < count; ++i) {
        line.push_back(kDigits[bytes[i] >> 4]);
        line.push_back(kDigits[bytes[i] & 0x0F]);
    }
}

}  // namespace

void LogData::LookUpInterfaceId(u32 interfaceIndex) {
    if (interfaceIndex == m_LastInterfaceIndex) {
        return;
    }
    m_LastInterfaceIndex = interfaceIndex;
    // Whatever id the lookup leaves in place is printed, also after a miss.
    u32 id = u32(m_LastInterfaceId);
    const bool found =
        m_ConfigUtils != nullptr && m_ConfigUtils->getInterfaceID(interfaceIndex, id);
    m_LastInterfaceId = i32(id);
    NORV_TRACE(L"vexil", wxString::Format("getInterfaceId returned %d, interfaceIndex was %d, "
                                          "Last interface ID was %d",
                                          int(found), int(interfaceIndex), m_LastInterfaceId));
}

bool LogData::BinaryToAscii(const DriverLogEntry* record, std::string& line, u64& firstTimeUsec,
                            u64& lastTimeUsec) {
    firstTimeUsec = record->firstTimeUsec();
    lastTimeUsec = record->lastTimeUsec();

    char logBuf[1024];
    logBuf[0] = '\0';
    const size_t size = sizeof logBuf;
    const u16 flags = record->flags();

    strcat_safe(logBuf, size, record->isPacketRecord() ? "f, " : "d, ");
    strcat_safe(logBuf, size, (flags & DriverLogEntry::kOutgoing) ? "1, " : "0, ");
    strcat_safe(logBuf, size, (flags & DriverLogEntry::kFlagBit1) ? "0, " : "1, ");

    AppendSpacedHex(logBuf, size, record->interface_mac(),
                    std::min<u32>(record->interface_mac_len(), 8));
    strcat_safe(logBuf, size, kSeparator);

    const bool ethernet = (flags & DriverLogEntry::kEthernetValid) != 0;
    if (ethernet) {
        FrameTypeText(logBuf, size, record->eth_type());
    } else if (record->isIpv4()) {
        strcat_safe(logBuf, size, "IP");
    } else if (record->isIpv6()) {
        strcat_safe(logBuf, size, "IPv6");
    }
    strcat_safe(logBuf, size, kSeparator);
    if (ethernet) {
        AppendSpacedHex(logBuf, size, record->eth_src(), 6);
    }
    strcat_safe(logBuf, size, kSeparator);
    if (ethernet) {
        AppendSpacedHex(logBuf, size, record->eth_dest(), 6);
    }
    strcat_safe(logBuf, size, kSeparator);

    ProtocolText(logBuf, size, record);
    strcat_safe(logBuf, size, kSeparator);
    AppendPacketDetails(logBuf, size, record);
    strcat_safe(logBuf, size, kSeparator);

    const bool ports = record->hasPorts();
    AddressText(logBuf, size, record, true);
    strcat_safe(logBuf, size, kSeparator);
    if (ports) {
        snprintfcat(logBuf, size, "%d", record->th_sport());
    }
    strcat_safe(logBuf, size, kSeparator);
    AddressText(logBuf, size, record, false);
    strcat_safe(logBuf, size, kSeparator);
    if (ports) {
        snprintfcat(logBuf, size, "%d", record->th_dport());
    }
    strcat_safe(logBuf, size, kSeparator);

    LookUpInterfaceId(record->interface_index());
    snprintfcat(logBuf, size, "%u, %d, %d, %d, %d, ", record->packet_len(), record->action(),
                record->reason(), int(record->id()), m_LastInterfaceId);

    const size_t noteLength = std::min<size_t>(record->note_len(), 16);
    for (size_t i = 0; i < noteLength; ++i) {
        snprintfcat(logBuf, size, "%02X", record->note()[i]);
    }
    const u16 logFlags = record->log_flags();
    snprintfcat(logBuf, size, ", %u, %u, %u, %u, ", record->packet_pos(), record->stream_pos(),
                PrintedLogFlags(logFlags), record->aux_count());
    if (logFlags & (DriverLogEntry::kLogTrailingData | DriverLogEntry::kLogDataIndex)) {
        snprintfcat(logBuf, size, "%u", record->data_index());
    }
    strcat_safe(logBuf, size, kSeparator);
    wxASSERT_MSG(strlen(logBuf) < sizeof(logBuf) - 1, "strlen(LogBuf) < sizeof(LogBuf) - 1");

    const size_t dataLength =
        (logFlags & DriverLogEntry::kLogTrailingData) ? record->boundedDataLen() : 0;
    const size_t packetLength = record->packet_data() ? record->packet_data_len() : 0;
    line.reserve(strlen(logBuf) + 2 * packetLength + 2 * dataLength + 2);
    line.assign(logBuf);
    AppendPackedHex(line, record->trailingData(), dataLength);
    line.append(kSeparator);
    AppendPackedHex(line, record->packet_data(), packetLength);

    NORV_TRACE(L"vexil", wxString::Format("%.200s", line.c_str()));
    return true;
}

}  // namespace VEXIL
