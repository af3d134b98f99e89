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
#include "driver/record/RecordBuilder.h"
#include "host/NorviRecord.h"

namespace NORVI {

CNflogParser::CNflogParser(MacLookup lookup, size_t maxPacketBytes)
    : m_Lookup(std::move(lookup)),
      m_MaxPacketBytes(std::min(maxPacketBytes, Record::kTrailingDataMax)) {}

void CNflogParser::Feed(const void* buffer, size_t length, const timeval& receiveTime,
                        std::deque<SourceRecord>& out) {
    m_ReceiveTime = receiveTime;
    m_Out = &out;
    // libmnl compares a message's length with what is left as signed ints, so
    // a length of 2 GiB or more would pass its check and be read: the messages
    // are bounded here first, and those from an overrunning one on dropped.
    const size_t whole = WholeMessages(buffer, length);
    if (mnl_cb_run(buffer, whole, 0, 0, &CNflogParser::OnMessage, this) == MNL_CB_ERROR) {
        CountDropped(std::string("unreadable netlink message: ") + strerror(errno));
    }
    if (whole != length) {
        CountDropped("netlink message longer than the " + std::to_string(length - whole) +
                     " bytes left of the read");
    }
    m_Out = nullptr;
}

size_t CNflogParser::WholeMessages(const void* buffer, size_t length) {
    size_t offset = 0;
    while (length - offset >= sizeof(nlmsghdr)) {
        nlmsghdr header;
        memcpy(&header, static_cast<const uint8_t*>(buffer) + offset, sizeof header);
        if (header.nlmsg_len < sizeof header || header.nlmsg_len > length - offset) {
            return offset;
        }
        offset = std::min<size_t>(length, offset + NLMSG_ALIGN(header.nlmsg_len));
    }
    return length;
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

    PacketEvent event;
    event.m_Packet = packet;
    event.m_CapturedLength = packetLength;
    event.m_Action = action;
    event.m_Reason = reason;
    event.m_RuleId = ruleId;

    const nfulnl_msg_packet_hdr* const header = static_cast<const nfulnl_msg_packet_hdr*>(
        mnl_attr_get_payload(attributes[NFULA_PACKET_HDR]));
    event.m_Outgoing = header->hook == NF_INET_LOCAL_OUT || header->hook == NF_INET_POST_ROUTING;
    if (attributes[NFULA_HWTYPE] != nullptr && attributes[NFULA_HWHEADER] != nullptr &&
        ntohs(mnl_attr_get_u16(attributes[NFULA_HWTYPE])) == ARPHRD_ETHER &&
        mnl_attr_get_payload_len(attributes[NFULA_HWHEADER]) >= 14) {
        event.m_Ethernet =
            static_cast<const uint8_t*>(mnl_attr_get_payload(attributes[NFULA_HWHEADER]));
    }
    // The output hook never has a time stamp: the time of receipt stands in.
    event.m_TimeSec = static_cast<uint32_t>(m_ReceiveTime.tv_sec);
    event.m_TimeUsec = static_cast<uint32_t>(m_ReceiveTime.tv_usec);
    if (attributes[NFULA_TIMESTAMP] != nullptr) {
        // Netlink aligns attributes to 4 bytes only: copied out, not cast.
        nfulnl_msg_packet_timestamp stamp;
        memcpy(&stamp, mnl_attr_get_payload(attributes[NFULA_TIMESTAMP]), sizeof stamp);
        event.m_TimeSec = static_cast<uint32_t>(be64toh(stamp.sec));
        event.m_TimeUsec = static_cast<uint32_t>(be64toh(stamp.usec) % 1000000);
    }
    if (attributes[NFULA_IFINDEX_INDEV] != nullptr) {
        event.m_InterfaceIndex = ntohl(mnl_attr_get_u32(attributes[NFULA_IFINDEX_INDEV]));
    } else if (attributes[NFULA_IFINDEX_OUTDEV] != nullptr) {
        event.m_InterfaceIndex = ntohl(mnl_attr_get_u32(attributes[NFULA_IFINDEX_OUTDEV]));
    }
    uint8_t mac[8] = {};
    if (event.m_InterfaceIndex != 0 && m_Lookup) {
        event.m_InterfaceMacLength = m_Lookup(event.m_InterfaceIndex, mac);
        event.m_InterfaceMac = event.m_InterfaceMacLength != 0 ? mac : nullptr;
    }
    if (!BuildPacketRecord(event, record)) {
        m_LastDrop = "NFLOG payload holds no complete IP header";
        return false;
    }
    return true;
}

}  // namespace NORVI
