// Syslog messages through the script face, log:SyslogFormat, against the
// record path of the same record: log:WriteLogData flooding one cached line,
// measured in turn with it in the same run. A packet record of a known rule
// and a payload record of a known filter, each in the native form and in CEF
// with the labels (format 2). The host's syslog settings are consulted for
// every message, as they are in the agent. Reports both rates and the ratio
// syslog / flood (1.0: as fast). Times are processor times of the benchmark
// thread.
#include <arpa/inet.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include <benchmark/benchmark.h>
#include <wx/filename.h>

#include "BenchClock.h"
#include "BenchScript.h"
#include "driver/record/RecordBuilder.h"
#include "host/Dom.h"
#include "host/Syslogger.h"
#include "log/DriverLogEntry.h"

namespace {

using VEXIL::DriverLogEntry;

// Messages (or records) per timed batch.
constexpr int kBatch = 256;

// A TCP record from 192.0.2.7; with payload set, a detect-only reset of
// filter 4711 with a note, else a deny of rule 1042.
std::string MakeRecord(bool payload) {
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
    return std::string(reinterpret_cast<const char*>(record.Bytes()), DriverLogEntry::kSize);
}

void BM_SyslogVsFlood(benchmark::State& state) {
    const bool payload = state.range(0) != 0;
    const bool cef = state.range(1) != 0;
    char pattern[] = "/tmp/vexil-bench-XXXXXX";
    const std::string folder = mkdtemp(pattern);
    const std::string settings = std::string("dom:SetSetting('norv.syslog.cef', ") +
                                 (cef ? "true" : "false") +
                                 ")\n"
                                 "dom:SetSetting('norv.syslog.format', " +
                                 (cef ? "2" : "0") + ")\n";
    CBenchScript script(
        "local dom = SLB.norv.Dom(':memory:')\n" + settings +
        "local syslog = SLB.vexil.LogData(dom)\n"
        "local flood = SLB.vexil.LogData(dom)\n"
        "flood:SetLogFilePath('" +
        folder +
        "')\n"
        "local config = { packetFilterMap = { [1042] = { name = 'Block telnet', filterAction = 0 "
        "} }, payloadFilterMap = { [4711] = { name = 'Web Attack', severity = 2, identifier = "
        "'4711', incoming = true } }, agentConfiguration = { hostID = 7, hostname = 'bench' }, "
        "packetFilterLog = { size = 1024, keep = 8, cacheSize = 128, cacheLifetime = 1800000, "
        "cacheStaletime = 900000 }, payloadFilterLog = { size = 1024, keep = 8, cacheSize = 128, "
        "cacheLifetime = 1800000, cacheStaletime = 900000 }, trafficAnalysisConfiguration = {}, "
        "probeConfigurationMap = {} }\n"
        "return function(mode)\n"
        "  local n = 0\n"
        "  if mode == 0 then\n"
        "    for i = 1, " +
        std::to_string(kBatch) +
        " do n = n + #syslog:SyslogFormat(RECORD, '', config) end\n"
        "  else\n"
        "    for i = 1, " +
        std::to_string(kBatch) +
        " do if flood:WriteLogData(RECORD, '', config, '') then n = n + 1 end end\n"
        "  end\n"
        "  return n, dom\n"
        "end");
    script.SetGlobal("RECORD", MakeRecord(payload));
    double syslogSeconds = 0;
    double floodSeconds = 0;
    lua_Integer bytes = 0, cached = 0;
    for (auto _ : state) {
        const double start = ThreadCpuSeconds();
        bytes = script.Call(0);
        const double syslog = ThreadCpuSeconds() - start;
        state.SetIterationTime(syslog);
        syslogSeconds += syslog;
        const double floodStart = ThreadCpuSeconds();
        cached = script.Call(1);
        floodSeconds += ThreadCpuSeconds() - floodStart;
    }
    if (!script.Error().empty() || bytes == 0 || cached != kBatch) {
        state.SkipWithError(script.Error().empty() ? "no message or record not cached"
                                                   : script.Error().c_str());
    }
    wxFileName::Rmdir(folder, wxPATH_RMDIR_RECURSIVE);
    const double messages = double(state.iterations()) * kBatch;
    state.SetItemsProcessed(i64(messages));
    state.counters["syslog_per_s"] = messages / syslogSeconds;
    state.counters["flood_per_s"] = messages / floodSeconds;
    state.counters["ratio"] = floodSeconds / syslogSeconds;
    state.SetLabel(std::string(payload ? "payload" : "packet") +
                   (cef ? ", CEF format 2" : ", native"));
}
BENCHMARK(BM_SyslogVsFlood)->ArgsProduct({{0, 1}, {0, 1}})->UseManualTime();

// The host's settings read alone: once the store is unchanged, one
// comparison of its settings stamp.
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
