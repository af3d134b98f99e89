// The capture replay on the bundled sample capture and on captures cut short
// or damaged: records as the live receiver gives them, the ruleset's verdicts
// for the probes, the scan, the benign traffic and IPv6, other link types,
// and bad input counted.
#include <arpa/inet.h>

#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "driver/linux/RulesetVerdicts.h"
#include "log/DriverLogEntry.h"
#include "tests/TempFolder.h"
#include "tests/capture/CaptureFiles.h"
#include "tests/capture/Packets.h"

namespace {

using namespace capturetest;
using NORVI::SourceRecord;
using VEXIL::DriverLogEntry;

const std::string kData = std::string(VEXIL_SOURCE_DIR) + "/tests/data/";

const DriverLogEntry& Entry(const SourceRecord& record) {
    return *reinterpret_cast<const DriverLogEntry*>(record.m_Record);
}

std::string Address(const DriverLogEntry& entry, bool source) {
    char text[INET6_ADDRSTRLEN] = "";
    const uint8_t* const ipv4 = source ? entry.iph_src_bytes() : entry.iph_dest_bytes();
    inet_ntop(entry.isIpv4() ? AF_INET : AF_INET6,
              entry.isIpv4() ? ipv4 : entry.bytes + (source ? 128 : 144), text, sizeof text);
    return text;
}

// Each record is the packet as the live receiver gives it, with the ruleset's
// verdict for the probes, the scan, the benign traffic and IPv6.
TEST(CaptureReplay, TheSamplesRecordsAreItsPacketsWithTheRulesetsVerdicts) {
    const Replay replay = ReplayCapture(SampleOptions());
    ASSERT_TRUE(replay.m_Ended) << replay.m_Error;
    EXPECT_EQ(replay.m_Records.size(), replay.m_Counters.m_Records);
    EXPECT_EQ(0u, replay.m_Counters.m_Dropped);
    uint64_t previous = 0;
    std::map<uint32_t, int> byRule;
    std::vector<std::string> benign, ipv6;
    for (const SourceRecord& record : replay.m_Records) {
        const DriverLogEntry& entry = Entry(record);
        const std::string source = Address(entry, true);
        SCOPED_TRACE(source + " id " + std::to_string(entry.id()));
        const NORVI::RuleVerdict* const verdict = NORVI::FindRuleVerdict(entry.id());
        ASSERT_NE(nullptr, verdict);
        EXPECT_EQ(verdict->m_Action, entry.action());
        EXPECT_EQ(verdict->m_Reason, entry.reason());
        EXPECT_EQ(1u, entry.count());
        EXPECT_EQ(entry.firstTimeUsec(), entry.lastTimeUsec());
        EXPECT_LE(previous, entry.firstTimeUsec());
        previous = entry.firstTimeUsec();
        EXPECT_EQ(4u, entry.interface_index());
        EXPECT_TRUE(entry.isIncoming() && (entry.flags() & DriverLogEntry::kEthernetValid));
        EXPECT_EQ(entry.isIpv4() ? 0x0800 : 0x86DD, entry.eth_type());
        EXPECT_EQ(DriverLogEntry::kLogTrailingData, entry.log_flags());
        ASSERT_EQ(record.m_Data.size(), entry.data_len());
        EXPECT_EQ(record.m_Data.size(), entry.packet_data_len());
        EXPECT_EQ(record.m_Data, record.m_Packet);
        // The header copies are the packet's own bytes.
        const size_t ipLength = entry.isIpv4() ? (record.m_Data[0] & 0x0F) * 4u : 40u;
        EXPECT_EQ(0,
                  memcmp(entry.bytes + 120, record.m_Data.data(), std::min<size_t>(ipLength, 40)));
        EXPECT_EQ(entry.isIpv4() ? entry.iph_total_len()
                                 : 40u + (record.m_Data[4] << 8 | record.m_Data[5]),
                  entry.packet_len());
        ASSERT_TRUE(entry.hasTransport());
        EXPECT_EQ(0, memcmp(entry.bytes + 160, record.m_Data.data() + ipLength,
                            std::min<size_t>(record.m_Data.size() - ipLength, 20)));
        const std::string destination = Address(entry, false);
        EXPECT_TRUE(destination == "10.77.0.1" || destination == "fd77::1") << destination;
        ++byRule[entry.id()];
        // ICMP by its type: only echo requests are new; errors and replies
        // of the host's own traffic are related or established.
        const bool icmp = entry.protocol() == 1 || entry.protocol() == 58;
        const int port = icmp ? record.m_Data[entry.isIpv4() ? 20 : 40] : entry.th_dport();
        const std::string what = std::to_string(entry.protocol()) + ":" + std::to_string(port) +
                                 ":" + std::to_string(entry.id());
        if (source == "10.77.0.3" || source == "fd77::3") {
            benign.push_back(what);
        } else {
            EXPECT_TRUE(source == "10.77.0.2" || source == "fd77::2") << source;
            if (entry.isIpv6()) {
                ipv6.push_back(what);
            }
        }
    }
    // The first packet of each benign exchange alone: HTTP, DNS, TLS.
    EXPECT_EQ((std::vector<std::string>{"6:80:30", "17:53:30", "6:443:30"}), benign);
    // IPv6: the echo request and the SYN probes; neighbour discovery and
    // multicast listener reports make no record.
    EXPECT_EQ((std::vector<std::string>{"58:128:42", "6:80:30", "6:443:30", "6:22:40"}), ipv6);
    // The flag probes, the stray ACKs of OS detection, the SYN scans (ports 1
    // to 400 and more, all denied but 80 and 443), UDP and echo requests.
    EXPECT_EQ((std::map<uint32_t, int>{{NORVI::kRuleTcpNull, 8},
                                       {NORVI::kRuleTcpXmas, 9},
                                       {NORVI::kRuleTcpSynFin, 4},
                                       {NORVI::kRuleTcpNewNotSyn, 2},
                                       {NORVI::kRuleServiceAllowed, 15},
                                       {NORVI::kRuleDenyTcp, 1399},
                                       {NORVI::kRuleDenyUdp, 1},
                                       {NORVI::kRuleDenyIcmp, 3}}),
              byRule);
}

// The sample's IP frames under another link header: Linux cooked (v1, v2) or
// raw IP.
Frames Rewrapped(int linkType) {
    Frames sample, frames;
    ReadFrames(sample);
    for (Frame frame : sample) {
        const std::vector<uint8_t> bytes = frame.m_Bytes;
        if (bytes.size() < 14 || !((bytes[12] == 0x08 && bytes[13] == 0x00) ||
                                   (bytes[12] == 0x86 && bytes[13] == 0xDD))) {
            continue;
        }
        std::vector<uint8_t>& out = frame.m_Bytes;
        if (linkType == DLT_LINUX_SLL) {  // type, ARPHRD, address length, address, protocol
            out = {0, 0, 0, 1, 0, 6};
            out.insert(out.end(), bytes.begin() + 6, bytes.begin() + 12);
            out.insert(out.end(), {0, 0, bytes[12], bytes[13]});
        } else if (linkType == DLT_LINUX_SLL2) {  // protocol, reserved, index, ARPHRD, ...
            out = {bytes[12], bytes[13], 0, 0, 0, 0, 0, 4, 0, 1, 0, 6};
            out.insert(out.end(), bytes.begin() + 6, bytes.begin() + 12);
            out.insert(out.end(), {0, 0});
        } else {
            out.clear();
        }
        out.insert(out.end(), bytes.begin() + 14, bytes.end());
        frames.push_back(frame);
    }
    return frames;
}

TEST(CaptureReplay, LinuxCookedAndRawIpCapturesGiveTheSameRecordsWithoutEthernetFields) {
    const Replay sample = ReplayCapture(SampleOptions());
    TempFolder folder;
    for (int linkType : {DLT_LINUX_SLL, DLT_LINUX_SLL2, DLT_RAW}) {
        SCOPED_TRACE(linkType);
        const std::string path = folder.Path() + "/rewrapped.pcap";
        WriteCapture(path, linkType, Rewrapped(linkType));
        const Replay replay = ReplayCapture(SampleOptions(path));
        ASSERT_TRUE(replay.m_Ended) << replay.m_Error;
        ASSERT_EQ(sample.m_Records.size(), replay.m_Records.size());
        for (size_t index = 0; index < replay.m_Records.size(); ++index) {
            SourceRecord expected = sample.m_Records[index];
            expected.m_Record[38] &= ~DriverLogEntry::kEthernetValid;
            memset(expected.m_Record + 102, 0, 14);
            ASSERT_EQ(0, memcmp(expected.m_Record, replay.m_Records[index].m_Record, 192)) << index;
            ASSERT_EQ(expected.m_Data, replay.m_Records[index].m_Data);
        }
    }
}

// A raw IPv4 SYN from 10.77.0.9:40000 to 10.77.0.1:22, with tcpBytes of TCP
// and an IP header length field of headerWords.
std::vector<uint8_t> Ipv4Tcp(size_t tcpBytes = 20, uint8_t headerWords = 5) {
    std::vector<uint8_t> packet = packettest::Tcp("10.77.0.9", "10.77.0.1", 40000, 22, 0x02);
    packet.resize(20 + tcpBytes);
    packet[0] = uint8_t(0x40 | headerWords);
    packet[3] = uint8_t(20 + tcpBytes);
    return packet;
}

TEST(CaptureReplay, BadInputIsACountedDropAndOptionsThatCannotWorkAClearError) {
    TempFolder folder;
    const std::string crafted = folder.Path() + "/crafted.pcap";
    std::vector<uint8_t> cutIpv4 = Ipv4Tcp();
    cutIpv4.resize(12);
    std::vector<uint8_t> shortIpv6(30, 0);
    shortIpv6[0] = 0x60;
    std::vector<uint8_t> badVersion = Ipv4Tcp();
    badVersion[0] = 0x25;
    // Six malformed packets (the second header of 60 bytes in 40) and a SYN.
    WriteCapture(crafted, DLT_RAW,
                 {{cutIpv4},
                  {Ipv4Tcp(10)},
                  {Ipv4Tcp(20, 15)},
                  {shortIpv6},
                  {badVersion},
                  {Ipv4Tcp(20, 4)},
                  {Ipv4Tcp()}});
    const std::string shortEthernet = folder.Path() + "/short-ethernet.pcap";
    WriteCapture(shortEthernet, DLT_EN10MB, {{{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}}});
    const std::string notEthernet = folder.Path() + "/ppp.pcap";
    WriteCapture(notEthernet, DLT_PPP, {{Ipv4Tcp()}});
    NORVI::SourceOptions badHost = SampleOptions(), noHost = SampleOptions(),
                         badService = SampleOptions(), badSslHost = SampleOptions();
    badHost.m_HostAddresses = {"10.77.0.300"};
    noHost.m_HostAddresses.clear();
    badService.m_Services = "tcp:80,sctp:9";
    badSslHost.m_SslHosts = {{"server", 7}};

    struct Case {
        const char* m_Name;
        NORVI::SourceOptions m_Options;
        size_t m_Records;
        uint64_t m_Dropped;
        const char* m_Error;  // in the error of opening or reading; null: none
    };
    const Case cases[] = {
        {"six malformed packets and a SYN", SampleOptions(crafted), 1, 6, nullptr},
        {"an Ethernet frame shorter than its header", SampleOptions(shortEthernet), 0, 1, nullptr},
        // The first 40 frames of the sample as classic pcap: the benign HTTP,
        // DNS and TLS openings; then the same cut to 30 bytes a frame (38 IP
        // packets, 2 ARP).
        {"the first frames as classic pcap", SampleOptions(kData + "first-packets.pcap"), 3, 0,
         nullptr},
        {"packets cut to 30 bytes", SampleOptions(kData + "snapped.pcap"), 0, 38, nullptr},
        // The sample's first 3000 bytes: the first packets of HTTP and DNS.
        {"a capture cut off inside a block", SampleOptions(kData + "cut-short.pcapng"), 2, 0,
         "damaged capture file"},
        {"no capture at all", SampleOptions(kData + "not-a-capture.pcap"), 0, 0, "cannot be read"},
        {"no such file", SampleOptions(folder.Path() + "/missing.pcap"), 0, 0, "cannot be read"},
        {"a link type without IP framing known here", SampleOptions(notEthernet), 0, 0,
         "link type 9"},
        {"a bad host address", badHost, 0, 0, "host address \"10.77.0.300\""},
        {"no host address", noHost, 0, 0, "no host address"},
        {"a bad service", badService, 0, 0, "bad service \"sctp:9\""},
        {"a bad SSL host", badSslHost, 0, 0, "SSL host address \"server\""},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.m_Name);
        const Replay replay = ReplayCapture(test.m_Options);
        EXPECT_EQ(test.m_Records, replay.m_Records.size());
        EXPECT_EQ(test.m_Dropped, replay.m_Counters.m_Dropped);
        EXPECT_EQ(test.m_Error == nullptr, replay.m_Ended) << replay.m_Error;
        EXPECT_NE(std::string::npos, replay.m_Error.find(test.m_Error ? test.m_Error : ""))
            << replay.m_Error;
    }
}

}  // namespace
