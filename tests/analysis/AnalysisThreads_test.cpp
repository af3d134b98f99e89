// Record intake and CacheMaintenance on two threads against one log object,
// as the locks of the analysis allow: each thread reads its own configuration
// table on its own Lua state, both block attackers through one driver handle.
#include <arpa/inet.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <lua.hpp>

#include "config/ConfigUtils.h"
#include "driver/record/RecordBuilder.h"
#include "driver/standin/NorviControl.h"
#include "host/Dom.h"
#include "host/NorviLoader.h"
#include "host/Ticks.h"
#include "host/Trace.h"
#include "host/norvi.h"
#include "log/LogData.h"
#include "tests/TempFolder.h"

using VEXIL::DriverLogEntry;

namespace {

constexpr int kSources = 40;  // of each kind
constexpr int kRounds = 4;
constexpr int kScanPorts = 70;

// Blocking NULL probes (with a heartbeat) and scanners, for long enough that
// no detection expires while the clock runs on.
const char* const kConfiguration =
    "return { packetFilterLog = { size = 1024, keep = 8, cacheSize = 128,"
    "  cacheLifetime = 1800000, cacheStaletime = 900000 },"
    "  trafficAnalysisConfiguration = {"
    "    whitelistIpList = { items = '10.9.0.0/16', name = 'trusted' } },"
    "  probeConfigurationMap = { [1] = { blockAttackerSeconds = 1000000 },"
    "    [2] = { blockAttackerSeconds = 1000000, notifyImmediately = true } },"
    "  platformInterfaceMap = { ['10.8.0.1'] = { } } }";

// An incoming IPv4 TCP record from 10.<kind>.0.<source>, denied.
DriverLogEntry Record(int kind, int source, const char* dest, u16 port, u8 tcpFlags) {
    const u8 sourceAddress[4] = {10, u8(kind), 0, u8(source)};
    u8 destAddress[4];
    inet_pton(AF_INET, dest, destAddress);
    NORVI::CRecordBuilder builder;
    builder.Action(1).Ipv4(sourceAddress, destAddress, 6).Ports(40000, port).TcpFlags(tcpFlags);
    DriverLogEntry record;
    std::memcpy(record.bytes, builder.Bytes(), sizeof record.bytes);
    return record;
}

// Blocked addresses (dotted) and how often each was requested.
std::map<std::string, int> TakeBlockRequests() {
    const auto take = reinterpret_cast<size_t (*)(void*, size_t)>(
        NorvCore::NorviSymbol("norvi_test_take_blacklist_requests"));
    std::map<std::string, int> blocked;
    u8 batch[4 * kSources * NORVI_BLACKLIST_REQUEST_SIZE];  // room for more than there can be
    const size_t taken = take(batch, 4 * kSources);
    for (size_t i = 0; i < taken; ++i) {
        in_addr address;
        std::memcpy(&address, batch + i * NORVI_BLACKLIST_REQUEST_SIZE + 8, 4);
        ++blocked[inet_ntoa(address)];
    }
    return blocked;
}

TEST(AnalysisThreads, RecordIntakeAndMaintenanceShareOneObject) {
    ASSERT_NE(nullptr, NorvCore::NorviSymbol("norvi_test_take_blacklist_requests"));
    norvi_handle_t handle = norvi_open();
    ASSERT_NE(nullptr, handle);
    NorvCore::SetManualTicks(5000000);
    NorvCore::SetTraceCategories("LogScan");
    TempFolder folder;
    NorvCore::CDom dom(":memory:");
    dom.Set("norv.baseFolder", folder.Path());
    VEXIL::LogData log(dom);
    log.SetNorviHandle(handle);
    // Each thread reads the configuration on a Lua state of its own.
    std::unique_ptr<lua_State, decltype(&lua_close)> states[2] = {{luaL_newstate(), &lua_close},
                                                                  {luaL_newstate(), &lua_close}};
    for (const auto& state : states) {
        ASSERT_EQ(LUA_OK, luaL_dostring(state.get(), kConfiguration));
    }
    VEXIL::ConfigUtils recordConfig(states[0].get(), 1);
    VEXIL::ConfigUtils maintenanceConfig(states[1].get(), 1);

    std::atomic<bool> done(false);
    int passes = 0;
    std::thread maintenance([&] {
        while (!done.load()) {
            NorvCore::AdvanceManualTicks(3000);
            log.CacheMaintenance(&maintenanceConfig);
            ++passes;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    std::thread records([&] {
        log.SetConfigUtils(&recordConfig);
        auto write = [&log](DriverLogEntry record) {
            log.WriteLogData(&record, nullptr, 0, nullptr, 0);
        };
        for (int round = 0; round < kRounds; ++round) {
            for (int source = 0; source < kSources; ++source) {
                write(Record(3, source, "10.8.0.1", 80, 0x00));  // NULL probes
                write(Record(9, source, "10.8.0.1", 80, 0x00));  // whitelisted
                write(Record(1, source, "10.8.0.1", 80, 0x02));  // one port: benign
                for (int port = 0; port < kScanPorts; ++port) {
                    write(Record(4, source, "10.8.0.2", u16(1000 + port), 0x02));  // scanners
                }
            }
        }
        log.SetConfigUtils(nullptr);
        done.store(true);
    });
    records.join();
    maintenance.join();
    EXPECT_GT(passes, 0);

    // The last bin closes on this thread, with no table: nothing is blocked
    // then, and the event states the seconds all the same.
    NorvCore::AdvanceManualTicks(log.GetTimeBinMsec() + 1);
    EXPECT_FALSE(log.CacheMaintenance(nullptr));
    EXPECT_FALSE(recordConfig.HasPendingError());
    EXPECT_FALSE(maintenanceConfig.HasPendingError());

    // One event per NULL source and at most one per scanner (with the counts
    // of one address), however the threads met; none for the whitelisted
    // sources, nor for a source of one port.
    std::map<std::string, int> detections;  // by probe type and source
    size_t nullScans = 0;
    for (const NorvCore::AgentEvent& event : dom.AgentEvents()) {
        const std::string detail = event.detail.ToStdString();
        const std::string key = detail.substr(0, detail.find("|6|1000000"));
        const bool nullScan = event.number == 7002 && key.rfind("NullScan|10.3.0.", 0) == 0 &&
                              detail == key + "|6|1000000";
        const bool scanner = event.number == 7001 && key.rfind("HostOrPortScan|10.4.0.", 0) == 0 &&
                             detail.compare(key.size(), 13, "|6|1000000|1|") == 0;
        EXPECT_TRUE(nullScan || scanner) << event.number << " " << detail;
        EXPECT_EQ(1, ++detections[key]) << detail;
        nullScans += nullScan;
    }
    EXPECT_EQ(size_t(kSources), nullScans);
    u64 heartbeats = 0;
    dom.ConditionQuery("norv.HeartbeatNow", heartbeats, nullptr, nullptr);
    EXPECT_EQ(u64(kSources), heartbeats);

    // Every NULL source was blocked, and no address twice; scanners flagged
    // by the last pass, which had no table, were not.
    size_t nullBlocks = 0;
    for (const auto& entry : TakeBlockRequests()) {
        EXPECT_EQ(1, entry.second) << entry.first;
        nullBlocks += entry.first.rfind("10.3.0.", 0) == 0;
    }
    EXPECT_EQ(size_t(kSources), nullBlocks);
    NorvCore::SetTraceCategories("");
    NorvCore::TakeTraceLines();
    NorvCore::UseRealTicks();
    norvi_close(handle);
}

}  // namespace
