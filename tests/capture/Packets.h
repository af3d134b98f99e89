// Raw IPv4 and IPv6 packets for the tests of the record sources (addresses
// are text, the version follows from them), and the fields of their records.
#pragma once

#include <arpa/inet.h>
#include <string.h>

#include <vector>

namespace packettest {

using Bytes = std::vector<uint8_t>;

inline Bytes Ip(const char* source, const char* destination, uint8_t protocol,
                const Bytes& payload) {
    const bool ipv6 = strchr(source, ':') != nullptr;
    Bytes packet(ipv6 ? 40 : 20, 0);
    if (ipv6) {
        packet[0] = 0x60;
        packet[4] = uint8_t(payload.size() >> 8);
        packet[5] = uint8_t(payload.size());
        packet[6] = protocol;
        inet_pton(AF_INET6, source, &packet[8]);
        inet_pton(AF_INET6, destination, &packet[24]);
    } else {
        packet[0] = 0x45;
        packet[2] = uint8_t((20 + payload.size()) >> 8);
        packet[3] = uint8_t(20 + payload.size());
        packet[9] = protocol;
        inet_pton(AF_INET, source, &packet[12]);
        inet_pton(AF_INET, destination, &packet[16]);
    }
    packet.insert(packet.end(), payload.begin(), payload.end());
    return packet;
}

inline Bytes Tcp(const char* source, const char* destination, uint16_t sport, uint16_t dport,
                 uint8_t flags, uint32_t seq = 0, const Bytes& payload = {}) {
    Bytes tcp(20, 0);
    for (int byte = 0; byte < 4; ++byte) {
        tcp[byte] = uint8_t((byte < 2 ? sport : dport) >> (byte % 2 == 0 ? 8 : 0));
        tcp[4 + byte] = uint8_t(seq >> (24 - 8 * byte));
    }
    tcp[12] = 0x50;
    tcp[13] = flags;
    tcp[14] = tcp[15] = 0xFF;  // window
    tcp.insert(tcp.end(), payload.begin(), payload.end());
    return Ip(source, destination, 6, tcp);
}

inline Bytes Udp(const char* source, const char* destination, uint16_t sport, uint16_t dport) {
    return Ip(
        source, destination, 17,
        {uint8_t(sport >> 8), uint8_t(sport), uint8_t(dport >> 8), uint8_t(dport), 0, 8, 0, 0});
}

// An ICMP (or ICMPv6) message of type with identifier 7, or quoting a packet.
inline Bytes Icmp(const char* source, const char* destination, uint8_t type,
                  const Bytes& quoted = {}) {
    Bytes icmp = {type, 0, 0, 0, 0, 7, 0, 1};
    icmp.insert(icmp.end(), quoted.begin(), quoted.end());
    return Ip(source, destination, strchr(source, ':') ? 58 : 1, icmp);
}

// The field of type Value at offset of a record (a SourceRecord).
template <typename Value, typename Record>
Value Field(const Record& record, size_t offset) {
    Value value;
    memcpy(&value, record.m_Record + offset, sizeof value);
    return value;
}

}  // namespace packettest
