// DriverLogEntry: the driver's fixed 192-byte event record.
//
// The record is a wire format: every field is read at its fixed offset, in
// the host's byte order (little-endian) unless it is a copy of a packet
// header, which stays in network order. The struct is nothing but the bytes;
// the accessors do the reading, and each derived value is computed here once.
// The trailing data block, when a record carries one, follows the 192 bytes
// directly in the working copy (trailingData()).
#pragma once

#include <arpa/inet.h>

#include <cstddef>
#include <cstring>

#include "host/Types.h"

namespace VEXIL {

struct DriverLogEntry {
    static constexpr size_t kSize = 192;
    // The largest working copy: the record and its trailing block.
    static constexpr size_t kWorkingCopySize = 65536;

    // Bits of flags.
    static constexpr u16 kOutgoing = 0x01;
    static constexpr u16 kFlagBit1 = 0x02;
    static constexpr u16 kEthernetValid = 0x08;
    static constexpr u16 kIpv4 = 0x10;
    static constexpr u16 kIpv6 = 0x20;
    static constexpr u16 kTransportValid = 0x40;
    static constexpr u16 kSrcIpInHistoryList = 0x100;

    // IP protocol numbers of protocol().
    static constexpr u8 kProtocolIcmp = 1;
    static constexpr u8 kProtocolTcp = 6;
    static constexpr u8 kProtocolUdp = 17;
    static constexpr u8 kProtocolIcmpv6 = 58;

    // Bits of iph_frag_off; the rest is the offset in units of 8 bytes.
    static constexpr u16 kDontFragment = 0x4000;
    static constexpr u16 kMoreFragments = 0x2000;

    // Reasons of the driver's notifications that a tracked connection closed.
    static constexpr i16 kReasonConnectionClosedNormal = 10000;
    static constexpr i16 kReasonConnectionClosedOther = 10001;

    // Bits of log_flags.
    static constexpr u16 kLogTrailingData = 0x02;
    static constexpr u16 kLogDataIndex = 0x04;
    static constexpr u16 kLogDoNotLog = 0x40;

    u8 bytes[kSize];

    u32 time_sec() const { return Read<u32>(0); }
    u32 time_usec() const { return Read<u32>(4); }
    i16 action() const { return Read<i16>(20); }
    i16 reason() const { return Read<i16>(22); }
    u32 id() const { return Read<u32>(24); }
    u32 interface_index() const { return Read<u32>(28); }
    u32 stream_pos() const { return Read<u32>(32); }
    u16 packet_pos() const { return Read<u16>(36); }
    u16 flags() const { return Read<u16>(38); }
    u32 interface_mac_len() const { return Read<u32>(40); }
    const u8* interface_mac() const { return bytes + 44; }
    u32 packet_len() const { return Read<u32>(52); }
    u16 note_len() const { return Read<u16>(56); }
    u16 packet_data_len() const { return Read<u16>(58); }
    const u8* note() const { return bytes + 60; }
    u16 data_len() const { return Read<u16>(76); }
    u16 data_index() const { return Read<u16>(78); }
    u16 log_flags() const { return Read<u16>(84); }
    u32 end_time_sec() const { return Read<u32>(88); }
    u32 end_time_usec() const { return Read<u32>(92); }
    u32 count() const { return Read<u32>(96); }
    u16 aux_count() const { return Read<u16>(100); }
    const u8* eth_dest() const { return bytes + 102; }
    const u8* eth_src() const { return bytes + 108; }
    // Header copies, converted to host order where they are numbers.
    u16 eth_type() const { return ntohs(Read<u16>(114)); }
    u16 iph_total_len() const { return ntohs(Read<u16>(122)); }
    u16 iph_frag_off() const { return ntohs(Read<u16>(126)); }
    u8 iph_proto() const { return bytes[129]; }
    // Addresses stay in network order, as they stand in the record.
    u32 iph_src() const { return Read<u32>(132); }
    u32 iph_dest() const { return Read<u32>(136); }
    const u8* iph_src_bytes() const { return bytes + 132; }
    const u8* iph_dest_bytes() const { return bytes + 136; }
    u8 ipv6h_next() const { return bytes[126]; }
    // Group i (0 to 7) of the IPv6 addresses, in host order.
    u16 ipv6h_src(int i) const { return ntohs(Read<u16>(128 + 2 * i)); }
    u16 ipv6h_dest(int i) const { return ntohs(Read<u16>(144 + 2 * i)); }
    u16 th_sport() const { return ntohs(Read<u16>(160)); }
    u16 th_dport() const { return ntohs(Read<u16>(162)); }
    u8 tcph_flags() const { return bytes[173]; }
    u8 icmph_type() const { return bytes[160]; }
    u8 icmph_code() const { return bytes[161]; }
    const u8* packet_data() const { return Read<const u8*>(184); }

    void set_packet_data_len(u16 value) { Write(58, value); }
    void set_packet_data(const u8* value) { Write(184, value); }

    // The trailing data block; valid only within a RecordCopy, which holds
    // (or zero-fills) boundedDataLen() bytes behind the record.
    const u8* trailingData() const { return bytes + kSize; }
    size_t boundedDataLen() const {
        return data_len() < kWorkingCopySize - kSize ? data_len() : kWorkingCopySize - kSize;
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
    bool hasTcpHeader() const {
        return hasProtocol() && protocol() == kProtocolTcp && hasTransport();
    }
    bool hasIcmpHeader() const {
        return isIpv4() && iph_proto() == kProtocolIcmp && hasTransport();
    }
    bool hasPorts() const {
        return hasProtocol() && hasTransport() &&
               (protocol() == kProtocolTcp || protocol() == kProtocolUdp);
    }
    u64 firstTimeUsec() const { return u64(time_sec()) * 1000000u + time_usec(); }
    u64 lastTimeUsec() const { return u64(end_time_sec()) * 1000000u + end_time_usec(); }

private:
    template <typename T>
    T Read(size_t offset) const {
        T value;
        std::memcpy(&value, bytes + offset, sizeof value);
        return value;
    }
    template <typename T>
    void Write(size_t offset, T value) {
        std::memcpy(bytes + offset, &value, sizeof value);
    }
};

static_assert(sizeof(DriverLogEntry) == DriverLogEntry::kSize, "the record is 192 bytes");
static_assert(sizeof(void*) == 8, "the packet_data slot holds a 64-bit address");
#if __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "driver records are little-endian; a big-endian host needs byte swaps in Read"
#endif

}  // namespace VEXIL
