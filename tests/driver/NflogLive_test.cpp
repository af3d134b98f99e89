// The live record source and the block requests of the Linux library, inside
// two network namespaces that the test makes: real scans from the peer, the
// project's ruleset in the host namespace, records checked field by field.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "driver/linux/NflogSource.h"
#include "driver/linux/NftRuleset.h"
#include "driver/linux/RulesetVerdicts.h"
#include "host/norvi.h"
#include "tests/driver/NetnsPair.h"

namespace {

// This program drives the Linux library, not the stand-in.
const int kLibraryChosen = setenv("NORVI_LIBRARY", VEXIL_BUILD_DIR "/libnorvi.so", 1);

using drivertest::CBackground;
using drivertest::CNetnsPair;
using drivertest::RunProcess;
using NORVI::SourceRecord;

constexpr int kGroup = 7;

template <typename Value>
Value Field(const SourceRecord& record, size_t offset) {
    Value value;
    memcpy(&value, record.m_Record + offset, sizeof value);
    return value;
}

uint32_t Address(const char* text) {
    in_addr address;
    inet_pton(AF_INET, text, &address);
    return address.s_addr;
}

// The hardware address of a local interface of the current namespace.
std::string Mac(const char* name) {
    ifreq request = {};
    strncpy(request.ifr_name, name, sizeof request.ifr_name - 1);
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    const bool found = ioctl(fd, SIOCGIFHWADDR, &request) == 0;
    close(fd);
    return found ? std::string(request.ifr_hwaddr.sa_data, 6) : std::string();
}

class NflogLiveTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, kLibraryChosen);
        if (!m_Net.Failure().empty()) {
            GTEST_SKIP() << m_Net.Failure();
        }
        ASSERT_TRUE(m_Net.Enter(m_Net.Host()));
        m_Interface = if_nametoindex("vxa");
        m_HostMac = Mac("vxa");
        m_Net.Enter(m_Net.Peer());
        m_PeerMac = Mac("vxb");
        m_Net.Enter(m_Net.Host());
        NORVI::SourceOptions options;
        options.m_NflogGroup = kGroup;
        options.m_InstallRuleset = true;
        options.m_Services = "tcp:8080,udp:5353";
        options.m_ReceiveBufferBytes = m_ReceiveBuffer;
        std::string error;
        m_Source = NORVI::CNflogSource::Open(options, error);
        ASSERT_NE(nullptr, m_Source) << error;
    }
    void TearDown() override {
        m_Source.reset();
        m_Net.Leave();
    }

    // Every record that comes until none has come for quietMs.
    std::vector<SourceRecord> Drain(int quietMs = 500) {
        std::vector<SourceRecord> records;
        SourceRecord record;
        while (records.size() < 100000 &&
               m_Source->Next(record, quietMs) == NORVI::CRecordSource::ReadResult::Record) {
            records.push_back(std::move(record));
        }
        return records;
    }

    int Peer(std::vector<std::string> argv, int timeoutMs) {
        return RunProcess(CNetnsPair::In(m_Net.Peer(), std::move(argv)), timeoutMs);
    }

    // The packets that the kernel counted for each logging rule, by rule id.
    std::map<uint32_t, uint64_t> RuleCounters() {
        const std::string path = "/tmp/vexil-nft-" + std::to_string(getpid());
        RunProcess(CNetnsPair::In(m_Net.Host(), {"nft", "list", "table", "inet", "vexil"}), 10000,
                   path);
        std::ifstream file(path);
        std::map<uint32_t, uint64_t> counters;
        const std::regex rule(R"re(packets (\d+) bytes \d+ log prefix "vx:\d+:\d+:(\d+)")re");
        for (std::string line; std::getline(file, line);) {
            std::smatch match;
            if (std::regex_search(line, match, rule)) {
                counters[std::stoul(match[2])] += std::stoull(match[1]);
            }
        }
        unlink(path.c_str());
        return counters;
    }

    // Checks what every record of an inbound IPv4 packet from the peer holds.
    void ExpectInboundFromPeer(const SourceRecord& record, const timeval& since) {
        const uint32_t seconds = Field<uint32_t>(record, 0);
        EXPECT_GE(seconds, static_cast<uint32_t>(since.tv_sec));
        EXPECT_LE(seconds, static_cast<uint32_t>(time(nullptr)));
        EXPECT_LT(Field<uint32_t>(record, 4), 1000000u);
        EXPECT_EQ(seconds, Field<uint32_t>(record, 88));
        EXPECT_EQ(Field<uint32_t>(record, 4), Field<uint32_t>(record, 92));
        EXPECT_EQ(m_Interface, Field<uint32_t>(record, 28));
        EXPECT_EQ(0u, Field<uint32_t>(record, 32));  // stream position
        EXPECT_EQ(0u, Field<uint16_t>(record, 36));  // packet position
        EXPECT_EQ(0x08 | 0x10 | 0x40, Field<uint16_t>(record, 38));
        EXPECT_EQ(6u, Field<uint32_t>(record, 40));
        EXPECT_EQ(m_HostMac, std::string(reinterpret_cast<const char*>(record.m_Record) + 44, 6));
        EXPECT_EQ(m_HostMac, std::string(reinterpret_cast<const char*>(record.m_Record) + 102, 6));
        EXPECT_EQ(m_PeerMac, std::string(reinterpret_cast<const char*>(record.m_Record) + 108, 6));
        EXPECT_EQ(htons(0x0800), Field<uint16_t>(record, 114));
        EXPECT_EQ(0u, Field<uint16_t>(record, 56));  // note
        EXPECT_EQ(0x02, Field<uint16_t>(record, 84));
        EXPECT_EQ(1u, Field<uint32_t>(record, 96));
        EXPECT_EQ(Address("10.77.0.1"), Field<uint32_t>(record, 136));
        ASSERT_GE(record.m_Data.size(), 20u);
        EXPECT_EQ(record.m_Data.size(), Field<uint16_t>(record, 76));
        EXPECT_EQ(record.m_Data.size(), Field<uint32_t>(record, 52));
        EXPECT_EQ(record.m_Data.size(), Field<uint16_t>(record, 58));
        EXPECT_EQ(record.m_Data, record.m_Packet);
        EXPECT_EQ(0, memcmp(record.m_Record + 120, record.m_Data.data(), 20));
    }

    CNetnsPair m_Net;
    int m_ReceiveBuffer = 0;
    uint32_t m_Interface = 0;
    std::string m_HostMac;
    std::string m_PeerMac;
    std::unique_ptr<NORVI::CRecordSource> m_Source;
};

