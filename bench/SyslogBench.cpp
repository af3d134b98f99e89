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
#include "host/Dom.h"
#include "host/Syslogger.h"
#include "log/LogData.h"
#include "log/RecordCopy.h"

namespace {

using VEXIL::DriverLogEntry;

// A TCP record from 192.0.2.7; with payload set, a detect-only reset of
// filter 4711 with a note, else a deny of rule 1042.
void FillRecord(VEXIL::RecordCopy& copy, bool payload) {
    u8 record[DriverLogEntry::kSize] = {};
    auto put32 = [&](size_t offset, u32 value) { std::memcpy(record + offset, &value, 4); };
    auto put16 = [&](size_t offset, u16 value) { std::memcpy(record + offset, &value, 2); };
    put32(0, 1700000000);
    put16(20, payload ? 0x82 : 1);
    put16(22, u16(payload ? -500 : 0));
    put32(24, payload ? 4711 : 1042);
    put16(38, DriverLogEntry::kIpv4 | DriverLogEntry::kTransportValid |
                  (payload ? DriverLogEntry::kFlagBit1 : 0));
    put32(52, payload ? 400 : 60);
    put32(96, 1);
    put16(126, htons(payload ? 0 : 0x4000));
    record[129] = 6;
    put32(132, inet_addr("192.0.2.7"));
    put32(136, inet_addr("198.51.100.2"));
    put16(160, htons(40123));
    put16(162, htons(payload ? 80 : 23));
    record[173] = payload ? 0x18 : 0x02;
    if (payload) {
        put16(36, 120);
        put32(32, 4096);
        put16(56, 3);
        std::memcpy(record + 60, "abc", 3);
        put16(84, 0x08);
    }
    copy.Fill(record, nullptr, 0);
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
