// Records per second through LogData::WriteLogData: a flood of one record,
// distinct records cycling through a full cache, and no cache at all (every
// record its own line, files rotating).
#include <arpa/inet.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <wx/filename.h>
#include <lua.hpp>

#include "config/ConfigUtils.h"
#include "driver/record/RecordBuilder.h"
#include "host/Dom.h"
#include "log/LogData.h"

namespace {

using VEXIL::DriverLogEntry;

// An inbound TCP SYN, IPv4, denied by rule 1042.
DriverLogEntry MakeRecord(u16 sourcePort) {
    const u8 source[4] = {192, 0, 2, 7};
    const u8 destination[4] = {198, 51, 100, 2};
    NORVI::CRecordBuilder builder;
    builder.Time(1700000000, 0)
        .EndTime(1700000000, 0)
        .Action(1)
        .Id(1042)
        .PacketLen(60)
        .Count(1)
        .PutNetwork(NORVI::Record::kIphTotalLen, 60)
        .PutNetwork(NORVI::Record::kIphFragOff, 0x4000)
        .Ipv4(source, destination, 6)
        .Ports(sourcePort, 23)
        .TcpFlags(0x02);
    DriverLogEntry record;
    std::memcpy(record.bytes, builder.Bytes(), sizeof record.bytes);
    return record;
}

// A log object in a fresh folder with a configuration table on a Lua state.
class Fixture {
public:
    explicit Fixture(int cacheSize) : m_Dom(":memory:"), m_Lua(luaL_newstate()) {
        char pattern[] = "/tmp/vexil-bench-XXXXXX";
        m_Folder = mkdtemp(pattern);
        const std::string config =
            "return { packetFilterLog = { size = 1024, keep = 8, cacheSize = " +
            std::to_string(cacheSize) +
            ", cacheLifetime = 1800000, cacheStaletime = 900000 },"
            " trafficAnalysisConfiguration = {}, probeConfigurationMap = {} }";
        luaL_dostring(m_Lua, config.c_str());
        m_Config = new VEXIL::ConfigUtils(m_Lua, lua_gettop(m_Lua));
        m_Log = new VEXIL::LogData(m_Dom);
        m_Log->SetLogFilePath(m_Folder);
        m_Log->SetConfigUtils(m_Config);
    }
    ~Fixture() {
        m_Log->FlushBufferedData(true);
        delete m_Log;
        delete m_Config;
        lua_close(m_Lua);
        wxFileName::Rmdir(m_Folder, wxPATH_RMDIR_RECURSIVE);
    }
    bool Write(const DriverLogEntry& record) {
        return m_Log->WriteLogData(&record, nullptr, 0, nullptr, 0);
    }

private:
    NorvCore::CDom m_Dom;
    lua_State* m_Lua;
    VEXIL::ConfigUtils* m_Config;
    VEXIL::LogData* m_Log;
    std::string m_Folder;
};

void BM_IdenticalFlood(benchmark::State& state) {
    Fixture fixture(128);
    const DriverLogEntry record = MakeRecord(40123);
    for (auto _ : state) {
        benchmark::DoNotOptimize(fixture.Write(record));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_IdenticalFlood);

void BM_DistinctCyclingFullCache(benchmark::State& state) {
    Fixture fixture(1024);
    std::vector<DriverLogEntry> records;
    for (u16 i = 0; i < 1024; ++i) {
        records.push_back(MakeRecord(u16(20000 + i)));
    }
    size_t next = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(fixture.Write(records[next]));
        next = (next + 1) % records.size();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DistinctCyclingFullCache);

void BM_NoCacheRotating(benchmark::State& state) {
    Fixture fixture(0);
    const DriverLogEntry record = MakeRecord(40123);
    for (auto _ : state) {
        benchmark::DoNotOptimize(fixture.Write(record));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_NoCacheRotating);

}  // namespace
