// The capture replay on the bundled sample capture and on captures cut short
// or damaged: records field by field, the ruleset's verdicts for the probes,
// the scan, the benign traffic, related ICMP and IPv6, and bad input counted.
#include <arpa/inet.h>
#include <pcap/pcap.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "driver/capture/CaptureSource.h"
#include "driver/linux/RulesetVerdicts.h"
#include "log/DriverLogEntry.h"
#include "tests/TempFolder.h"

namespace {

using NORVI::SourceOptions;
using NORVI::SourceRecord;
using VEXIL::DriverLogEntry;

const std::string kSample = std::string(VEXIL_SOURCE_DIR) + "/examples/capture/sample.pcapng";
const std::string kData = std::string(VEXIL_SOURCE_DIR) + "/tests/data/";

struct Replay {
    std::vector<SourceRecord> m_Records;
    NORVI::SourceCounters m_Counters;
    std::string m_Error;  // of opening, or of the read that ended the replay
    bool m_Ended = false;
};

SourceOptions SampleOptions(const std::string& path = kSample) {
    SourceOptions options;
    options.m_CapturePath = path;
    options.m_HostAddresses = {"10.77.0.1", "fd77::1"};
    options.m_Services = "tcp:80,tcp:443,udp:53";
    options.m_InterfaceIndex = 4;
    return options;
}

Replay ReplayCapture(const SourceOptions& options) {
    Replay replay;
    auto source = NORVI::CreateCaptureSource(options, replay.m_Error);
    if (source == nullptr) {
        return replay;
    }
    for (;;) {
        SourceRecord record;
        const auto result = source->Next(record, 0);
        if (result == NORVI::CRecordSource::ReadResult::Record) {
            replay.m_Records.push_back(record);
            continue;
        }
        replay.m_Ended = result == NORVI::CRecordSource::ReadResult::End;
        if (!replay.m_Ended) {
            replay.m_Error = source->LastError();
        }
        break;
    }
    replay.m_Counters = source->Counters();
    return replay;
}

const DriverLogEntry& Entry(const SourceRecord& record) {
    return *reinterpret_cast<const DriverLogEntry*>(record.m_Record);
}

std::string Source(const DriverLogEntry& entry) {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(entry.isIpv4() ? AF_INET : AF_INET6,
              entry.isIpv4() ? entry.iph_src_bytes() : entry.bytes + 128, text, sizeof text);
    return text;
}

std::string Destination(const DriverLogEntry& entry) {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(entry.isIpv4() ? AF_INET : AF_INET6,
              entry.isIpv4() ? entry.iph_dest_bytes() : entry.bytes + 144, text, sizeof text);
    return text;
}

class SampleReplay : public ::testing::Test {
protected:
    static void SetUpTestSuite() { s_Replay = new Replay(ReplayCapture(SampleOptions())); }
    static void TearDownTestSuite() { delete s_Replay; }
    static Replay* s_Replay;
};

Replay* SampleReplay::s_Replay = nullptr;

TEST_F(SampleReplay, EveryRecordIsThePacketAsTheLiveReceiverGivesIt) {
    const Replay& replay = *s_Replay;
    ASSERT_TRUE(replay.m_Ended) << replay.m_Error;
    ASSERT_FALSE(replay.m_Records.empty());
    EXPECT_EQ(replay.m_Records.size(), replay.m_Counters.m_Records);
    EXPECT_EQ(0u, replay.m_Counters.m_Dropped);
    uint64_t previous = 0;
    for (const SourceRecord& record : replay.m_Records) {
        const DriverLogEntry& entry = Entry(record);
        SCOPED_TRACE(Source(entry) + " > " + Destination(entry) + " id " +
                     std::to_string(entry.id()));
        const NORVI::RuleVerdict* const verdict = NORVI::FindRuleVerdict(entry.id());
        ASSERT_NE(nullptr, verdict);
        EXPECT_EQ(verdict->m_Action, entry.action());
        EXPECT_EQ(verdict->m_Reason, entry.reason());
        EXPECT_EQ(1u, entry.count());
        EXPECT_EQ(entry.firstTimeUsec(), entry.lastTimeUsec());
        EXPECT_LE(previous, entry.firstTimeUsec());
        previous = entry.firstTimeUsec();
        EXPECT_EQ(4u, entry.interface_index());
        EXPECT_TRUE(entry.isIncoming());
        EXPECT_TRUE(entry.flags() & DriverLogEntry::kEthernetValid);
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
        // Everything logged is inbound to the host.
        EXPECT_TRUE(Destination(entry) == "10.77.0.1" || Destination(entry) == "fd77::1");
    }
}

TEST_F(SampleReplay, ProbesScanBenignTrafficRelatedIcmpAndIpv6GetTheRulesetsVerdicts) {
    std::map<uint32_t, int> byRule;
    std::set<uint16_t> deniedPorts;
    std::vector<std::string> benign;
    std::vector<std::string> ipv6;
    for (const SourceRecord& record : s_Replay->m_Records) {
        const DriverLogEntry& entry = Entry(record);
        const std::string source = Source(entry);
        const uint8_t protocol = entry.protocol();
        ++byRule[entry.id()];
        SCOPED_TRACE(source + " flags " + std::to_string(entry.tcph_flags()) + " port " +
                     std::to_string(entry.th_dport()));
        if (source == "10.77.0.3" || source == "fd77::3") {
            benign.push_back(std::to_string(protocol) + ":" + std::to_string(entry.th_dport()) +
                             ":" + std::to_string(entry.id()));
            continue;
        }
        EXPECT_TRUE(source == "10.77.0.2" || source == "fd77::2");
        if (protocol == 6) {
            const uint8_t flags = entry.tcph_flags() & 0x3F;
            // The flag rules, in their order, whatever the connection.
            const std::vector<std::pair<bool, uint32_t>> rules = {
                {flags == 0, NORVI::kRuleTcpNull},
                {(flags & 0x29) == 0x29, NORVI::kRuleTcpXmas},
                {(flags & 0x03) == 0x03, NORVI::kRuleTcpSynFin},
            };
            bool matched = false;
            for (const auto& rule : rules) {
                if (!matched && rule.first) {
                    EXPECT_EQ(rule.second, entry.id());
                    matched = true;
                }
            }
            if (!matched && flags == 0x02) {
                const bool allowed = entry.th_dport() == 80 || entry.th_dport() == 443;
                EXPECT_EQ(allowed ? NORVI::kRuleServiceAllowed : NORVI::kRuleDenyTcp, entry.id());
                if (!allowed && entry.isIpv4() && entry.th_dport() <= 400) {
                    deniedPorts.insert(entry.th_dport());
                }
                if (entry.isIpv6()) {
                    ipv6.push_back(std::to_string(entry.th_dport()) + ":" +
                                   std::to_string(entry.id()));
                }
            } else if (!matched) {
                // OS detection's ACK probes and stray answers: out of any connection.
                EXPECT_TRUE(entry.id() == NORVI::kRuleTcpNewNotSyn ||
                            entry.id() == NORVI::kRuleConntrackInvalid)
                    << entry.id();
            }
        } else if (protocol == 1 || protocol == 58) {
            // Echo requests are new and denied; errors and replies of the
            // host's own traffic are related or established and never logged.
            EXPECT_EQ(protocol == 1 ? 8 : 128, record.m_Data[entry.isIpv4() ? 20 : 40]);
            EXPECT_EQ(NORVI::kRuleDenyIcmp, entry.id());
            if (entry.isIpv6()) {
                ipv6.push_back("echo:" + std::to_string(entry.id()));
            }
        } else {
            EXPECT_EQ(17, protocol);
            EXPECT_EQ(NORVI::kRuleDenyUdp, entry.id());
        }
    }
    // The first packet of each benign exchange alone: HTTP, DNS, TLS.
    EXPECT_EQ((std::vector<std::string>{"6:80:30", "17:53:30", "6:443:30"}), benign);
    // The SYN scan of ports 1 to 400 met every port but the allowed 80.
    EXPECT_EQ(399u, deniedPorts.size());
    // IPv6: the echo request and the SYN probes; neighbour discovery and
    // multicast listener reports make no record.
    std::sort(ipv6.begin(), ipv6.end());
    EXPECT_EQ((std::vector<std::string>{"22:40", "443:30", "80:30", "echo:42"}), ipv6);
    EXPECT_GE(byRule[NORVI::kRuleTcpXmas], 3);
    EXPECT_GE(byRule[NORVI::kRuleTcpNull], 3);
    EXPECT_GE(byRule[NORVI::kRuleTcpSynFin], 3);
    EXPECT_GE(byRule[NORVI::kRuleDenyIcmp], 3);
}

// Writes frames of a link type into a classic pcap at path.
void WriteCapture(const std::string& path, int linkType,
                  const std::vector<std::vector<uint8_t>>& frames) {
    pcap_t* const dead = pcap_open_dead(linkType, 65535);
    pcap_dumper_t* const dumper = pcap_dump_open(dead, path.c_str());
    ASSERT_NE(nullptr, dumper) << pcap_geterr(dead);
    uint32_t second = 1700000000;
    for (const auto& frame : frames) {
        pcap_pkthdr header{};
        header.ts.tv_sec = second++;
        header.caplen = header.len = static_cast<bpf_u_int32>(frame.size());
        pcap_dump(reinterpret_cast<u_char*>(dumper), &header, frame.data());
    }
    pcap_dump_close(dumper);
    pcap_close(dead);
}

// The sample's frames under another link header: Linux cooked (v1, v2) or raw
// IP, from the Ethernet frames that carry IP.
std::vector<std::vector<uint8_t>> Rewrapped(int linkType) {
    std::vector<std::vector<uint8_t>> frames;
    char reason[PCAP_ERRBUF_SIZE];
    pcap_t* const pcap = pcap_open_offline(kSample.c_str(), reason);
    EXPECT_NE(nullptr, pcap) << reason;
    pcap_pkthdr* header;
    const u_char* bytes;
    while (pcap != nullptr && pcap_next_ex(pcap, &header, &bytes) == 1) {
        const bool ip = header->caplen >= 14 && ((bytes[12] == 0x08 && bytes[13] == 0x00) ||
                                                 (bytes[12] == 0x86 && bytes[13] == 0xDD));
        if (!ip) {
            continue;
        }
        std::vector<uint8_t> frame;
        if (linkType == DLT_LINUX_SLL) {  // type, ARPHRD, address length, address, protocol
            frame = {0, 0, 0, 1, 0, 6};
            frame.insert(frame.end(), bytes + 6, bytes + 12);
            frame.insert(frame.end(), {0, 0, bytes[12], bytes[13]});
        } else if (linkType == DLT_LINUX_SLL2) {  // protocol, reserved, index, ARPHRD, ...
            frame = {bytes[12], bytes[13], 0, 0, 0, 0, 0, 4, 0, 1, 0, 6};
            frame.insert(frame.end(), bytes + 6, bytes + 12);
            frame.insert(frame.end(), {0, 0});
        }
        frame.insert(frame.end(), bytes + 14, bytes + header->caplen);
        frames.push_back(frame);
    }
    if (pcap != nullptr) {
        pcap_close(pcap);
    }
    return frames;
}

TEST_F(SampleReplay, LinuxCookedAndRawIpCapturesGiveTheSameRecordsWithoutEthernetFields) {
    TempFolder folder;
    for (int linkType : {DLT_LINUX_SLL, DLT_LINUX_SLL2, DLT_RAW}) {
        SCOPED_TRACE(linkType);
        const std::string path = folder.Path() + "/rewrapped.pcap";
        WriteCapture(path, linkType, Rewrapped(linkType));
        const Replay replay = ReplayCapture(SampleOptions(path));
        ASSERT_TRUE(replay.m_Ended) << replay.m_Error;
        ASSERT_EQ(s_Replay->m_Records.size(), replay.m_Records.size());
        for (size_t index = 0; index < replay.m_Records.size(); ++index) {
            SourceRecord expected = s_Replay->m_Records[index];
            expected.m_Record[38] &= ~DriverLogEntry::kEthernetValid;
            memset(expected.m_Record + 102, 0, 14);
            // The rewritten capture has its own time stamps.
            memcpy(expected.m_Record, replay.m_Records[index].m_Record, 8);
            memcpy(expected.m_Record + 88, replay.m_Records[index].m_Record + 88, 8);
            ASSERT_EQ(0, memcmp(expected.m_Record, replay.m_Records[index].m_Record, 192)) << index;
            ASSERT_EQ(expected.m_Data, replay.m_Records[index].m_Data);
        }
    }
}

// Raw IP packets for the bad-input table.
std::vector<uint8_t> Ipv4Tcp(uint8_t flags, size_t tcpBytes = 20, uint8_t headerWords = 5) {
    std::vector<uint8_t> packet = {uint8_t(0x40 | headerWords),
                                   0,
                                   0,
                                   0,
                                   0,
                                   0,
                                   0x40,
                                   0,
                                   64,
                                   6,
                                   0,
                                   0,
                                   10,
                                   77,
                                   0,
                                   9,
                                   10,
                                   77,
                                   0,
                                   1};
    const size_t total = 20 + tcpBytes;
    packet[2] = uint8_t(total >> 8);
    packet[3] = uint8_t(total);
    std::vector<uint8_t> tcp(tcpBytes, 0);
    if (tcpBytes >= 14) {
        tcp[0] = 0x9C;  // source port 40000
        tcp[1] = 0x40;
        tcp[3] = 22;
        tcp[12] = 0x50;
        tcp[13] = flags;
    }
    packet.insert(packet.end(), tcp.begin(), tcp.end());
    return packet;
}

TEST(CaptureReplay, BadInputIsACountedDropOrAClearError) {
    TempFolder folder;
    const std::string crafted = folder.Path() + "/crafted.pcap";
    std::vector<uint8_t> cutIpv4 = Ipv4Tcp(0x02);
    cutIpv4.resize(12);
    std::vector<uint8_t> longOptions = Ipv4Tcp(0x02, 20, 15);  // 60-byte header in 40 bytes
    std::vector<uint8_t> shortIpv6(30, 0);
    shortIpv6[0] = 0x60;
    std::vector<uint8_t> badVersion = Ipv4Tcp(0x02);
    badVersion[0] = 0x25;
    WriteCapture(crafted, DLT_RAW,
                 {cutIpv4, Ipv4Tcp(0x02, 10), longOptions, shortIpv6, badVersion,
                  Ipv4Tcp(0x02, 20, 4), Ipv4Tcp(0x02)});
    const std::string shortEthernet = folder.Path() + "/short-ethernet.pcap";
    WriteCapture(shortEthernet, DLT_EN10MB, {{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}});
    const std::string notEthernet = folder.Path() + "/ppp.pcap";
    WriteCapture(notEthernet, DLT_PPP, {Ipv4Tcp(0x02)});

    struct Case {
        const char* m_Name;
        std::string m_Path;
        size_t m_Records;
        uint64_t m_Dropped;
        const char* m_Error;  // in the error of opening or reading; null: none
    };
    const Case cases[] = {
        {"six malformed packets and a SYN", crafted, 1, 6, nullptr},
        {"an Ethernet frame shorter than its header", shortEthernet, 0, 1, nullptr},
        // The first 40 frames of the sample as classic pcap: the benign HTTP,
        // DNS and TLS openings; then the same cut to 30 bytes a frame (38 IP
        // packets, 2 ARP).
        {"the first frames as classic pcap", kData + "first-packets.pcap", 3, 0, nullptr},
        {"packets cut to 30 bytes", kData + "snapped.pcap", 0, 38, nullptr},
        // The sample's first 3000 bytes: the first packets of HTTP and DNS.
        {"a capture cut off inside a block", kData + "cut-short.pcapng", 2, 0,
         "damaged capture file"},
        {"no capture at all", kData + "not-a-capture.pcap", 0, 0, "cannot be read"},
        {"no such file", folder.Path() + "/missing.pcap", 0, 0, "cannot be read"},
        {"a link type without IP framing known here", notEthernet, 0, 0, "link type 9"},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.m_Name);
        const Replay replay = ReplayCapture(SampleOptions(test.m_Path));
        EXPECT_EQ(test.m_Records, replay.m_Records.size());
        EXPECT_EQ(test.m_Dropped, replay.m_Counters.m_Dropped);
        if (test.m_Error == nullptr) {
            EXPECT_TRUE(replay.m_Ended) << replay.m_Error;
        } else {
            EXPECT_NE(std::string::npos, replay.m_Error.find(test.m_Error)) << replay.m_Error;
        }
    }
}