TEST_F(NflogLiveTest, StealthScansAreDeniedAsInvalidFlagsFieldByField) {
    struct Case {
        std::vector<std::string> m_Scan;
        uint32_t m_Rule;
        uint8_t m_TcpFlags;
    };
    const std::vector<Case> cases = {
        {{"-sX"}, NORVI::kRuleTcpXmas, 0x29},
        {{"-sN"}, NORVI::kRuleTcpNull, 0x00},
        {{"-sS", "--scanflags", "SYNFIN"}, NORVI::kRuleTcpSynFin, 0x03},
    };
    for (const Case& scan : cases) {
        timeval since;
        gettimeofday(&since, nullptr);
        std::vector<std::string> argv = {"nmap",      "-n", "-Pn", "--max-retries",
                                         "0",         "-p", "81",  "-S",
                                         "10.77.0.2", "-e", "vxb", "10.77.0.1"};
        argv.insert(argv.begin() + 1, scan.m_Scan.begin(), scan.m_Scan.end());
        ASSERT_EQ(0, Peer(argv, 60000)) << scan.m_Scan[0];
        const std::vector<SourceRecord> records = Drain();
        ASSERT_FALSE(records.empty()) << scan.m_Scan[0];
        for (const SourceRecord& record : records) {
            SCOPED_TRACE(scan.m_Scan.back());
            EXPECT_EQ(scan.m_Rule, Field<uint32_t>(record, 24));
            EXPECT_EQ(NORVI::kActionDeny, Field<int16_t>(record, 20));
            EXPECT_EQ(101, Field<int16_t>(record, 22));
            EXPECT_EQ(6, record.m_Record[129]);
            EXPECT_EQ(htons(81), Field<uint16_t>(record, 162));
            EXPECT_EQ(scan.m_TcpFlags, record.m_Record[173]);
            EXPECT_EQ(Address("10.77.0.2"), Field<uint32_t>(record, 132));
            ExpectInboundFromPeer(record, since);
        }
    }
}

