// The live record source and the block requests of the Linux library, inside
// two network namespaces that the test makes: real scans from the peer, the
// project's ruleset in the host namespace; the records agree with a replay
// of the same traffic.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <string.h>
#include <time.h>

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
#include "tests/capture/CaptureFiles.h"
#include "tests/capture/Packets.h"
#include "tests/driver/NetnsPair.h"

namespace {

// This program drives the Linux library, not the stand-in.
const int kLibraryChosen = setenv("NORVI_LIBRARY", VEXIL_BUILD_DIR "/libnorvi.so", 1);

using namespace drivertest;
using NORVI::SourceRecord;
using packettest::Field;

constexpr int kGroup = 7;
constexpr const char* kServices = "tcp:8080,udp:5353";

class NflogLiveTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, kLibraryChosen);
        if (!m_Net.Failure().empty()) {
            GTEST_SKIP() << m_Net.Failure();
        }
        ASSERT_TRUE(m_Net.Enter(m_Net.Host()));
        m_Interface = if_nametoindex("vxa");
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

    // What nft lists of the host's table inet vexil (or of one of its sets).
    std::string List(std::vector<std::string> what) {
        const std::string path = "/tmp/vexil-nft-" + std::to_string(getpid());
        what.insert(what.begin(), {"nft", "list"});
        RunProcess(CNetnsPair::In(m_Net.Host(), what), 10000, path);
        std::stringstream text;
        text << std::ifstream(path).rdbuf();
        unlink(path.c_str());
        return text.str();
    }

    // The packets that the kernel counted for each logging rule, by rule id.
    std::map<uint32_t, uint64_t> RuleCounters() {
        std::istringstream listing(List({"table", "inet", "vexil"}));
        std::map<uint32_t, uint64_t> counters;
        for (std::string line; std::getline(listing, line);) {
            const size_t at = line.find("packets ");
            unsigned long long packets = 0;
            unsigned rule = 0;
            if (at != std::string::npos &&
                sscanf(line.c_str() + at, "packets %llu bytes %*u log prefix \"vx:%*u:%*u:%u\"",
                       &packets, &rule) == 2) {
                counters[rule] += packets;
            }
        }
        return counters;
    }

    CNetnsPair m_Net;
    int m_ReceiveBuffer = 0;
    uint32_t m_Interface = 0;
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

