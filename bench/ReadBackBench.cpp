// Read-back throughput: a family of eight files of 1 MiB each (the live file
// and seven old copies) read back whole for the packet role, by the log
// object itself and through the script entry, against `grep -c` over the same
// files in the same run as the reference.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>

#include <benchmark/benchmark.h>
#include <wx/filename.h>
#include <lua.hpp>

#include "host/Dom.h"
#include "log/LogData.h"
#include "log/LogLineSink.h"

namespace {

constexpr int kFiles = 8;
constexpr size_t kFileBytes = 1024 * 1024;
constexpr i64 kFirstTime = 1700000000;

// One line as the store writes it, with a hex dump of varying length.
std::string MakeLine(u64 index) {
    const i64 seconds = kFirstTime + i64(index);
    const time_t when = time_t(seconds);
    struct tm local;
    gmtime_r(&when, &local);
    char head[64];
    strftime(head, sizeof head, "%Y/%m/%d, %H:%M:%S, ", &local);
    const bool payload = index % 3 == 0;
    char body[256];
    snprintf(body, sizeof body,
             "%s, 0, 1, 00 11 22 33 44 55, IP, , , TCP, SYN , 192.0.2.%u, %u, 198.51.100.2, 23, "
             "60, 1, %d, %u, 3, , 0, 0, 0, 0, , , ",
             payload ? "d" : "f", unsigned(index % 250), unsigned(1024 + index % 60000),
             payload ? -500 : 0, unsigned(index));
    std::string line = head;
    line += body;
    line.append((index * 37) % 400, "0123456789ABCDEF"[index % 16]);
    const u64 usec = u64(seconds) * 1000000 + index % 1000000;
    char tail[96];
    snprintf(tail, sizeof tail, ", 1, %" PRIu64 ", %" PRIu64 "\r\n", usec, usec);
    return line + tail;
}

// The family in a fresh folder, oldest copy first in time.
class Family {
public:
    Family() {
        char pattern[] = "/tmp/vexil-bench-XXXXXX";
        m_Folder = mkdtemp(pattern);
        u64 index = 0;
        for (int number = kFiles - 1; number >= 0; --number) {
            std::string name = m_Folder + "/norv_mpnp";
            if (number > 0) {
                name += "." + std::to_string(number);
            }
            std::string text;
            while (text.size() < kFileBytes) {
                text += MakeLine(index++);
            }
            text.resize(kFileBytes - 2);
            text.resize(text.rfind('\n') + 1);
            std::ofstream(name, std::ios::binary) << text;
            m_Bytes += text.size();
            m_Names += " '" + name + "'";
        }
    }
    ~Family() { wxFileName::Rmdir(m_Folder, wxPATH_RMDIR_RECURSIVE); }

    const std::string& Folder() const { return m_Folder; }
    const std::string& Names() const { return m_Names; }
    size_t Bytes() const { return m_Bytes; }

private:
    std::string m_Folder;
    std::string m_Names;
    size_t m_Bytes = 0;
};

Family& SharedFamily() {
    static Family family;
    return family;
}

void BM_GetLogData(benchmark::State& state) {
    Family& family = SharedFamily();
    NorvCore::CDom dom(":memory:");
    VEXIL::LogData log(dom);
    log.SetLogFilePath(family.Folder());
    size_t lines = 0;
    for (auto _ : state) {
        VEXIL::LogLineSink sink(VEXIL::LogLineSink::kMaxLines);
        log.GetLogData(VEXIL::kRolePacket, 0, 0, "bench", &sink);
        lines = sink.Records().size();
        benchmark::DoNotOptimize(lines);
    }
    state.SetBytesProcessed(i64(state.iterations()) * i64(family.Bytes()));
    state.counters["lines"] = double(lines);
}
BENCHMARK(BM_GetLogData)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same through log:GetLogData of the loaded module: the scan plus the
// joining of the lines into one UTF-8 string for the script.
void BM_GetLogDataScript(benchmark::State& state) {
    Family& family = SharedFamily();
    lua_State* L = luaL_newstate();
    luaL_openlibs(L);
    const std::string setup = "package.cpath = '" VEXIL_BUILD_DIR
                              "/?.so;' .. package.cpath\n"
                              "require 'norv'; require 'vexil'\n"
                              "local dom = SLB.norv.Dom(':memory:')\n"
                              "local log = SLB.vexil.LogData(dom)\n"
                              "log:SetLogFilePath('" +
                              family.Folder() +
                              "')\n"
                              // The closure keeps the store alive as long as the log object.
                              "return function() return #log:GetLogData(0, 0, 0, 5000), dom end";
    if (luaL_dostring(L, setup.c_str()) != LUA_OK) {
        state.SkipWithError(lua_tostring(L, -1));
        lua_close(L);
        return;
    }
    lua_Integer length = 0;
    for (auto _ : state) {
        lua_pushvalue(L, -1);
        lua_call(L, 0, 1);
        length = lua_tointeger(L, -1);
        lua_pop(L, 1);
    }
    state.SetBytesProcessed(i64(state.iterations()) * i64(family.Bytes()));
    state.counters["result_bytes"] = double(length);
    lua_close(L);
}
BENCHMARK(BM_GetLogDataScript)->Unit(benchmark::kMillisecond)->UseRealTime();

// The reference: counting the packet lines of the same files with grep. The
// time is wall-clock time, as for the two above, since grep's own processor
// time is not the benchmark's.
void BM_GrepCount(benchmark::State& state) {
    Family& family = SharedFamily();
    const std::string command = "grep -c ', f, ' " + family.Names() + " > /dev/null";
    for (auto _ : state) {
        if (std::system(command.c_str()) != 0) {
            state.SkipWithError("grep failed");
            break;
        }
    }
    state.SetBytesProcessed(i64(state.iterations()) * i64(family.Bytes()));
}
BENCHMARK(BM_GrepCount)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
