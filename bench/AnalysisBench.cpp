// The flow tracking with many sources: 100,000 distinct sources each touch a
// few ports of one address in one time bin. Reports the heap held per tracked
// source while the bin is open, and times the CacheMaintenance call that
// closes the bin and scores every source. With 3 ports a bin is clean and
// leaves nothing behind; with 4 it is suspect and every source becomes a
// scan candidate.
#include <arpa/inet.h>
#include <malloc.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <benchmark/benchmark.h>
#include <wx/filename.h>
#include <lua.hpp>

#include "config/ConfigUtils.h"
#include "driver/record/RecordBuilder.h"
#include "host/Dom.h"
#include "host/Ticks.h"
#include "log/LogData.h"

namespace {

using VEXIL::DriverLogEntry;

constexpr u32 kSources = 100000;

const char* const kConfiguration =
    "return { packetFilterLog = { size = 1024, keep = 8, cacheSize = 128,"
    "  cacheLifetime = 1800000, cacheStaletime = 900000 },"
    "  trafficAnalysisConfiguration = { },"
    "  probeConfigurationMap = { [1] = { blockAttackerSeconds = 0 } } }";

// Bytes of the heap in use.
double HeapInUse() {
    return double(mallinfo2().uordblks);
}

// A log object whose analysis configuration (scanner detection on) was read
// from a table by one record, on a manual clock.
class ScanFixture {
public:
    ScanFixture() : m_Dom(":memory:"), m_Lua(luaL_newstate()) {
        char pattern[] = "/tmp/vexil-bench-XXXXXX";
        m_Folder = mkdtemp(pattern);
        m_Dom.Set("norv.baseFolder", m_Folder);
        NorvCore::SetManualTicks(1000000);
        luaL_dostring(m_Lua, kConfiguration);
        m_Config.reset(new VEXIL::ConfigUtils(m_Lua, lua_gettop(m_Lua)));
        m_Log.reset(new VEXIL::LogData(m_Dom));
        const u8 zero[4] = {};
        NORVI::CRecordBuilder builder;
        builder.Ipv4(zero, zero, 17).Ports(40000, 0);
        DriverLogEntry record;
        std::memcpy(record.bytes, builder.Bytes(), sizeof record.bytes);
        m_Log->SetConfigUtils(m_Config.get());
        m_Log->WriteLogData(&record, nullptr, 0, nullptr, 0);
        m_Log->SetConfigUtils(nullptr);
    }
    ~ScanFixture() {
        m_Log.reset();
        m_Config.reset();
        lua_close(m_Lua);
        wxFileName::Rmdir(m_Folder, wxPATH_RMDIR_RECURSIVE);
        NorvCore::UseRealTicks();
    }

    VEXIL::LogData& Log() { return *m_Log; }

private:
    NorvCore::CDom m_Dom;
    lua_State* m_Lua;
    std::string m_Folder;
    std::unique_ptr<VEXIL::ConfigUtils> m_Config;
    std::unique_ptr<VEXIL::LogData> m_Log;
};

// Source i (10.x.y.z) touches ports 1000 to 1000 + ports - 1 of one server.
void TouchPorts(VEXIL::LogData& log, int ports) {
    const u32 server = inet_addr("198.51.100.2");
    for (u32 source = 0; source < kSources; ++source) {
        const u32 address = htonl((10u << 24) | (source + 1));
        for (int port = 0; port < ports; ++port) {
            log.HandleTerminatedFlow(
                VEXIL::TerminatedFlow{server, address, u16(1000 + port), 40000}, 6);
        }
    }
}

void BM_CloseBinOfManySources(benchmark::State& state) {
    const int ports = int(state.range(0));
    double bytesPerSource = 0;
    double candidateBytesPerSource = 0;
    for (auto _ : state) {
        ScanFixture fixture;
        VEXIL::LogData& log = fixture.Log();
        const double before = HeapInUse();
        TouchPorts(log, ports);
        bytesPerSource = (HeapInUse() - before) / kSources;

        NorvCore::AdvanceManualTicks(log.GetTimeBinMsec() + 1);
        const auto start = std::chrono::steady_clock::now();
        benchmark::DoNotOptimize(log.CacheMaintenance(nullptr));
        const auto end = std::chrono::steady_clock::now();
        state.SetIterationTime(std::chrono::duration<double>(end - start).count());
        candidateBytesPerSource = (HeapInUse() - before) / kSources;
    }
    state.counters["bytes_per_source_open_bin"] = bytesPerSource;
    state.counters["bytes_per_source_after_close"] = candidateBytesPerSource;
    state.counters["sources"] = kSources;
}
BENCHMARK(BM_CloseBinOfManySources)
    ->Arg(3)
    ->Arg(4)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(5);

}  // namespace