TEST_F(NflogLiveTest, SynScanAndOsDetectionGiveOneRecordPerDroppedPacket) {
    ASSERT_EQ(0, Peer({"nmap", "-n", "-Pn", "-sS", "-T4", "--max-retries", "0", "-p", "1-150",
                       "10.77.0.1"},
                      60000));
    std::vector<SourceRecord> records = Drain();
    std::set<uint16_t> ports;
    for (const SourceRecord& record : records) {
        if (Field<uint32_t>(record, 24) == NORVI::kRuleDenyTcp) {
            EXPECT_EQ(0x02, record.m_Record[173]);
            EXPECT_EQ(123, Field<int16_t>(record, 22));
            ports.insert(ntohs(Field<uint16_t>(record, 162)));
        }
    }
    EXPECT_EQ(150u, ports.size());

    // Fingerprinting mixes odd flags, a stray ACK, UDP and ICMP probes; it
    // needs an open port.
    CBackground server(CNetnsPair::In(m_Net.Host(), {"nc", "-k", "-l", "10.77.0.1", "8080"}));
    ASSERT_TRUE(server.Started());
    ASSERT_EQ(0, Peer({"nmap", "-n", "-Pn", "-O", "-T4", "--max-retries", "1", "--host-timeout",
                       "60s", "-p", "8080,81", "10.77.0.1"},
                      90000));
    std::map<uint32_t, size_t> byRule;
    const auto counted = RuleCounters();
    records = Drain();
    for (const SourceRecord& record : records) {
        ++byRule[Field<uint32_t>(record, 24)];
        const NORVI::RuleVerdict* verdict = NORVI::FindRuleVerdict(Field<uint32_t>(record, 24));
        ASSERT_NE(nullptr, verdict);
        EXPECT_EQ(verdict->m_Action, Field<int16_t>(record, 20));
        EXPECT_EQ(verdict->m_Reason, Field<int16_t>(record, 22));
    }
    for (uint32_t rule : {NORVI::kRuleTcpNull, NORVI::kRuleTcpXmas, NORVI::kRuleTcpNewNotSyn,
                          NORVI::kRuleDenyUdp, NORVI::kRuleDenyIcmp, NORVI::kRuleServiceAllowed}) {
        EXPECT_GT(byRule[rule], 0u) << "rule " << rule << " of " << records.size();
    }
    // The kernel counted as many as came: nothing was lost on the way.
    const NORVI::SourceCounters counters = m_Source->Counters();
    EXPECT_EQ(0u, counters.m_Lost + counters.m_Gaps + counters.m_Dropped);
    uint64_t total = 0;
    for (const auto& rule : counted) {
        total += rule.second;
    }
    EXPECT_EQ(total, counters.m_Records);
}

TEST_F(NflogLiveTest, AnAllowedServiceIsLoggedOnceAndItsConnectionPassesUnlogged) {
    CBackground server(CNetnsPair::In(
        m_Net.Host(), {"python3", "-m", "http.server", "8080", "--bind", "10.77.0.1"}));
    ASSERT_TRUE(server.Started());
    const std::vector<std::string> fetch = {"curl",
                                            "-s",
                                            "-o",
                                            "/dev/null",
                                            "--retry",
                                            "20",
                                            "--retry-connrefused",
                                            "--retry-delay",
                                            "0",
                                            "--max-time",
                                            "10",
                                            "http://10.77.0.1:8080/"};
    ASSERT_EQ(0, Peer(fetch, 15000));
    Drain();  // the server may have needed a moment; refused tries are logged too
    timeval since;
    gettimeofday(&since, nullptr);
    ASSERT_EQ(0, Peer(fetch, 15000));
    const std::vector<SourceRecord> records = Drain();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(NORVI::kRuleServiceAllowed, Field<uint32_t>(records[0], 24));
    EXPECT_EQ(NORVI::kActionAllow, Field<int16_t>(records[0], 20));
    EXPECT_EQ(142, Field<int16_t>(records[0], 22));
    EXPECT_EQ(htons(8080), Field<uint16_t>(records[0], 162));
    EXPECT_EQ(0x02, records[0].m_Record[173]);
    ExpectInboundFromPeer(records[0], since);
}

