// The driver's 192-byte log record: its layout, named once.
//
// Every offset, width and flag bit of the record lives here, for the one
// reader (log/DriverLogEntry.h) and the one builder (driver/record). Numbers
// are little-endian unless the field is a copy of a packet header, which
// stays in network order as it stood in the packet.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace NORVI {

// Where a field stands in the record and how many bytes it has.
struct RecordField {
    size_t m_Offset;
    size_t m_Width;
};

namespace Record {

constexpr size_t kSize = 192;

constexpr RecordField kTimeSec{0, 4};
constexpr RecordField kTimeUsec{4, 4};
constexpr RecordField kAction{20, 2};  // signed
constexpr RecordField kReason{22, 2};  // signed; below 0 a payload record
constexpr RecordField kId{24, 4};
constexpr RecordField kInterfaceIndex{28, 4};
constexpr RecordField kStreamPos{32, 4};
constexpr RecordField kPacketPos{36, 2};
constexpr RecordField kFlags{38, 2};
constexpr RecordField kInterfaceMacLen{40, 4};
constexpr RecordField kInterfaceMac{44, 8};
constexpr RecordField kPacketLen{52, 4};
constexpr RecordField kNoteLen{56, 2};
constexpr RecordField kPacketDataLen{58, 2};
constexpr RecordField kNote{60, 16};
constexpr RecordField kDataLen{76, 2};
constexpr RecordField kDataIndex{78, 2};
constexpr RecordField kLogFlags{84, 2};
constexpr RecordField kEndTimeSec{88, 4};
constexpr RecordField kEndTimeUsec{92, 4};
constexpr RecordField kCount{96, 4};
constexpr RecordField kAuxCount{100, 2};
constexpr RecordField kEthDest{102, 6};
constexpr RecordField kEthSrc{108, 6};
constexpr RecordField kEthType{114, 2};  // network order
// The copy of the IP header (IPv4 or IPv6, as flags say), and its views.
constexpr RecordField kIpHeader{120, 40};
constexpr RecordField kIphTotalLen{122, 2};  // network order
constexpr RecordField kIphFragOff{126, 2};   // network order
constexpr RecordField kIphProto{129, 1};
constexpr RecordField kIphSrc{132, 4};  // network order
constexpr RecordField kIphDest{136, 4};
constexpr RecordField kIpv6hNext{126, 1};
constexpr RecordField kIpv6hSrc{128, 16};
constexpr RecordField kIpv6hDest{144, 16};
// The copy of the transport header (TCP, UDP or ICMP), and its views.
constexpr RecordField kTransportHeader{160, 20};
constexpr RecordField kThSport{160, 2};  // network order
constexpr RecordField kThDport{162, 2};  // network order
constexpr RecordField kTcphFlags{173, 1};
constexpr RecordField kIcmphType{160, 1};
constexpr RecordField kIcmphCode{161, 1};
// Slot for the address of the packet block; meaningless on arrival.
constexpr RecordField kPacketData{184, 8};

// Bits of flags.
constexpr uint16_t kOutgoing = 0x01;
constexpr uint16_t kFlagBit1 = 0x02;
constexpr uint16_t kEthernetValid = 0x08;
constexpr uint16_t kIpv4 = 0x10;
constexpr uint16_t kIpv6 = 0x20;
constexpr uint16_t kTransportValid = 0x40;
constexpr uint16_t kSrcIpInHistoryList = 0x100;

// Bits of log_flags.
constexpr uint16_t kLogTrailingData = 0x02;
constexpr uint16_t kLogDataIndex = 0x04;
constexpr uint16_t kLogDoNotLog = 0x40;

// The largest working copy a reader keeps: the record and its trailing
// block; a source never makes a longer trailing block than this leaves.
constexpr size_t kWorkingCopySize = 65536;
constexpr size_t kTrailingDataMax = kWorkingCopySize - kSize;

}  // namespace Record
}  // namespace NORVI
