// The live record source and the block requests of the Linux library, inside
// two network namespaces that the test makes: real scans from the peer, the
// project's ruleset in the host namespace; the records agree with a replay
// of the same traffic.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "driver/capture/CaptureSource.h"
#include "driver/linux/NflogSource.h"
#include "driver/linux/NftRuleset.h"
#include "driver/linux/RulesetVerdicts.h"
#include "host/norvi.h"
#include "tests/TempFolder.h"
#include "tests/driver/NetnsPair.h"

namespace {

// This program drives the Linux library, not the stand-in.
const int kLibraryChosen = setenv("NORVI_LIBRARY", VEXIL_BUILD_DIR "/libnorvi.so", 1);

using drivertest::CBackground;
using drivertest::CNetnsPair;
using drivertest::RunProcess;
using NORVI::SourceRecord;

constexpr int kGroup = 7;
constexpr const char* kServices = "tcp:8080,udp:5353";

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
        NORVI::SourceOptions options;
        options.m_NflogGroup = kGroup;
        options.m_InstallRuleset = true;
        options.m_Services = kServices;
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
        for (std::string line; std::getline(file, line);) {
            const size_t at = line.find("packets ");
            unsigned long long packets = 0;
            unsigned rule = 0;
            if (at != std::string::npos &&
                sscanf(line.c_str() + at, "packets %llu bytes %*u log prefix \"vx:%*u:%*u:%u\"",
                       &packets, &rule) == 2) {
                counters[rule] += packets;
            }
        }
        unlink(path.c_str());
        return counters;
    }

    CNetnsPair m_Net;
    int m_ReceiveBuffer = 0;
    uint32_t m_Interface = 0;
    std::string m_HostMac;
    std::unique_ptr<NORVI::CRecordSource> m_Source;
};

// A record with the fields that may differ cleared: times and the
// interface's hardware address, which a capture does not carry.
std::vector<uint8_t> Comparable(const SourceRecord& record) {
    std::vector<uint8_t> bytes(record.m_Record, record.m_Record + 192);
    std::fill(bytes.begin(), bytes.begin() + 8, 0);
    std::fill(bytes.begin() + 88, bytes.begin() + 96, 0);
    std::fill(bytes.begin() + 40, bytes.begin() + 52, 0);
    bytes.insert(bytes.end(), record.m_Data.begin(), record.m_Data.end());
    return bytes;
}

std::string Describe(const SourceRecord& record) {
    char text[96];
    snprintf(text, sizeof text, "id %u proto %u port %u flags %02x", record.m_Record[24],
             record.m_Record[129] != 0 ? record.m_Record[129] : record.m_Record[126],
             record.m_Record[162] << 8 | record.m_Record[163], record.m_Record[173]);
    return text;
}

