// NFLOG messages into records, from messages made here byte by byte: what a
// good message gives, and that every malformed one is a counted drop.
#include <arpa/inet.h>
#include <endian.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/if_arp.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_log.h>
#include <string.h>

#include <deque>
#include <string>
#include <vector>

#include "driver/linux/NflogParser.h"
#include "driver/linux/RulesetVerdicts.h"
#include "tests/capture/Packets.h"

namespace {

using NORVI::CNflogParser;
using NORVI::SourceRecord;
using packettest::Field;

// One NFLOG packet message, as the kernel would send it.
struct Message {
    uint8_t m_Hook = NF_INET_LOCAL_IN;
    const char* m_Prefix = "vx:2:101:12";
    // An Xmas probe from 192.0.2.7:4321 to 198.51.100.2:80.
    std::vector<uint8_t> m_Packet = packettest::Tcp("192.0.2.7", "198.51.100.2", 4321, 80, 0x29);
    int64_t m_Stamp = 1700000000;  // -1: none
    uint32_t m_Sequence = 0;
    bool m_Ethernet = true;

    std::vector<uint8_t> Bytes() const {
        std::vector<uint8_t> buffer(MNL_SOCKET_BUFFER_SIZE + m_Packet.size());
        nlmsghdr* const message = mnl_nlmsg_put_header(buffer.data());
        message->nlmsg_type = (NFNL_SUBSYS_ULOG << 8) | NFULNL_MSG_PACKET;
        nfgenmsg* const family =
            static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(nfgenmsg)));
        family->nfgen_family = AF_INET;
        nfulnl_msg_packet_hdr header = {htons(0x0800), m_Hook, 0};
        mnl_attr_put(message, NFULA_PACKET_HDR, sizeof header, &header);
        if (m_Prefix != nullptr) {
            mnl_attr_put_strz(message, NFULA_PREFIX, m_Prefix);
        }
        mnl_attr_put_u32(message,
                         m_Hook == NF_INET_LOCAL_OUT ? NFULA_IFINDEX_OUTDEV : NFULA_IFINDEX_INDEV,
                         htonl(3));
        if (m_Stamp >= 0) {
            nfulnl_msg_packet_timestamp stamp = {htobe64(static_cast<uint64_t>(m_Stamp)),
                                                 htobe64(250000)};
            mnl_attr_put(message, NFULA_TIMESTAMP, sizeof stamp, &stamp);
        }
        if (m_Ethernet) {
            const uint8_t ethernet[14] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 0x08, 0x00};
            mnl_attr_put_u16(message, NFULA_HWTYPE, htons(ARPHRD_ETHER));
            mnl_attr_put(message, NFULA_HWHEADER, sizeof ethernet, ethernet);
        }
        mnl_attr_put_u32(message, NFULA_SEQ, htonl(m_Sequence));
        mnl_attr_put(message, NFULA_PAYLOAD, m_Packet.size(), m_Packet.data());
        buffer.resize(message->nlmsg_len);
        return buffer;
    }
};

class NflogParserTest : public ::testing::Test {
protected:
    NflogParserTest()
        : m_Parser(
              [](uint32_t index, uint8_t* mac) -> uint32_t {
                  if (index != 3) {
                      return 0;
                  }
                  memcpy(mac, "\x02\x00\x5e\x10\x20\x30", 6);
                  return 6;
              },
              100) {}

    std::deque<SourceRecord> Feed(const std::vector<uint8_t>& bytes) {
        std::deque<SourceRecord> records;
        m_Parser.Feed(bytes.data(), bytes.size(), m_Now, records);
        return records;
    }

    CNflogParser m_Parser;
    timeval m_Now = {1800000000, 123456};
};

