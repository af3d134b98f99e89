// CPacketView: where the headers of one IP packet stand, every length
// bounded by the bytes that are really there.
//
// Both record sources and the ruleset model look at packets through this one
// view, so that they agree on what the IP header, the transport header and
// the protocol of a packet are. The view points into the caller's bytes and
// owns nothing.
//
// Threads: a value; used by one thread at a time.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace NORVI {

class CPacketView {
public:
    enum class Parse {
        Ok,         // headers found (the transport header may still be short)
        Truncated,  // the bytes end inside the IP header or its options
        Malformed,  // a version or header length that no packet has
    };

    // Parses bytes, which start at the IP header.
    Parse Read(const uint8_t* bytes, size_t length);

    bool IsIpv6() const { return m_Ipv6; }
    const uint8_t* Bytes() const { return m_Bytes; }
    size_t Length() const { return m_Length; }
    // The IP header as the record copies it: the IPv4 header with its
    // options, or the fixed IPv6 header.
    size_t IpHeaderLength() const { return m_IpHeaderLength; }
    // The protocol of the transport header (after any IPv6 extension headers).
    uint8_t Protocol() const { return m_Protocol; }
    // The length of the packet that its IP header announces.
    size_t AnnouncedLength() const { return m_AnnouncedLength; }
    // False for a fragment other than the first, which has no transport header.
    bool HasTransportHeader() const { return m_TransportOffset != 0; }
    const uint8_t* Transport() const { return m_Bytes + m_TransportOffset; }
    // Transport bytes present, bounded by both the capture and the IP length.
    size_t TransportLength() const { return m_TransportLength; }
    // The transport header is there in full (TCP 20 bytes and its options
    // counted by the data offset, UDP 8, ICMP 8).
    bool TransportComplete() const;
    // Source and destination addresses: 4 or 16 bytes.
    const uint8_t* Source() const { return m_Bytes + (m_Ipv6 ? 8 : 12); }
    const uint8_t* Destination() const { return m_Bytes + (m_Ipv6 ? 24 : 16); }
    size_t AddressLength() const { return m_Ipv6 ? 16 : 4; }

private:
    const uint8_t* m_Bytes = nullptr;
    size_t m_Length = 0;
    bool m_Ipv6 = false;
    size_t m_IpHeaderLength = 0;
    uint8_t m_Protocol = 0;
    size_t m_AnnouncedLength = 0;
    size_t m_TransportOffset = 0;
    size_t m_TransportLength = 0;
};

}  // namespace NORVI