// Scans, OS detection, UDP, ICMP, a benign connection and IPv6 from the peer
// are captured on the host's side while the live receiver runs; the capture
// is then replayed, and the two record streams must agree byte for byte
// (times and the interface's own address aside). The kernel counted as many
// as came: nothing was lost on the way.
TEST_F(NflogLiveTest, LiveRecordsAndTheReplayOfTheSameTrafficAgree) {
    TempFolder folder;
    const std::string capture = folder.Path() + "/live.pcap";
    const time_t since = time(nullptr);
    CBackground dumper(CNetnsPair::In(
        m_Net.Host(), {"tcpdump", "--immediate-mode", "-U", "-n", "-i", "vxa", "-w", capture}));
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
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
            std::vector<std::string> argv = {"nmap",      "-n", "-Pn", "--max-retries", "0", "-S",
                                             "10.77.0.2", "-e", "vxb", "10.77.0.1"};
            argv.insert(argv.end(), extra.begin(), extra.end());
            EXPECT_EQ(0, Peer(argv, 90000)) << extra[0];
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
        SCOPED_TRACE(capturetest::Hex(record.m_Data.data(), record.m_Data.size()));
        rules.insert(Field<uint32_t>(record, 24));
        const uint32_t seconds = Field<uint32_t>(record, 0);
        EXPECT_TRUE(seconds >= since && seconds <= time(nullptr)) << seconds;
        EXPECT_LT(Field<uint32_t>(record, 4), 1000000u);
        EXPECT_EQ(0, memcmp(record.m_Record, record.m_Record + 88, 8));  // first and last time
        EXPECT_EQ(6u, Field<uint32_t>(record, 40));
        // The interface's address is the one that the inbound frame went to.
        EXPECT_EQ(0, memcmp(record.m_Record + 44, record.m_Record + 102, 6));
        EXPECT_EQ(record.m_Data, record.m_Packet);
    }
    // The flag rules, stray ACKs, allowed and denied TCP, UDP and ICMP.
    for (uint32_t rule : {NORVI::kRuleTcpNull, NORVI::kRuleTcpXmas, NORVI::kRuleTcpSynFin,
                          NORVI::kRuleTcpNewNotSyn, NORVI::kRuleServiceAllowed, NORVI::kRuleDenyTcp,
                          NORVI::kRuleDenyUdp, NORVI::kRuleDenyIcmp}) {
        EXPECT_EQ(1u, rules.count(rule)) << "rule " << rule << " of " << live.size();
    }

    NORVI::SourceOptions options = capturetest::SampleOptions(capture);
    options.m_Services = kServices;
    options.m_InterfaceIndex = m_Interface;
    const capturetest::Replay replay = capturetest::ReplayCapture(options);
    ASSERT_TRUE(replay.m_Ended) << replay.m_Error;
    EXPECT_EQ(0u, replay.m_Counters.m_Dropped);
    const std::vector<SourceRecord>& replayed = replay.m_Records;
    for (size_t index = 0; index < std::min(live.size(), replayed.size()); ++index) {
        ASSERT_EQ(Comparable(live[index]), Comparable(replayed[index])) << "record " << index;
    }
    EXPECT_EQ(live.size(), replayed.size());
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

    // The first record that comes: its rule, flags, and the address at offset.
    const auto expectFirst = [&](uint32_t rule, uint16_t flags, size_t offset, uint32_t address) {
        const std::vector<SourceRecord> records = Drain(200);
        ASSERT_FALSE(records.empty());
        EXPECT_EQ(rule, Field<uint32_t>(records[0], 24));
        EXPECT_EQ(flags, Field<uint16_t>(records[0], 38));
        EXPECT_EQ(address, Field<uint32_t>(records[0], offset));
    };
    const norvi_handle_t handle = norvi_open();
    ASSERT_NE(nullptr, handle);
    const uint32_t blocked = inet_addr("10.77.0.2");
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
    const std::string listing = List({"set", "inet", "vexil", "block4"});
    EXPECT_NE(std::string::npos, listing.find("10.77.0.2 timeout 2s500ms")) << listing;
    Drain(100);
    EXPECT_FALSE(connects("10.77.0.2"));
    EXPECT_TRUE(connects("10.77.0.3"));
    expectFirst(NORVI::kRuleBlockedSource4, 0x08 | 0x10 | 0x40, 132, blocked);
    // The host's own packets to the address are stopped on the way out.
    RunProcess(CNetnsPair::In(m_Net.Host(), {"nc", "-z", "-w", "1", "10.77.0.2", "9"}), 5000);
    expectFirst(NORVI::kRuleBlockedDest4, 0x01 | 0x10 | 0x40, 136, blocked);

    // A zero time would never end: refused, and the set is left alone. The
    // longest time the request can state is one that nftables takes.
    EXPECT_EQ(EINVAL, block(handle, 0, blocked));
    EXPECT_EQ(0, block(handle, 0xffffffffu, inet_addr("10.77.0.9")));

    // An IPv6 block, through the ruleset itself: the record is an IPv6 one.
    Drain(100);
    std::string failure;
    ASSERT_EQ(0, NORVI::CNftRuleset().Block("fd77::2", 1500, failure)) << failure;
    EXPECT_FALSE(connects("fd77::2"));
    expectFirst(NORVI::kRuleBlockedSource6, 0x08 | 0x20 | 0x40, 128, htonl(0xfd770000));
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
}

class NflogOverrunTest : public NflogLiveTest {
protected:
    NflogOverrunTest() { m_ReceiveBuffer = 4096; }
};

TEST_F(NflogOverrunTest, AFullSocketBufferIsCountedAsLostAndAsGaps) {
    // Datagrams to a closed port of the host.
    const auto send = [&](int count) {
        return Peer({"python3", "-c",
                     "import socket, sys\ns = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)\n"
                     "for n in range(int(sys.argv[1])): s.sendto(b'x' * 64, ('10.77.0.1', 9999))\n",
                     std::to_string(count)},
                    30000);
    };
    // 3000 while nobody reads: the buffer overflows.
    ASSERT_EQ(0, send(3000));
    std::vector<SourceRecord> records = Drain();
    // One more after the overrun, so that a loss at the very end shows as a gap.
    ASSERT_EQ(0, send(1));
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
