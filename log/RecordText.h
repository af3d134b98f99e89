// Texts of single record fields, shared by the log line and syslog renderers.
// Each appends to a bounded, terminated text buffer and never writes past size.
#pragma once

#include <cstddef>

#include "host/Types.h"
#include "log/DriverLogEntry.h"

namespace VEXIL {

// The source or destination address: a dotted quad for IPv4, eight groups of
// lower-case hex for IPv6, nothing for a record without an IP header.
void AddressText(char* buffer, size_t size, const DriverLogEntry* record, bool source);

// The fragment bits of an IPv4 record and its offset in bytes (the offset
// field times 8, in 16 bits, which pushes the three flag bits out).
struct FragmentBits {
    bool dontFragment;
    bool moreFragments;
    u16 offsetBytes;
};
FragmentBits FragmentBitsOf(const DriverLogEntry* record);

// The words of the TCP flag bits, from CWR (0x80) down to FIN (0x01).
extern const char* const kTcpFlagWords[8];

// The protocol word ("TCP", "ICMPv6", ...) or its number; nothing for a
// record that carries no IP header.
void ProtocolText(char* buffer, size_t size, const DriverLogEntry* record);
// The names of the TCP flag bits that are set, each with a trailing blank,
// from CWR down to FIN.
void TcpFlagsText(char* buffer, size_t size, const DriverLogEntry* record);
// The Ethernet frame type word ("IP", "ARP", ...) or "%#x" of the value.
void FrameTypeText(char* buffer, size_t size, u16 ethType);
// log_flags as it is printed: the bits rearranged, 0x40 and above dropped.
u32 PrintedLogFlags(u16 logFlags);

}  // namespace VEXIL
