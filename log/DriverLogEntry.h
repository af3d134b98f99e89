// DriverLogEntry: the driver's fixed 192-byte event record.
//
// The record is a wire format whose layout host/NorviRecord.h names: every
// field is read at its fixed offset, in the host's byte order (little-endian)
// unless it is a copy of a packet header, which stays in network order. The struct is nothing but
// the bytes; the accessors do the reading, and each derived value is computed here once. The
// trailing data block, when a record carries one, follows the 192 bytes directly in the working
// copy (trailingData()).
#pragma once

#include <arpa/inet.h>

#include <cstddef>
#include <cstring>

#include "host/NorviRecord.h"
#include "host/Types.h"

namespace VEXIL {

// The layout, as the reader names it.
namespace Layout = NORVI::Record;

struct DriverLogEntry {
    static constexpr size_t kSize = Layout::kSize;
    // The largest working copy: the record and its trailing block.
    static constexpr size_t kWorkingCopySize = Layout::kWorkingCopySize;

    // Bits of flags.
    static constexpr u16 kOutgoing = Layout::kOutgoing;
    static constexpr u16 kFlagBit1 = Layout::kFlagBit1;
    static constexpr u16 kEthernetValid = Layout::kEthernetValid;
    static constexpr u16 kIpv4 = Layout::kIpv4;
    static constexpr u16 kIpv6 = Layout::kIpv6;
    static constexpr u16 kTransportValid = Layout::kTransportValid;
    static constexpr u16 kSrcIpInHistoryList = Layout::kSrcIpInHistoryList;

    // Bits of log_flags.
    static constexpr u16 kLogTrailingData = Layout::kLogTrailingData;
    static constexpr u16 kLogDataIndex = Layout::kLogDataIndex;
    static constexpr u16 kLogDoNotLog = Layout::kLogDoNotLog;

    u8 bytes[kSize];

    u32 time_sec() const { return Read<u32>(Layout::kTimeSec); }
    u32 time_usec() const { return Read<u32>(Layout::kTimeUsec); }
    i16 action() const { return Read<i16>(Layout::kAction); }
    i16 reason() const { return Read<i16>(Layout::kReason); }
    u32 id() const { return Read<u32>(Layout::kId); }
    u32 interface_index() const { return Read<u32>(Layout::kInterfaceIndex); }
    u32 stream_pos() const { return Read<u32>(Layout::kStreamPos); }
    u16 packet_pos() const { return Read<u16>(Layout::kPacketPos); }
    u16 flags() const { return Read<u16>(Layout::kFlags); }
    u32 interface_mac_len() const { return Read<u32>(Layout::kInterfaceMacLen); }
    const u8* interface_mac() const { return bytes + Layout::kInterfaceMac.m_Offset; }
    u32 packet_len() const { return Read<u32>(Layout::kPacketLen); }
    u16 note_len() const { return Read<u16>(Layout::kNoteLen); }
    u16 packet_data_len() const { return Read<u16>(Layout::kPacketDataLen); }
    const u8* note() const { return bytes + Layout::kNote.m_Offset; }
    u16 data_len() const { return Read<u16>(Layout::kDataLen); }
    u16 data_index() const { return Read<u16>(Layout::kDataIndex); }
    u16 log_flags() const { return Read<u16>(Layout::kLogFlags); }
    u32 end_time_sec() const { return Read<u32>(Layout::kEndTimeSec); }
    u32 end_time_usec() const { return Read<u32>(Layout::kEndTimeUsec); }
    u32 count() const { return Read<u32>(Layout::kCount); }
    u16 aux_count() const { return Read<u16>(Layout::kAuxCount); }
    const u8* eth_dest() const { return bytes + Layout::kEthDest.m_Offset; }
    const u8* eth_src() const { return bytes + Layout::kEthSrc.m_Offset; }
    // Header copies, converted to host order where they are numbers.
    u16 eth_type() const { return ntohs(Read<u16>(Layout::kEthType)); }
    u16 iph_total_len() const { return ntohs(Read<u16>(Layout::kIphTotalLen)); }
    u16 iph_frag_off() const { return ntohs(Read<u16>(Layout::kIphFragOff)); }
    u8 iph_proto() const { return Read<u8>(Layout::kIphProto); }
    // Addresses stay in network order, as they stand in the record.
    u32 iph_src() const { return Read<u32>(Layout::kIphSrc); }
    u32 iph_dest() const { return Read<u32>(Layout::kIphDest); }
    const u8* iph_src_bytes() const { return bytes + Layout::kIphSrc.m_Offset; }
    const u8* iph_dest_bytes() const { return bytes + Layout::kIphDest.m_Offset; }
    u8 ipv6h_next() const { return Read<u8>(Layout::kIpv6hNext); }
    // Group i (0 to 7) of the IPv6 addresses, in host order.
    u16 ipv6h_src(int i) const { return ntohs(Read<u16>(Layout::kIpv6hSrc, 2 * i)); }
    u16 ipv6h_dest(int i) const { return ntohs(Read<u16>(Layout::kIpv6hDest, 2 * i)); }
    u16 th_sport() const { return ntohs(Read<u16>(Layout::kThSport)); }
    u16 th_dport() const { return ntohs(Read<u16>(Layout::kThDport)); }
    u8 tcph_flags() const { return Read<u8>(Layout::kTcphFlags); }
    u8 icmph_type() const { return Read<u8>(Layout::kIcmphType); }
    u8 icmph_code() const { return Read<u8>(Layout::kIcmphCode); }
    const u8* packet_data() const { return Read<const u8*>(Layout::kPacketData); }