TEST_F(NflogParserTest, InboundAndOutboundMessagesBecomeRecordsOfTheirVerdicts) {
    const std::deque<SourceRecord> records = Feed(Message().Bytes());
    ASSERT_EQ(1u, records.size());
    const SourceRecord& record = records[0];
    EXPECT_EQ(1700000000u, Field<uint32_t>(record, 0));
    EXPECT_EQ(250000u, Field<uint32_t>(record, 4));
    EXPECT_EQ(2, Field<int16_t>(record, 20));
    EXPECT_EQ(101, Field<int16_t>(record, 22));
    EXPECT_EQ(NORVI::kRuleTcpXmas, Field<uint32_t>(record, 24));
    EXPECT_EQ(3u, Field<uint32_t>(record, 28));
    EXPECT_EQ(0x08 | 0x10 | 0x40, Field<uint16_t>(record, 38));
    EXPECT_EQ(6u, Field<uint32_t>(record, 40));
    EXPECT_EQ(0, memcmp(record.m_Record + 44, "\x02\x00\x5e\x10\x20\x30\x00\x00", 8));
    EXPECT_EQ(0, memcmp(record.m_Record + 102,
                        "\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x08\x00", 14));
    EXPECT_EQ(40u, Field<uint32_t>(record, 52));
    EXPECT_EQ(0x29, record.m_Record[173]);
    EXPECT_EQ(1u, Field<uint32_t>(record, 96));
    EXPECT_EQ(Message().m_Packet, record.m_Data);
    EXPECT_EQ(1u, m_Parser.Counters().m_Records);
    // Outbound: the direction bit, and the time of receipt for want of a stamp.
    Message outbound;
    outbound.m_Hook = NF_INET_LOCAL_OUT;
    outbound.m_Stamp = -1;
    outbound.m_Ethernet = false;
    outbound.m_Prefix = "vx:2:0:3";
    const std::deque<SourceRecord> out = Feed(outbound.Bytes());
    ASSERT_EQ(1u, out.size());
    EXPECT_EQ(0x01 | 0x10 | 0x40, Field<uint16_t>(out[0], 38));
    EXPECT_EQ(1800000000u, Field<uint32_t>(out[0], 0));
    EXPECT_EQ(123456u, Field<uint32_t>(out[0], 4));
    EXPECT_EQ(1800000000u, Field<uint32_t>(out[0], 88));
    EXPECT_EQ(3u, Field<uint32_t>(out[0], 28));
}

// Bad payloads, prefixes that are missing, foreign or out of shape, and
// lengths that overrun the buffer (never read).
TEST_F(NflogParserTest, MalformedMessagesAreCountedDropsWithAReason) {
    std::vector<Message> cases(5);
    cases[0].m_Packet = packettest::Tcp("192.0.2.7", "198.51.100.2", 4321, 80, 0x02, 0,
                                        std::vector<uint8_t>(61));  // longer than the parser keeps
    cases[1].m_Packet[0] = 0x4f, cases[1].m_Packet.resize(30);  // header longer than the payload
    cases[2].m_Packet[0] = 0x55;                                // not IP
    cases[3].m_Packet.clear();
    cases[4].m_Prefix = nullptr;
    for (const char* prefix :
         {"IN=eth0 ", "vx:2:101:99999999999", "vx:", "vx:1:2", "vx:1:2:3:", "vx:1::3", "vx:128:0:1",
          "vx:1:2:3x", "vx:1:32768:1", "xv:1:2:3", "vx:-1:2:3"}) {
        cases.emplace_back();
        cases.back().m_Prefix = prefix;
    }
    for (size_t index = 0; index < cases.size(); ++index) {
        const uint64_t before = m_Parser.Counters().m_Dropped;
        EXPECT_TRUE(Feed(cases[index].Bytes()).empty()) << index;
        EXPECT_EQ(before + 1, m_Parser.Counters().m_Dropped) << index;
        EXPECT_FALSE(m_Parser.LastDrop().empty()) << index;
    }
    std::vector<uint8_t> bytes = Message().Bytes();
    // An attribute that claims more than its message holds.
    std::vector<uint8_t> attribute = bytes;
    nlattr* const last = reinterpret_cast<nlattr*>(attribute.data() + sizeof(nlmsghdr) +
                                                   MNL_ALIGN(sizeof(nfgenmsg)));
    last->nla_len = 0xfff0;
    EXPECT_TRUE(Feed(attribute).empty());
    // A message that claims more than the read gave, and a cut buffer.
    std::vector<uint8_t> message = bytes;
    reinterpret_cast<nlmsghdr*>(message.data())->nlmsg_len = 0xffff;
    EXPECT_TRUE(Feed(message).empty());
    // One that claims 2 GiB or more (libmnl takes the length as signed)
    // behind a good one, which still counts.
    std::vector<uint8_t> two = bytes;
    two.insert(two.end(), bytes.begin(), bytes.end());
    reinterpret_cast<nlmsghdr*>(two.data() + bytes.size())->nlmsg_len = 0x80000000;
    const uint64_t dropped = m_Parser.Counters().m_Dropped;
    EXPECT_EQ(1u, Feed(two).size());
    EXPECT_EQ(dropped + 1, m_Parser.Counters().m_Dropped);
    bytes.resize(bytes.size() / 2);
    EXPECT_TRUE(Feed(bytes).empty());
    EXPECT_EQ(1u, m_Parser.Counters().m_Records);
}

TEST_F(NflogParserTest, HolesInTheSequenceNumbersAreCountedAsGaps) {
    for (uint32_t sequence : {0u, 1u, 5u, 6u, 9u}) {
        Message message;
        message.m_Sequence = sequence;
        EXPECT_EQ(1u, Feed(message.Bytes()).size());
    }
    EXPECT_EQ(5u, m_Parser.Counters().m_Records);
    EXPECT_EQ(5u, m_Parser.Counters().m_Gaps);
}

}  // namespace