TEST(CaptureReplay, PacketsWithRandomBytesChangedOrCutEndInRecordsOrCountedDrops) {
    TempFolder folder;
    const std::string path = folder.Path() + "/mutated.pcap";
    const std::vector<std::vector<uint8_t>> frames = Rewrapped(DLT_RAW);
    uint32_t state = 12345;  // a fixed sequence, so that a failure repeats
    const auto random = [&state](uint32_t bound) {
        state = state * 1103515245u + 12345u;
        return (state >> 8) % bound;
    };
    for (int round = 0; round < 10; ++round) {
        std::vector<std::vector<uint8_t>> mutated = frames;
        for (auto& frame : mutated) {
            for (int change = 0; change < 3; ++change) {
                frame[random(uint32_t(std::min<size_t>(frame.size(), 80)))] = uint8_t(random(256));
            }
            frame.resize(1 + random(uint32_t(frame.size())));
        }
        WriteCapture(path, DLT_RAW, mutated);
        SourceOptions options = SampleOptions(path);
        options.m_SslHosts = {{"", 7}};  // every TCP connection goes through the TLS tracker
        const Replay replay = ReplayCapture(options);
        ASSERT_TRUE(replay.m_Ended) << replay.m_Error;
        EXPECT_LE(replay.m_Records.size() + replay.m_Counters.m_Dropped, mutated.size());
        EXPECT_GT(replay.m_Counters.m_Dropped, 0u);
    }
}

TEST(CaptureReplay, OptionsThatCannotWorkAreRefusedWithTheReason) {
    const std::vector<std::pair<SourceOptions, std::string>> cases = [] {
        std::vector<std::pair<SourceOptions, std::string>> list;
        SourceOptions options = SampleOptions();
        options.m_HostAddresses = {"10.77.0.300"};
        list.push_back({options, "host address \"10.77.0.300\""});
        options = SampleOptions();
        options.m_HostAddresses.clear();
        list.push_back({options, "no host address"});
        options = SampleOptions();
        options.m_Services = "tcp:80,sctp:9";
        list.push_back({options, "bad service \"sctp:9\""});
        options = SampleOptions();
        options.m_SslHosts = {{"server", 7}};
        list.push_back({options, "SSL host address \"server\""});
        return list;
    }();
    for (const auto& test : cases) {
        std::string error;
        EXPECT_EQ(nullptr, NORVI::CreateCaptureSource(test.first, error));
        EXPECT_NE(std::string::npos, error.find(test.second)) << error;
    }
}

}  // namespace