    void set_packet_data_len(u16 value) { Write(Layout::kPacketDataLen, value); }
    void set_packet_data(const u8* value) { Write(Layout::kPacketData, value); }

    // The trailing data block; valid only within a RecordCopy, which holds
    // (or zero-fills) boundedDataLen() bytes behind the record.
    const u8* trailingData() const { return bytes + kSize; }
    size_t boundedDataLen() const {
        return data_len() < Layout::kTrailingDataMax ? data_len() : Layout::kTrailingDataMax;
    }

    bool isPacketRecord() const { return reason() >= 0; }
    bool isIncoming() const { return (flags() & kOutgoing) == 0; }
    // Bit 4 wins over bit 5: a record with both counts as IPv4.
    bool isIpv4() const { return (flags() & kIpv4) != 0; }
    bool isIpv6() const { return !isIpv4() && (flags() & kIpv6) != 0; }
    bool hasProtocol() const { return isIpv4() || isIpv6(); }
    // The IP protocol number; meaningful only when hasProtocol().
    u8 protocol() const { return isIpv4() ? iph_proto() : (isIpv6() ? ipv6h_next() : 0); }
    bool hasTransport() const { return (flags() & kTransportValid) != 0; }
    bool hasPorts() const {
        return hasProtocol() && hasTransport() && (protocol() == 6 || protocol() == 17);
    }
    u64 firstTimeUsec() const { return u64(time_sec()) * 1000000u + time_usec(); }
    u64 lastTimeUsec() const { return u64(end_time_sec()) * 1000000u + end_time_usec(); }

private:
    // The value of a field (or of a part of it, from within bytes on).
    template <typename T>
    T Read(NORVI::RecordField field, size_t within = 0) const {
        T value;
        std::memcpy(&value, bytes + field.m_Offset + within, sizeof value);
        return value;
    }
    template <typename T>
    void Write(NORVI::RecordField field, T value) {
        std::memcpy(bytes + field.m_Offset, &value, sizeof value);
    }
};

static_assert(sizeof(DriverLogEntry) == DriverLogEntry::kSize, "the record is 192 bytes");
static_assert(sizeof(void*) == 8, "the packet_data slot holds a 64-bit address");
#if __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "driver records are little-endian; a big-endian host needs byte swaps in Read"
#endif

}  // namespace VEXIL
