#include "driver/record/RecordBuilder.h"

#include <string.h>

#include <type_traits>

#include "driver/linux/RecordSource.h"
#include "driver/record/PacketView.h"

namespace NORVI {

static_assert(std::is_trivially_destructible<CRecordBuilder>::value,
              "a builder may be held where a Lua error can unwind");

CRecordBuilder& CRecordBuilder::PutUnsigned(RecordField field, uint64_t value) {
    for (size_t byte = 0; byte < field.m_Width && byte < 8; ++byte) {
        m_Record[field.m_Offset + byte] = static_cast<uint8_t>(value >> (8 * byte));
    }
    return *this;
}

CRecordBuilder& CRecordBuilder::PutNetwork(RecordField field, uint64_t value) {
    for (size_t byte = 0; byte < field.m_Width && byte < 8; ++byte) {
        m_Record[field.m_Offset + field.m_Width - 1 - byte] =
            static_cast<uint8_t>(value >> (8 * byte));
    }
    return *this;
}

CRecordBuilder& CRecordBuilder::PutBytes(RecordField field, const void* bytes, size_t length) {
    if (bytes != nullptr) {
        memcpy(m_Record + field.m_Offset, bytes, length < field.m_Width ? length : field.m_Width);
    }
    return *this;
}

uint64_t CRecordBuilder::GetUnsigned(RecordField field) const {
    uint64_t value = 0;
    for (size_t byte = field.m_Width; byte-- > 0;) {
        value = value << 8 | m_Record[field.m_Offset + byte];
    }
    return value;
}

CRecordBuilder& CRecordBuilder::Time(uint32_t sec, uint32_t usec) {
    return PutUnsigned(Record::kTimeSec, sec).PutUnsigned(Record::kTimeUsec, usec);
}

CRecordBuilder& CRecordBuilder::EndTime(uint32_t sec, uint32_t usec) {
    return PutUnsigned(Record::kEndTimeSec, sec).PutUnsigned(Record::kEndTimeUsec, usec);
}

CRecordBuilder& CRecordBuilder::Action(int16_t action) {
    return PutUnsigned(Record::kAction, static_cast<uint16_t>(action));
}

CRecordBuilder& CRecordBuilder::Reason(int16_t reason) {
    return PutUnsigned(Record::kReason, static_cast<uint16_t>(reason));
}

CRecordBuilder& CRecordBuilder::Id(uint32_t id) {
    return PutUnsigned(Record::kId, id);
}

CRecordBuilder& CRecordBuilder::InterfaceIndex(uint32_t index) {
    return PutUnsigned(Record::kInterfaceIndex, index);
}

CRecordBuilder& CRecordBuilder::AddFlags(uint16_t bits) {
    return PutUnsigned(Record::kFlags, GetUnsigned(Record::kFlags) | bits);
}

CRecordBuilder& CRecordBuilder::PacketLen(uint32_t length) {
    return PutUnsigned(Record::kPacketLen, length);
}

CRecordBuilder& CRecordBuilder::Count(uint32_t count) {
    return PutUnsigned(Record::kCount, count);
}

CRecordBuilder& CRecordBuilder::AddLogFlags(uint16_t bits) {
    return PutUnsigned(Record::kLogFlags, GetUnsigned(Record::kLogFlags) | bits);
}

CRecordBuilder& CRecordBuilder::Note(const void* bytes, size_t length) {
    const size_t kept = length < Record::kNote.m_Width ? length : Record::kNote.m_Width;
    return PutBytes(Record::kNote, bytes, kept).PutUnsigned(Record::kNoteLen, kept);
}

CRecordBuilder& CRecordBuilder::Ethernet(const uint8_t* header14) {
    return PutBytes(Record::kEthDest, header14, 6)
        .PutBytes(Record::kEthSrc, header14 + 6, 6)
        .PutBytes(Record::kEthType, header14 + 12, 2)
        .AddFlags(Record::kEthernetValid);
}

CRecordBuilder& CRecordBuilder::Ipv4(const uint8_t* source, const uint8_t* destination,
                                     uint8_t protocol) {
    return PutBytes(Record::kIphSrc, source, 4)
        .PutBytes(Record::kIphDest, destination, 4)
        .PutUnsigned(Record::kIphProto, protocol)
        .AddFlags(Record::kIpv4);
}

CRecordBuilder& CRecordBuilder::Ipv6(const uint8_t* source, const uint8_t* destination,
                                     uint8_t next) {
    return PutBytes(Record::kIpv6hSrc, source, 16)
        .PutBytes(Record::kIpv6hDest, destination, 16)
        .PutUnsigned(Record::kIpv6hNext, next)
        .AddFlags(Record::kIpv6);
}

CRecordBuilder& CRecordBuilder::Ports(uint16_t source, uint16_t destination) {
    return PutNetwork(Record::kThSport, source)
        .PutNetwork(Record::kThDport, destination)
        .AddFlags(Record::kTransportValid);
}

CRecordBuilder& CRecordBuilder::TcpFlags(uint8_t flags) {
    return PutUnsigned(Record::kTcphFlags, flags).AddFlags(Record::kTransportValid);
}

CRecordBuilder& CRecordBuilder::IpHeader(const uint8_t* header, size_t length, bool ipv6) {
    return PutBytes(Record::kIpHeader, header, length)
        .AddFlags(ipv6 ? Record::kIpv6 : Record::kIpv4);
}

CRecordBuilder& CRecordBuilder::TransportHeader(const uint8_t* header, size_t length) {
    return PutBytes(Record::kTransportHeader, header, length).AddFlags(Record::kTransportValid);
}

size_t CRecordBuilder::TrailingData(size_t length) {
    const size_t kept = length < Record::kTrailingDataMax ? length : Record::kTrailingDataMax;
    PutUnsigned(Record::kDataLen, kept).AddLogFlags(Record::kLogTrailingData);
    return kept;
}

bool BuildPacketRecord(const PacketEvent& event, SourceRecord& out) {
    CPacketView view;
    if (view.Read(event.m_Packet, event.m_CapturedLength) != CPacketView::Parse::Ok) {
        return false;
    }
    CRecordBuilder builder;
    builder.Time(event.m_TimeSec, event.m_TimeUsec)
        .EndTime(event.m_TimeSec, event.m_TimeUsec)
        .Action(event.m_Action)
        .Reason(event.m_Reason)
        .Id(event.m_RuleId)
        .InterfaceIndex(event.m_InterfaceIndex)
        .PacketLen(static_cast<uint32_t>(view.AnnouncedLength() != 0 ? view.AnnouncedLength()
                                                                     : event.m_CapturedLength))
        .Count(1)
        .IpHeader(view.Bytes(), view.IpHeaderLength(), view.IsIpv6());
    if (event.m_Outgoing) {
        builder.AddFlags(Record::kOutgoing);
    }
    if (event.m_InterfaceMac != nullptr) {
        const size_t length = event.m_InterfaceMacLength < Record::kInterfaceMac.m_Width
                                  ? event.m_InterfaceMacLength
                                  : Record::kInterfaceMac.m_Width;
        builder.PutBytes(Record::kInterfaceMac, event.m_InterfaceMac, length)
            .PutUnsigned(Record::kInterfaceMacLen, length);
    }
    if (event.m_Ethernet != nullptr) {
        builder.Ethernet(event.m_Ethernet);
    }
    if (view.TransportComplete()) {
        builder.TransportHeader(view.Transport(), view.TransportLength());
    }
    const size_t kept = builder.TrailingData(event.m_CapturedLength);
    builder.PutUnsigned(Record::kPacketDataLen, kept < 0xFFFF ? kept : 0xFFFF);
    memcpy(out.m_Record, builder.Bytes(), Record::kSize);
    out.m_Data.assign(event.m_Packet, event.m_Packet + kept);
    out.m_Packet = out.m_Data;
    return true;
}

}  // namespace NORVI