TEST_F(NflogLiveTest, ABlockDropsOneAddressUntilItExpires) {
    CBackground server(CNetnsPair::In(m_Net.Host(), {"nc", "-k", "-l", "10.77.0.1", "8080"}));
    ASSERT_TRUE(server.Started());
    auto connects = [&](const char* from) {
        return Peer({"nc", "-z", "-w", "1", "-s", from, "10.77.0.1", "8080"}, 5000) == 0;
    };
    for (int tries = 0; tries < 50 && !connects("10.77.0.3"); ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    ASSERT_TRUE(connects("10.77.0.2"));

    const norvi_handle_t handle = norvi_open();
    ASSERT_NE(nullptr, handle);
    uint8_t request[12] = {0, 4, 0, 0};
    const uint32_t blocked = Address("10.77.0.2");
    memcpy(request + 8, &blocked, 4);
    // A long block first, then a short one: the second must restart the time.
    for (uint32_t milliseconds : {600000u, 2500u}) {
        memcpy(request + 4, &milliseconds, 4);
        char error[128] = "";
        EXPECT_EQ(0, norvi_add_blacklist(handle, request));
        norvi_get_error(handle, error, sizeof error);
        EXPECT_STREQ("", error);
    }
    const std::string listing = "/tmp/vexil-set-" + std::to_string(getpid());
    RunProcess(CNetnsPair::In(m_Net.Host(), {"nft", "list", "set", "inet", "vexil", "block4"}),
               10000, listing);
    std::stringstream text;
    text << std::ifstream(listing).rdbuf();
    EXPECT_NE(std::string::npos, text.str().find("10.77.0.2 timeout 2s500ms")) << text.str();
    Drain(100);
    EXPECT_FALSE(connects("10.77.0.2"));
    EXPECT_TRUE(connects("10.77.0.3"));
    const std::vector<SourceRecord> records = Drain(200);
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(NORVI::kRuleBlockedSource4, Field<uint32_t>(records[0], 24));
    EXPECT_EQ(blocked, Field<uint32_t>(records[0], 132));
    // The host's own packets to the address are stopped on the way out; the
    // output hook has no time stamp, so the time of receipt stands in.
    const time_t before = time(nullptr);
    RunProcess(CNetnsPair::In(m_Net.Host(), {"nc", "-z", "-w", "1", "10.77.0.2", "9"}), 5000);
    const std::vector<SourceRecord> outbound = Drain(200);
    ASSERT_FALSE(outbound.empty());
    EXPECT_EQ(NORVI::kRuleBlockedDest4, Field<uint32_t>(outbound[0], 24));
    EXPECT_EQ(0x01 | 0x10 | 0x40, Field<uint16_t>(outbound[0], 38));
    EXPECT_EQ(m_Interface, Field<uint32_t>(outbound[0], 28));
    EXPECT_EQ(blocked, Field<uint32_t>(outbound[0], 136));
    EXPECT_GE(Field<uint32_t>(outbound[0], 0), static_cast<uint32_t>(before));

    // A zero time would never end: refused, and the set is left alone.
    const uint32_t zero = 0;
    memcpy(request + 4, &zero, 4);
    EXPECT_EQ(EINVAL, norvi_add_blacklist(handle, request));
    // The longest time the request can state is one that nftables takes.
    const uint32_t longest = 0xffffffffu;
    const uint32_t other = Address("10.77.0.9");
    memcpy(request + 4, &longest, 4);
    memcpy(request + 8, &other, 4);
    EXPECT_EQ(0, norvi_add_blacklist(handle, request));
    memcpy(request + 8, &blocked, 4);
    std::this_thread::sleep_for(std::chrono::milliseconds(2700));
    EXPECT_TRUE(connects("10.77.0.2"));

    // Where the table is missing the request fails with nft's reason.
    m_Net.Enter(m_Net.Peer());
    const norvi_handle_t elsewhere = norvi_open();
    const uint32_t second = 1000;
    memcpy(request + 4, &second, 4);
    EXPECT_EQ(ENOENT, norvi_add_blacklist(elsewhere, request));
    char error[128] = "";
    norvi_get_error(elsewhere, error, sizeof error);
    EXPECT_NE(nullptr, strstr(error, "10.77.0.2")) << error;
    norvi_close(elsewhere);
    norvi_close(handle);
    unlink(listing.c_str());
}

TEST_F(NflogLiveTest, AnIpv6BlockDropsThatAddressWithAnIpv6Record) {
    CBackground server(CNetnsPair::In(m_Net.Host(), {"nc", "-6", "-k", "-l", "fd77::1", "8080"}));
    ASSERT_TRUE(server.Started());
    auto connects = [&] {
        return Peer({"nc", "-6", "-z", "-w", "1", "fd77::1", "8080"}, 5000) == 0;
    };
    bool reached = false;
    for (int tries = 0; tries < 50 && !(reached = connects()); ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    ASSERT_TRUE(reached);
    Drain(100);
    NORVI::CNftRuleset ruleset;
    std::string error;
    ASSERT_EQ(0, ruleset.Block("fd77::2", 1500, error)) << error;
    EXPECT_FALSE(connects());
    const std::vector<SourceRecord> records = Drain(200);
    ASSERT_FALSE(records.empty());
    const SourceRecord& record = records[0];
    EXPECT_EQ(NORVI::kRuleBlockedSource6, Field<uint32_t>(record, 24));
    EXPECT_EQ(0x08 | 0x20 | 0x40, Field<uint16_t>(record, 38));
    EXPECT_EQ(6, record.m_Record[126]);  // next header: TCP
    in6_addr peer;
    inet_pton(AF_INET6, "fd77::2", &peer);
    EXPECT_EQ(0, memcmp(record.m_Record + 128, &peer, 16));
    EXPECT_EQ(htons(8080), Field<uint16_t>(record, 162));
    EXPECT_EQ(htons(0x86dd), Field<uint16_t>(record, 114));
    std::this_thread::sleep_for(std::chrono::milliseconds(1700));
    EXPECT_TRUE(connects());
}

class NflogOverrunTest : public NflogLiveTest {
protected:
    NflogOverrunTest() { m_ReceiveBuffer = 4096; }
};

TEST_F(NflogOverrunTest, AFullSocketBufferIsCountedAsLostAndAsGaps) {
    // 3000 datagrams to a closed port while nobody reads: the buffer overflows.
    ASSERT_EQ(0, Peer({"python3", "-c",
                       "import socket\n"
                       "s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)\n"
                       "for n in range(3000): s.sendto(b'x' * 64, ('10.77.0.1', 9999))\n"},
                      30000));
    std::vector<SourceRecord> records = Drain();
    // One more after the overrun, so that a loss at the very end shows as a gap.
    ASSERT_EQ(0, Peer({"python3", "-c",
                       "import socket\n"
                       "socket.socket(socket.AF_INET, socket.SOCK_DGRAM).sendto(b'x', "
                       "('10.77.0.1', 9999))\n"},
                      10000));
    for (SourceRecord& record : Drain()) {
        records.push_back(std::move(record));
    }
    const NORVI::SourceCounters counters = m_Source->Counters();
    EXPECT_GT(counters.m_Lost, 0u);
    EXPECT_GT(counters.m_Gaps, 0u);
    EXPECT_EQ(records.size(), counters.m_Records);
    EXPECT_LT(counters.m_Records, 3000u);
    // What came and what the sequence numbers say is missing make the whole.
    EXPECT_EQ(RuleCounters()[NORVI::kRuleDenyUdp], counters.m_Records + counters.m_Gaps);
}

}  // namespace