// Scans, OS detection, UDP, ICMP, a benign connection and IPv6 from the peer
// are captured on the host's side while the live receiver runs; the capture
// is then replayed, and the two record streams must agree byte for byte
// (times and the interface's own address aside). The kernel counted as many
// as came: nothing was lost on the way.
TEST_F(NflogLiveTest, LiveRecordsAndTheReplayOfTheSameTrafficAgree) {
    TempFolder folder;
    const std::string capture = folder.Path() + "/live.pcap";
    timeval since;
    gettimeofday(&since, nullptr);
    CBackground dumper(CNetnsPair::In(
        m_Net.Host(), {"tcpdump", "--immediate-mode", "-U", "-n", "-i", "vxa", "-w", capture}));
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    const auto scan = [&](std::vector<std::string> extra) {
        std::vector<std::string> argv = {"nmap",      "-n", "-Pn", "--max-retries", "0", "-S",
                                         "10.77.0.2", "-e", "vxb"};
        argv.insert(argv.end(), extra.begin(), extra.end());
        return Peer(argv, 90000);
    };
    {
        // Started without a wrapper, so that the kill by pid reaches nc itself.
        CBackground server(CNetnsPair::In(m_Net.Host(), {"nc", "-l", "-k", "10.77.0.1", "8080"}));
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        for (const std::vector<std::string>& extra : std::vector<std::vector<std::string>>{
                 {"-sX", "-p", "22,8080"},
                 {"-sN", "-p", "22,8080"},
                 {"-sS", "--scanflags", "SYNFIN", "-p", "22,8080"},
                 {"-sA", "-p", "22,8080"},
                 {"-sS", "-T4", "-p", "8000-8150"},
                 {"-sU", "-p", "5353,5354"},
                 {"-sn", "-PE"},
                 {"-O", "-T4", "--host-timeout", "60s", "-p", "8080,81"}}) {
            std::vector<std::string> argv = extra;
            argv.push_back("10.77.0.1");
            EXPECT_EQ(0, scan(argv)) << extra[0];
        }
        EXPECT_EQ(0, Peer({"sh", "-c", "echo hello | timeout 5 nc -N -s 10.77.0.3 10.77.0.1 8080"},
                          30000));
        EXPECT_EQ(0, Peer({"nmap", "-6", "-n", "-Pn", "--max-retries", "0", "-sS", "-p", "22,8080",
                           "fd77::1"},
                          30000));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    dumper.Stop(SIGINT);
    const std::vector<SourceRecord> live = Drain();
    const auto counted = RuleCounters();
    uint64_t total = 0;
    for (const auto& rule : counted) {
        total += rule.second;
    }
    const NORVI::SourceCounters counters = m_Source->Counters();
    EXPECT_EQ(0u, counters.m_Lost + counters.m_Gaps + counters.m_Dropped);
    EXPECT_EQ(total, counters.m_Records);
    EXPECT_EQ(live.size(), counters.m_Records);
    // What a capture cannot carry: times and the interface's own address.
    std::set<uint32_t> rules;
    for (const SourceRecord& record : live) {
        SCOPED_TRACE(Describe(record));
        rules.insert(Field<uint32_t>(record, 24));
        const uint32_t seconds = Field<uint32_t>(record, 0);
        EXPECT_TRUE(seconds >= since.tv_sec && seconds <= time(nullptr)) << seconds;
        EXPECT_LT(Field<uint32_t>(record, 4), 1000000u);
        EXPECT_EQ(0, memcmp(record.m_Record, record.m_Record + 88, 8));  // first and last time
        EXPECT_EQ(6u, Field<uint32_t>(record, 40));
        EXPECT_EQ(m_HostMac, std::string(reinterpret_cast<const char*>(record.m_Record) + 44, 6));
        EXPECT_EQ(record.m_Data, record.m_Packet);
    }
    // The flag rules, stray ACKs, allowed and denied TCP, UDP and ICMP.
    for (uint32_t rule : {NORVI::kRuleTcpNull, NORVI::kRuleTcpXmas, NORVI::kRuleTcpSynFin,
                          NORVI::kRuleTcpNewNotSyn, NORVI::kRuleServiceAllowed, NORVI::kRuleDenyTcp,
                          NORVI::kRuleDenyUdp, NORVI::kRuleDenyIcmp}) {
        EXPECT_EQ(1u, rules.count(rule)) << "rule " << rule << " of " << live.size();
    }

    NORVI::SourceOptions options;
    options.m_CapturePath = capture;
    options.m_HostAddresses = {"10.77.0.1", "fd77::1"};
    options.m_Services = kServices;
    options.m_InterfaceIndex = m_Interface;
    std::string error;
    auto replay = NORVI::CreateCaptureSource(options, error);
    ASSERT_NE(nullptr, replay) << error;
    std::vector<SourceRecord> replayed;
    SourceRecord record;
    while (replay->Next(record, 0) == NORVI::CRecordSource::ReadResult::Record) {
        replayed.push_back(std::move(record));
    }
    EXPECT_EQ(0u, replay->Counters().m_Dropped);
    const size_t common = std::min(live.size(), replayed.size());
    for (size_t index = 0; index < common; ++index) {
        ASSERT_EQ(Comparable(live[index]), Comparable(replayed[index]))
            << "record " << index << ": live " << Describe(live[index]) << ", replay "
            << Describe(replayed[index]);
    }
    EXPECT_EQ(live.size(), replayed.size())
        << "next: " << (common < live.size() ? "live " + Describe(live[common]) : "")
        << (common < replayed.size() ? " replay " + Describe(replayed[common]) : "");
}

TEST_F(NflogLiveTest, ABlockDropsOneAddressUntilItExpires) {
    CBackground server(CNetnsPair::In(m_Net.Host(), {"nc", "-k", "-l", "10.77.0.1", "8080"}));
    CBackground server6(CNetnsPair::In(m_Net.Host(), {"nc", "-6", "-k", "-l", "fd77::1", "8080"}));
    ASSERT_TRUE(server.Started() && server6.Started());
    const auto connects = [&](const char* from) {
        const bool ipv6 = strchr(from, ':') != nullptr;
        return Peer({"nc", ipv6 ? "-6" : "-4", "-z", "-w", "1", "-s", from,
                     ipv6 ? "fd77::1" : "10.77.0.1", "8080"},
                    5000) == 0;
    };
    for (int tries = 0; tries < 50 && !(connects("10.77.0.3") && connects("fd77::2")); ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    ASSERT_TRUE(connects("10.77.0.2"));

    const norvi_handle_t handle = norvi_open();
    ASSERT_NE(nullptr, handle);
    const uint32_t blocked = Address("10.77.0.2");
    const auto block = [](norvi_handle_t on, uint32_t milliseconds, uint32_t address) {
        uint8_t request[12] = {0, 4, 0, 0};
        memcpy(request + 4, &milliseconds, 4);
        memcpy(request + 8, &address, 4);
        return norvi_add_blacklist(on, request);
    };
    // A long block first, then a short one: the second must restart the time.
    for (uint32_t milliseconds : {600000u, 2500u}) {
        char error[128] = "";
        EXPECT_EQ(0, block(handle, milliseconds, blocked));
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

    // A zero time would never end: refused, and the set is left alone. The
    // longest time the request can state is one that nftables takes.
    EXPECT_EQ(EINVAL, block(handle, 0, blocked));
    EXPECT_EQ(0, block(handle, 0xffffffffu, Address("10.77.0.9")));

    // An IPv6 block, through the ruleset itself: the record is an IPv6 one.
    Drain(100);
    std::string failure;
    ASSERT_EQ(0, NORVI::CNftRuleset().Block("fd77::2", 1500, failure)) << failure;
    EXPECT_FALSE(connects("fd77::2"));
    const std::vector<SourceRecord> records6 = Drain(200);
    ASSERT_FALSE(records6.empty());
    const SourceRecord& record6 = records6[0];
    EXPECT_EQ(NORVI::kRuleBlockedSource6, Field<uint32_t>(record6, 24));
    EXPECT_EQ(0x08 | 0x20 | 0x40, Field<uint16_t>(record6, 38));
    EXPECT_EQ(6, record6.m_Record[126]);  // next header: TCP
    in6_addr peer;
    inet_pton(AF_INET6, "fd77::2", &peer);
    EXPECT_EQ(0, memcmp(record6.m_Record + 128, &peer, 16));
    EXPECT_EQ(htons(8080), Field<uint16_t>(record6, 162));
    EXPECT_EQ(htons(0x86dd), Field<uint16_t>(record6, 114));
    std::this_thread::sleep_for(std::chrono::milliseconds(2700));
    EXPECT_TRUE(connects("10.77.0.2"));
    EXPECT_TRUE(connects("fd77::2"));

    // Where the table is missing the request fails with nft's reason.
    m_Net.Enter(m_Net.Peer());
    const norvi_handle_t elsewhere = norvi_open();
    EXPECT_EQ(ENOENT, block(elsewhere, 1000, blocked));
    char error[128] = "";
    norvi_get_error(elsewhere, error, sizeof error);
    EXPECT_NE(nullptr, strstr(error, "10.77.0.2")) << error;
    norvi_close(elsewhere);
    norvi_close(handle);
    unlink(listing.c_str());
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
