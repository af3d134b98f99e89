#include "driver/linux/NflogParser.h"

#include <arpa/inet.h>
#include <endian.h>
#include <errno.h>
#include <libmnl/libmnl.h>
#include <libnetfilter_log/libnetfilter_log.h>
#include <linux/if_arp.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_log.h>
#include <string.h>

#include <algorithm>

#include "driver/linux/RulesetVerdicts.h"

namespace NORVI {

namespace {

// Fields of the 192-byte record that a packet filter verdict fills.
enum RecordOffset : size_t {
    kTimeSec = 0,
    kTimeUsec = 4,
    kAction = 20,
    kReason = 22,
    kRuleId = 24,
    kInterfaceIndex = 28,
    kFlags = 38,
    kInterfaceMacLen = 40,
    kInterfaceMac = 44,
    kPacketLen = 52,
    kPacketDataLen = 58,
    kDataLen = 76,
    kLogFlags = 84,
    kEndTimeSec = 88,
    kEndTimeUsec = 92,
    kCount = 96,
    kEthDest = 102,
    kEthSrc = 108,
    kEthType = 114,
    kIpHeader = 120,
    kTransportHeader = 160,
};
constexpr size_t kIpHeaderRoom = 40;
constexpr size_t kTransportRoom = 20;
constexpr uint16_t kFlagOutgoing = 0x01;
constexpr uint16_t kFlagEthernet = 0x08;
constexpr uint16_t kFlagIpv4 = 0x10;
constexpr uint16_t kFlagIpv6 = 0x20;
constexpr uint16_t kFlagTransport = 0x40;
constexpr uint16_t kLogFlagData = 0x02;

template <typename Value>
void Put(SourceRecord& record, size_t offset, Value value) {
    memcpy(record.m_Record + offset, &value, sizeof value);
}

// The bytes that a transport header must have for the record to show it.
size_t TransportMinimum(uint8_t protocol) {
    switch (protocol) {
        case IPPROTO_TCP:
            return 20;
        case IPPROTO_UDP:
        case IPPROTO_ICMP:
        case IPPROTO_ICMPV6:
            return 8;
        default:
            return 0;
    }
}

}  // namespace

CNflogParser::CNflogParser(MacLookup lookup, size_t maxPacketBytes)
    : m_Lookup(std::move(lookup)), m_MaxPacketBytes(std::min<size_t>(maxPacketBytes, 0xffff)) {}

void CNflogParser::Feed(const void* buffer, size_t length, const timeval& receiveTime,
                        std::deque<SourceRecord>& out) {
    m_ReceiveTime = receiveTime;
    m_Out = &out;
    if (mnl_cb_run(buffer, length, 0, 0, &CNflogParser::OnMessage, this) == MNL_CB_ERROR) {
        CountDropped(std::string("unreadable netlink message: ") + strerror(errno));
    }
    m_Out = nullptr;
}

void CNflogParser::CountDropped(const std::string& reason) {
    ++m_Counters.m_Dropped;
    m_LastDrop = reason;
}

int CNflogParser::OnMessage(const nlmsghdr* message, void* self) {
    CNflogParser& parser = *static_cast<CNflogParser*>(self);
    if (message->nlmsg_type != ((NFNL_SUBSYS_ULOG << 8) | NFULNL_MSG_PACKET)) {
        return MNL_CB_OK;  // acknowledgements and the like carry no record
    }
    parser.m_Out->emplace_back();
    memset(parser.m_Out->back().m_Record, 0, sizeof parser.m_Out->back().m_Record);
    if (parser.Build(message, parser.m_Out->back())) {
        ++parser.m_Counters.m_Records;
    } else {
        parser.m_Out->pop_back();
        ++parser.m_Counters.m_Dropped;
    }
    return MNL_CB_OK;
}

void CNflogParser::NoteSequence(uint32_t sequence) {
    if (sequence != m_NextSequence) {
        m_Counters.m_Gaps += static_cast<uint32_t>(sequence - m_NextSequence);
    }
    m_NextSequence = sequence + 1;
}

bool CNflogParser::Build(const nlmsghdr* message, SourceRecord& record) {
    nlattr* attributes[NFULA_MAX + 1] = {};
    if (mnl_nlmsg_get_payload_len(message) < sizeof(nfgenmsg) ||
        nflog_nlmsg_parse(message, attributes) < 0) {
        m_LastDrop = "malformed NFLOG message";
        return false;
    }
    if (attributes[NFULA_SEQ] != nullptr) {
        NoteSequence(ntohl(mnl_attr_get_u32(attributes[NFULA_SEQ])));
    }
    if (attributes[NFULA_PACKET_HDR] == nullptr || attributes[NFULA_PREFIX] == nullptr ||
        attributes[NFULA_PAYLOAD] == nullptr) {
        m_LastDrop = "NFLOG message without header, prefix or payload";
        return false;
    }
    int16_t action = 0;
    int16_t reason = 0;
    uint32_t ruleId = 0;
    const char* const prefix = mnl_attr_get_str(attributes[NFULA_PREFIX]);
    if (!ParseVerdictPrefix(prefix,
                            strnlen(prefix, mnl_attr_get_payload_len(attributes[NFULA_PREFIX])),
                            action, reason, ruleId)) {
        m_LastDrop = "NFLOG prefix is not a verdict of the ruleset";
        return false;
    }
    const uint8_t* const packet =
        static_cast<const uint8_t*>(mnl_attr_get_payload(attributes[NFULA_PAYLOAD]));
    const size_t packetLength = mnl_attr_get_payload_len(attributes[NFULA_PAYLOAD]);
    if (packetLength > m_MaxPacketBytes) {
        m_LastDrop = "NFLOG payload of " + std::to_string(packetLength) + " bytes is over " +
                     std::to_string(m_MaxPacketBytes);
        return false;
    }

    uint16_t flags = 0;
    size_t ipLength = 0;  // the IP header's own length
    uint8_t protocol = 0;
    uint32_t wireLength = static_cast<uint32_t>(packetLength);
    bool firstFragment = true;
    if (packetLength >= 20 && (packet[0] >> 4) == 4) {
        ipLength = static_cast<size_t>(packet[0] & 0x0f) * 4;
        if (ipLength < 20 || ipLength > packetLength) {
            m_LastDrop = "IPv4 header length out of bounds";
            return false;
        }
        flags |= kFlagIpv4;
        protocol = packet[9];
        uint16_t totalLength;
        uint16_t fragment;
        memcpy(&totalLength, packet + 2, 2);
        memcpy(&fragment, packet + 6, 2);
        firstFragment = (ntohs(fragment) & 0x1fff) == 0;
        wireLength = ntohs(totalLength) != 0 ? ntohs(totalLength) : wireLength;
    } else if (packetLength >= 40 && (packet[0] >> 4) == 6) {
        ipLength = 40;
        flags |= kFlagIpv6;
        protocol = packet[6];
        uint16_t payloadLength;
        memcpy(&payloadLength, packet + 4, 2);
        wireLength = ntohs(payloadLength) != 0 ? 40u + ntohs(payloadLength) : wireLength;
    } else {
        m_LastDrop = "NFLOG payload is no IP packet";
        return false;
    }
    memcpy(record.m_Record + kIpHeader, packet, std::min(ipLength, kIpHeaderRoom));
    const size_t transportMinimum = TransportMinimum(protocol);
    if (transportMinimum != 0 && firstFragment && packetLength - ipLength >= transportMinimum) {
        memcpy(record.m_Record + kTransportHeader, packet + ipLength,
               std::min(packetLength - ipLength, kTransportRoom));
        flags |= kFlagTransport;
    }

    const nfulnl_msg_packet_hdr* const header = static_cast<const nfulnl_msg_packet_hdr*>(
        mnl_attr_get_payload(attributes[NFULA_PACKET_HDR]));
    if (header->hook == NF_INET_LOCAL_OUT || header->hook == NF_INET_POST_ROUTING) {
        flags |= kFlagOutgoing;
    }
    if (attributes[NFULA_HWTYPE] != nullptr && attributes[NFULA_HWHEADER] != nullptr &&
        ntohs(mnl_attr_get_u16(attributes[NFULA_HWTYPE])) == ARPHRD_ETHER &&
        mnl_attr_get_payload_len(attributes[NFULA_HWHEADER]) >= 14) {
        const uint8_t* const ethernet =
            static_cast<const uint8_t*>(mnl_attr_get_payload(attributes[NFULA_HWHEADER]));
        memcpy(record.m_Record + kEthDest, ethernet, 6);
        memcpy(record.m_Record + kEthSrc, ethernet + 6, 6);
        memcpy(record.m_Record + kEthType, ethernet + 12, 2);
        flags |= kFlagEthernet;
    }

    uint32_t seconds = static_cast<uint32_t>(m_ReceiveTime.tv_sec);
    uint32_t microseconds = static_cast<uint32_t>(m_ReceiveTime.tv_usec);
    if (attributes[NFULA_TIMESTAMP] != nullptr) {
        const nfulnl_msg_packet_timestamp* const stamp =
            static_cast<const nfulnl_msg_packet_timestamp*>(
                mnl_attr_get_payload(attributes[NFULA_TIMESTAMP]));
        seconds = static_cast<uint32_t>(be64toh(stamp->sec));
        microseconds = static_cast<uint32_t>(be64toh(stamp->usec) % 1000000);
    }
    uint32_t interfaceIndex = 0;
    if (attributes[NFULA_IFINDEX_INDEV] != nullptr) {
        interfaceIndex = ntohl(mnl_attr_get_u32(attributes[NFULA_IFINDEX_INDEV]));
    } else if (attributes[NFULA_IFINDEX_OUTDEV] != nullptr) {
        interfaceIndex = ntohl(mnl_attr_get_u32(attributes[NFULA_IFINDEX_OUTDEV]));
    }
    uint8_t mac[8] = {};
    const uint32_t macLength =
        interfaceIndex != 0 && m_Lookup ? std::min<uint32_t>(m_Lookup(interfaceIndex, mac), 8) : 0;

    Put<uint32_t>(record, kTimeSec, seconds);
    Put<uint32_t>(record, kTimeUsec, microseconds);
    Put<uint32_t>(record, kEndTimeSec, seconds);
    Put<uint32_t>(record, kEndTimeUsec, microseconds);
    Put<int16_t>(record, kAction, action);
    Put<int16_t>(record, kReason, reason);
    Put<uint32_t>(record, kRuleId, ruleId);
    Put<uint32_t>(record, kInterfaceIndex, interfaceIndex);
    Put<uint16_t>(record, kFlags, flags);
    Put<uint32_t>(record, kInterfaceMacLen, macLength);
    memcpy(record.m_Record + kInterfaceMac, mac, sizeof mac);
    Put<uint32_t>(record, kPacketLen, wireLength);
    Put<uint16_t>(record, kPacketDataLen, static_cast<uint16_t>(packetLength));
    Put<uint16_t>(record, kDataLen, static_cast<uint16_t>(packetLength));
    Put<uint16_t>(record, kLogFlags, kLogFlagData);
    Put<uint32_t>(record, kCount, 1);
    record.m_Data.assign(packet, packet + packetLength);
    record.m_Packet = record.m_Data;
    return true;
}

}  // namespace NORVI
