// The two record sources agree: traffic between two network namespaces that
// the test makes is captured on the host's side while the live receiver runs
// with the project's ruleset installed; the capture is then replayed, and the
// two record streams are compared field by field. Times differ by nature,
// and the interface's own hardware address, which a capture does not carry.
#include <net/if.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "driver/linux/NflogSource.h"
#include "tests/TempFolder.h"
#include "tests/driver/NetnsPair.h"

namespace {

using drivertest::CBackground;
using drivertest::CNetnsPair;
using drivertest::RunProcess;
using NORVI::SourceRecord;

constexpr int kGroup = 9;
constexpr const char* kServices = "tcp:8080,udp:5353";

// A record with the fields that may differ cleared: times and the
// interface's hardware address.
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

TEST(SourcesAgree, LiveRecordsAndTheReplayOfTheSameTrafficMatchFieldByField) {
    CNetnsPair net;
    if (!net.Failure().empty()) {
        GTEST_SKIP() << net.Failure();
    }
    TempFolder folder;
    const std::string capture = folder.Path() + "/live.pcap";
    ASSERT_TRUE(net.Enter(net.Host()));
    const uint32_t interface = if_nametoindex("vxa");
    NORVI::SourceOptions options;
    options.m_NflogGroup = kGroup;
    options.m_InstallRuleset = true;
    options.m_Services = kServices;
    std::string error;
    auto live = NORVI::CNflogSource::Open(options, error);
    ASSERT_NE(nullptr, live) << error;

    // The capture runs for a bounded time beside the traffic.
    std::thread dumper([&] {
        RunProcess(CNetnsPair::In(net.Host(), {"timeout", "-k", "2", "-s", "INT", "14", "tcpdump",
                                               "-U", "-n", "-i", "vxa", "-w", capture}),
                   20000);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    const auto peer = [&](std::vector<std::string> argv) {
        return RunProcess(CNetnsPair::In(net.Peer(), std::move(argv)), 30000);
    };
    const std::vector<std::string> nmap = {"nmap",      "-n", "-Pn", "--max-retries", "0", "-S",
                                           "10.77.0.2", "-e", "vxb"};
    const auto scan = [&](std::vector<std::string> extra) {
        std::vector<std::string> argv = nmap;
        argv.insert(argv.end(), extra.begin(), extra.end());
        return peer(argv);
    };
    {
        // Started without a wrapper, so that the kill by pid reaches nc itself.
        CBackground server(CNetnsPair::In(net.Host(), {"nc", "-l", "-k", "10.77.0.1", "8080"}));
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        EXPECT_EQ(0, scan({"-sX", "-p", "22,8080", "10.77.0.1"}));
        EXPECT_EQ(0, scan({"-sN", "-p", "22,8080", "10.77.0.1"}));
        EXPECT_EQ(0, scan({"-sS", "--scanflags", "SYNFIN", "-p", "22,8080", "10.77.0.1"}));
        EXPECT_EQ(0, scan({"-sA", "-p", "22,8080", "10.77.0.1"}));
        EXPECT_EQ(0, scan({"-sS", "-p", "8070-8090", "10.77.0.1"}));
        EXPECT_EQ(0, scan({"-sU", "-p", "5353,5354", "10.77.0.1"}));
        EXPECT_EQ(0, scan({"-sn", "-PE", "10.77.0.1"}));
        EXPECT_EQ(0,
                  peer({"sh", "-c", "echo hello | timeout 5 nc -N -s 10.77.0.3 10.77.0.1 8080"}));
        EXPECT_EQ(0, peer({"nmap", "-6", "-n", "-Pn", "--max-retries", "0", "-sS", "-p", "22,8080",
                           "fd77::1"}));
    }
    dumper.join();

    std::vector<SourceRecord> liveRecords;
    SourceRecord record;
    while (liveRecords.size() < 10000 &&
           live->Next(record, 500) == NORVI::CRecordSource::ReadResult::Record) {
        liveRecords.push_back(std::move(record));
    }
    live.reset();  // removes the ruleset
    net.Leave();

    options = NORVI::SourceOptions();
    options.m_CapturePath = capture;
    options.m_HostAddresses = {"10.77.0.1", "fd77::1"};
    options.m_Services = kServices;
    options.m_InterfaceIndex = interface;
    auto replay = NORVI::CreateCaptureSource(options, error);
    ASSERT_NE(nullptr, replay) << error;
    std::vector<SourceRecord> replayed;
    while (replay->Next(record, 0) == NORVI::CRecordSource::ReadResult::Record) {
        replayed.push_back(std::move(record));
    }
    EXPECT_EQ(0u, replay->Counters().m_Dropped);

    // The traffic reaches the flag rules, stray ACKs, allowed and denied TCP,
    // UDP, ICMP and IPv6.
    std::set<uint8_t> rules;
    for (const SourceRecord& one : liveRecords) {
        rules.insert(one.m_Record[24]);
    }
    EXPECT_GE(rules.size(), 7u);
    ::testing::Test::RecordProperty("records", static_cast<int>(liveRecords.size()));
    const size_t common = std::min(liveRecords.size(), replayed.size());
    for (size_t index = 0; index < common; ++index) {
        ASSERT_EQ(Comparable(liveRecords[index]), Comparable(replayed[index]))
            << "record " << index << ": live " << Describe(liveRecords[index]) << ", replay "
            << Describe(replayed[index]);
    }
    EXPECT_EQ(liveRecords.size(), replayed.size())
        << "next: " << (common < liveRecords.size() ? "live " + Describe(liveRecords[common]) : "")
        << (common < replayed.size() ? " replay " + Describe(replayed[common]) : "");
}

}  // namespace
