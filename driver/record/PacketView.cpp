#include "driver/record/PacketView.h"

namespace NORVI {

namespace {

constexpr size_t kIpv4MinHeader = 20;
constexpr size_t kIpv6Header = 40;
// IPv6 extension headers walked before the transport header; a chain longer
// than this is treated as having no transport header.
constexpr int kMaxExtensionHeaders = 8;

uint16_t Read16(const uint8_t* bytes) {
    return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
}

}  // namespace

CPacketView::Parse CPacketView::Read(const uint8_t* bytes, size_t length) {
    *this = CPacketView();
    m_Bytes = bytes;
    m_Length = length;
    if (bytes == nullptr || length < 1) {
        return Parse::Truncated;
    }
    const int version = bytes[0] >> 4;
    size_t offset = 0;
    if (version == 4) {
        m_IpHeaderLength = static_cast<size_t>(bytes[0] & 0x0F) * 4;
        if (m_IpHeaderLength < kIpv4MinHeader) {
            return Parse::Malformed;
        }
        if (length < m_IpHeaderLength) {
            return Parse::Truncated;
        }
        m_AnnouncedLength = Read16(bytes + 2);
        if (m_AnnouncedLength < m_IpHeaderLength) {
            return Parse::Malformed;
        }
        m_Protocol = bytes[9];
        const bool laterFragment = (Read16(bytes + 6) & 0x1FFF) != 0;
        offset = laterFragment ? 0 : m_IpHeaderLength;
    } else if (version == 6) {
        m_Ipv6 = true;
        m_IpHeaderLength = kIpv6Header;
        if (length < kIpv6Header) {
            return Parse::Truncated;
        }
        m_AnnouncedLength = kIpv6Header + Read16(bytes + 4);
        uint8_t next = bytes[6];
        offset = kIpv6Header;
        for (int walked = 0; offset != 0; ++walked) {
            if (next != 0 && next != 43 && next != 60 && next != 44 && next != 51) {
                break;  // the transport header (or one this view does not walk)
            }
            if (walked == kMaxExtensionHeaders || offset + 8 > length) {
                return Parse::Truncated;
            }
            const uint8_t* const header = bytes + offset;
            size_t headerLength = (static_cast<size_t>(header[1]) + 1) * 8;
            if (next == 44) {
                headerLength = 8;
                if ((Read16(header + 2) & 0xFFF8) != 0) {
                    offset = 0;  // a later fragment: no transport header here
                }
            } else if (next == 51) {
                headerLength = (static_cast<size_t>(header[1]) + 2) * 4;
            }
            next = header[0];
            if (offset != 0) {
                offset += headerLength;
            }
        }
        m_Protocol = next;
    } else {
        return Parse::Malformed;
    }
    m_TransportOffset = offset;
    if (offset != 0) {
        const size_t end = m_AnnouncedLength < length ? m_AnnouncedLength : length;
        m_TransportLength = end > offset ? end - offset : 0;
    }
    return Parse::Ok;
}

bool CPacketView::TransportComplete() const {
    if (!HasTransportHeader()) {
        return false;
    }
    switch (m_Protocol) {
        case 6:
            return m_TransportLength >= 20 &&
                   m_TransportLength >= static_cast<size_t>(Transport()[12] >> 4) * 4;
        case 17:
        case 1:
        case 58:
            return m_TransportLength >= 8;
        default:
            return false;
    }
}

}  // namespace NORVI
