// Syslog messages per second from LogData::SyslogFormat: a packet record of a
// known rule and a payload record of a known filter, each in the native form
// and in CEF with the labels (format 2). The host's syslog settings are read
// again for every message, as they are in the agent.
#include <arpa/inet.h>

#include <cstring>
#include <string>

#include <benchmark/benchmark.h>
#include <lua.hpp>

#include "config/ConfigUtils.h"
#include "driver/record/RecordBuilder.h"
#include "host/Dom.h"
#include "host/Syslogger.h"
#include "log/LogData.h"
#include "log/RecordCopy.h"

namespace {

using VEXIL::DriverLogEntry;

// A TCP record from 192.0.2.7; with payload set, a detect-only reset of
// filter 4711 with a note, else a deny of rule 1042.
void FillRecord(VEXIL::RecordCopy& copy, bool payload) {
    const u8 source[4] = {192, 0, 2, 7};
    const u8 destination[4] = {198, 51, 100, 2};
    NORVI::CRecordBuilder record;
    record.Time(1700000000, 0)
        .Action(payload ? 0x82 : 1)
        .Reason(payload ? -500 : 0)
        .Id(payload ? 4711 : 1042)
        .PacketLen(payload ? 400 : 60)
        .Count(1)
        .PutNetwork(NORVI::Record::kIphFragOff, payload ? 0 : 0x4000)
        .Ipv4(source, destination, 6)
        .Ports(40123, payload ? 80 : 23)
        .TcpFlags(payload ? 0x18 : 0x02);
    if (payload) {
        record.AddFlags(NORVI::Record::kFlagBit1)
            .PutUnsigned(NORVI::Record::kPacketPos, 120)
            .PutUnsigned(NORVI::Record::kStreamPos, 4096)
            .Note("abc", 3)
            .AddLogFlags(0x08);
    }
    copy.Fill(record.Bytes(), nullptr, 0);
}

void BM_SyslogFormat(benchmark::State& state) {
    const bool payload = state.range(0) != 0;
    const bool cef = state.range(1) != 0;
    NorvCore::CDom dom(":memory:");
    dom.Set("norv.syslog.cef", cef);
    dom.Set("norv.syslog.format", i64(cef ? 2 : 0));
    lua_State* L = luaL_newstate();
    luaL_dostring(L,
                  "return { packetFilterMap = { [1042] = { name = 'Block telnet', filterAction = 0 "
                  "} }, payloadFilterMap = { [4711] = { name = 'Web Attack', severity = 2, "
                  "identifier = '4711', incoming = true } }, agentConfiguration = { hostID = 7, "
                  "hostname = 'bench' } }");
    VEXIL::ConfigUtils config(L, lua_gettop(L));
    VEXIL::LogData log(dom);
    log.SetConfigUtils(&config);
    VEXIL::RecordCopy copy;
    FillRecord(copy, payload);
    std::string message;
    for (auto _ : state) {
        log.SyslogFormat(copy.Entry(), message);
        benchmark::DoNotOptimize(message.data());
    }
    log.SetConfigUtils(nullptr);
    lua_close(L);
    state.SetItemsProcessed(i64(state.iterations()));
    state.SetLabel(std::string(payload ? "payload" : "packet") +
                   (cef ? ", CEF format 2" : ", native"));
}
BENCHMARK(BM_SyslogFormat)->ArgsProduct({{0, 1}, {0, 1}});

// The share of the host's settings: the syslogger reads them from the store
// once per message.
void BM_SyslogSettingsRead(benchmark::State& state) {
    NorvCore::CDom dom(":memory:");
    dom.Set("norv.syslog.cef", true);
    NorvCore::CSyslogger syslogger("pnp");
    for (auto _ : state) {
        syslogger.UpdateConfig();
        benchmark::DoNotOptimize(syslogger.GetSyslogFormatCEF());
    }
    state.SetItemsProcessed(i64(state.iterations()));
}
BENCHMARK(BM_SyslogSettingsRead);

}  // namespace
