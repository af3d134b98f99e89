// CRecordBuilder: the one builder of driver log records, with named fields.
//
// The live receiver, the capture replay, the Lua encoder, the tests and the
// benchmarks all make records here, on the layout of host/NorviRecord.h.
// BuildPacketRecord is the record of one packet event as both sources make
// it, so that the two agree byte for byte.
//
// The builder is nothing but the record's bytes (trivially destructible, so
// that code which may raise a Lua error can hold one).
//
// Threads: a value; used by one thread at a time.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "host/NorviRecord.h"

namespace NORVI {

struct SourceRecord;

class CRecordBuilder {
public:
    CRecordBuilder() = default;

    // Any field by its layout: an integer little-endian (two's complement
    // for the signed ones), an integer in network order, or bytes, of which
    // at most the field's width is taken.
    CRecordBuilder& PutUnsigned(RecordField field, uint64_t value);
    CRecordBuilder& PutNetwork(RecordField field, uint64_t value);
    CRecordBuilder& PutBytes(RecordField field, const void* bytes, size_t length);

    CRecordBuilder& Time(uint32_t sec, uint32_t usec);
    CRecordBuilder& EndTime(uint32_t sec, uint32_t usec);
    CRecordBuilder& Action(int16_t action);
    CRecordBuilder& Reason(int16_t reason);
    CRecordBuilder& Id(uint32_t id);
    CRecordBuilder& InterfaceIndex(uint32_t index);
    CRecordBuilder& AddFlags(uint16_t bits);
    CRecordBuilder& PacketLen(uint32_t length);
    CRecordBuilder& Count(uint32_t count);
    CRecordBuilder& AddLogFlags(uint16_t bits);
    CRecordBuilder& Note(const void* bytes, size_t length);  // sets note_len
    // The Ethernet fields (6 + 6 + 2 bytes as in the frame), and flag bit 3.
    CRecordBuilder& Ethernet(const uint8_t* header14);
    // IPv4 header fields one by one (flag bit 4); addresses as 4 bytes.
    CRecordBuilder& Ipv4(const uint8_t* source, const uint8_t* destination, uint8_t protocol);
    // IPv6 header fields (flag bit 5); addresses as 16 bytes.
    CRecordBuilder& Ipv6(const uint8_t* source, const uint8_t* destination, uint8_t next);
    CRecordBuilder& Ports(uint16_t source, uint16_t destination);  // and flag bit 6
    CRecordBuilder& TcpFlags(uint8_t flags);                       // and flag bit 6
    // Copies of the packet's headers: the IP header (at most 40 bytes, flag
    // bit 4 or 5) and the transport header (at most 20 bytes, flag bit 6).
    CRecordBuilder& IpHeader(const uint8_t* header, size_t length, bool ipv6);
    CRecordBuilder& TransportHeader(const uint8_t* header, size_t length);
    // Announces a trailing data block of length bytes (data_len and log
    // flag 0x02), kept to Record::kTrailingDataMax; gives the length kept.
    // The caller holds the block itself.
    size_t TrailingData(size_t length);

    const uint8_t* Bytes() const { return m_Record; }

private:
    uint64_t GetUnsigned(RecordField field) const;

    uint8_t m_Record[Record::kSize] = {};
};

// One packet event of either source.
struct PacketEvent {
    uint32_t m_TimeSec = 0;
    uint32_t m_TimeUsec = 0;
    uint32_t m_InterfaceIndex = 0;
    bool m_Outgoing = false;
    // The 14 bytes of the Ethernet header (destination, source, type), or
    // null when the packet came without one.
    const uint8_t* m_Ethernet = nullptr;
    // The hardware address of the interface (at most 8 bytes), if known.
    const uint8_t* m_InterfaceMac = nullptr;
    size_t m_InterfaceMacLength = 0;
    // The bytes captured from the IP header on.
    const uint8_t* m_Packet = nullptr;
    size_t m_CapturedLength = 0;
    int16_t m_Action = 0;
    int16_t m_Reason = 0;
    uint32_t m_RuleId = 0;
};

// The record of a packet event: time (end time the same), interface and its
// hardware address, the direction, the Ethernet fields when present, the IP
// and transport header copies, the packet length that the IP header
// announces (the captured length when it announces none), count 1, and the
// captured packet bytes both as the trailing data block and as the packet
// block. False, with out untouched, when the bytes hold no complete IP
// header.
bool BuildPacketRecord(const PacketEvent& event, SourceRecord& out);

}  // namespace NORVI
