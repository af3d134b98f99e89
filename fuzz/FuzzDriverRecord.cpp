#include "fuzz/FuzzDriverRecord.h"

#include <algorithm>
#include <cstring>

#include "driver/record/PacketView.h"
#include "fuzz/FuzzSupport.h"
#include "host/NorviRecord.h"

namespace VEXIL {

namespace {

namespace Layout = NORVI::Record;
using NORVI::RecordField;

size_t Field(const NORVI::SourceRecord& record, RecordField field) {
    size_t value = 0;
    for (size_t index = field.m_Width; index-- > 0;) {
        value = value << 8 | record.m_Record[field.m_Offset + index];
    }
    return value;
}

// Whether the record's copy of a header holds the packet's bytes, the rest
// of the field zero.
bool Copies(const NORVI::SourceRecord& record, RecordField field, const u8* header, size_t length) {
    const size_t copied = std::min<size_t>(length, field.m_Width);
    const u8* const slot = record.m_Record + field.m_Offset;
    return std::memcmp(slot, header, copied) == 0 &&
           std::all_of(slot + copied, slot + field.m_Width, [](u8 byte) { return byte == 0; });
}

}  // namespace

void FuzzCheckDriverRecord(const NORVI::SourceRecord& record) {
    const std::string size = std::to_string(record.m_Data.size());
    FuzzCheck(Field(record, Layout::kLogFlags) & Layout::kLogTrailingData,
              "a record without its trailing data flag", size);
    FuzzCheck(Field(record, Layout::kDataLen) == record.m_Data.size(),
              "data_len is not the trailing block's size", size);
    FuzzCheck(
        Field(record, Layout::kPacketDataLen) == std::min<size_t>(record.m_Packet.size(), 0xFFFF),
        "packet_data_len is not the packet block's size", size);
    FuzzCheck(record.m_Packet == record.m_Data, "the packet block differs from the trailing block",
              size);

    NORVI::CPacketView view;
    FuzzCheck(
        view.Read(record.m_Data.data(), record.m_Data.size()) == NORVI::CPacketView::Parse::Ok,
        "a record whose packet has no complete IP header", size);
    const size_t flags = Field(record, Layout::kFlags);
    FuzzCheck((flags & (view.IsIpv6() ? Layout::kIpv6 : Layout::kIpv4)) != 0,
              "the IP version flag does not match the packet", size);
    FuzzCheck(Copies(record, Layout::kIpHeader, view.Bytes(), view.IpHeaderLength()),
              "the IP header copy is not the packet's", size);
    if (flags & Layout::kTransportValid) {
        FuzzCheck(view.TransportComplete() && Copies(record, Layout::kTransportHeader,
                                                     view.Transport(), view.TransportLength()),
                  "the transport header copy is not the packet's", size);
    } else {
        FuzzCheck(!view.TransportComplete(), "a complete transport header was not copied", size);
    }
}

}  // namespace VEXIL
