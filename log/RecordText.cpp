#include "log/RecordText.h"

#include "host/TextHelpers.h"

namespace VEXIL {

const char* const kTcpFlagWords[8] = {"CWR", "ECE", "URG", "ACK", "PSH", "RST", "SYN", "FIN"};

void AddressText(char* buffer, size_t size, const DriverLogEntry* record, bool source) {
    if (record->isIpv4()) {
        const u8* b = source ? record->iph_src_bytes() : record->iph_dest_bytes();
        snprintfcat(buffer, size, "%d.%d.%d.%d", b[0], b[1], b[2], b[3]);
    } else if (record->isIpv6()) {
        u16 g[8];
        for (int i = 0; i < 8; ++i) {
            g[i] = source ? record->ipv6h_src(i) : record->ipv6h_dest(i);
        }
        snprintfcat(buffer, size, "%hx:%hx:%hx:%hx:%hx:%hx:%hx:%hx", g[0], g[1], g[2], g[3], g[4],
                    g[5], g[6], g[7]);
    }
}

FragmentBits FragmentBitsOf(const DriverLogEntry* record) {
    const u16 fragment = record->iph_frag_off();
    return {(fragment & DriverLogEntry::kDontFragment) != 0,
            (fragment & DriverLogEntry::kMoreFragments) != 0, u16(fragment * 8)};
}

void ProtocolText(char* buffer, size_t size, const DriverLogEntry* record) {
    if (!record->hasProtocol()) {
        return;
    }
    const u8 protocol = record->protocol();
    switch (protocol) {
        case DriverLogEntry::kProtocolIcmp:
            strcat_safe(buffer, size, "ICMP");
            break;
        case 2:
            strcat_safe(buffer, size, "IGMP");
            break;
        case 3:
            strcat_safe(buffer, size, "GGP");
            break;
        case DriverLogEntry::kProtocolTcp:
            strcat_safe(buffer, size, "TCP");
            break;
        case 12:
            strcat_safe(buffer, size, "PUP");
            break;
        case DriverLogEntry::kProtocolUdp:
            strcat_safe(buffer, size, "UDP");
            break;
        case 22:
            strcat_safe(buffer, size, "IDP");
            break;
        case DriverLogEntry::kProtocolIcmpv6:
            strcat_safe(buffer, size, "ICMPv6");
            break;
        case 77:
            strcat_safe(buffer, size, "ND");
            break;
        default:
            snprintfcat(buffer, size, "%d", protocol);
            break;
    }
}

void TcpFlagsText(char* buffer, size_t size, const DriverLogEntry* record) {
    const u8 flags = record->tcph_flags();
    for (int bit = 0; bit < 8; ++bit) {
        if (flags & (0x80 >> bit)) {
            strcat_safe(buffer, size, kTcpFlagWords[bit]);
            strcat_safe(buffer, size, " ");
        }
    }
}

void FrameTypeText(char* buffer, size_t size, u16 ethType) {
    switch (ethType) {
        case 0x0800:
            strcat_safe(buffer, size, "IP");
            break;
        case 0x0806:
            strcat_safe(buffer, size, "ARP");
            break;
        case 0x8035:
            strcat_safe(buffer, size, "RevARP");
            break;
        case 0x8191:
            strcat_safe(buffer, size, "NetBEUI");
            break;
        case 0x86DD:
            strcat_safe(buffer, size, "IPv6");
            break;
        default:
            snprintfcat(buffer, size, "%#x", ethType);
            break;
    }
}

u32 PrintedLogFlags(u16 logFlags) {
    u32 printed = 0;
    if (logFlags & 0x08)
        printed |= 1;
    if (logFlags & 0x10)
        printed |= 2;
    if (logFlags & 0x20)
        printed |= 4;
    if (logFlags & 0x02)
        printed |= 8;
    if (logFlags & 0x04)
        printed |= 16;
    if (logFlags & 0x01)
        printed |= 32;
    return printed;
}

}  // namespace VEXIL
