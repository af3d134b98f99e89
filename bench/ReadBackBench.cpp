// Read-back throughput: a family of eight files of 1 MiB each (the live file
// and seven old copies) read back whole for the packet role, through the
// script entry log:GetLogData and by the log object alone. The reference,
// measured in turn with each read-back in the same run, is `grep -c` of the
// packet lines over the same (cached) files, run as a process. Each reports
// its time beside grep's and the ratio grep / read-back (1.0: as fast), in
// wall time and in processor time (the read-back thread's against grep's own
// user and system time); on a loaded machine the second is the steadier.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <wx/filename.h>

#include "BenchClock.h"
#include "BenchScript.h"
#include "host/Dom.h"
#include "log/LogData.h"
#include "log/LogLineSink.h"

extern char** environ;

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
            m_Names.push_back(name);
        }
    }
    ~Family() { wxFileName::Rmdir(m_Folder, wxPATH_RMDIR_RECURSIVE); }

    const std::string& Folder() const { return m_Folder; }
    const std::vector<std::string>& Names() const { return m_Names; }
    size_t Bytes() const { return m_Bytes; }

private:
    std::string m_Folder;
    std::vector<std::string> m_Names;
    size_t m_Bytes = 0;
};

Family& SharedFamily() {
    static Family family;
    return family;
}

typedef std::chrono::steady_clock Clock;

double Seconds(Clock::time_point since) {
    return std::chrono::duration<double>(Clock::now() - since).count();
}

// Runs `grep -c ', f, '` over the family, output to /dev/null, and adds its
// processor time to cpuSeconds; false when it could not run or found
// nothing.
bool GrepCount(const Family& family, double& cpuSeconds) {
    std::vector<std::string> words = {"grep", "-c", ", f, "};
    words.insert(words.end(), family.Names().begin(), family.Names().end());
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(&word[0]);
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    pid_t pid;
    const int error = posix_spawnp(&pid, "grep", &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    struct rusage usage;
    if (error != 0 || wait4(pid, &status, 0, &usage) != pid) {
        return false;
    }
    cpuSeconds += double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                  double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Times readBack and grep in turn, each iteration; the iteration time is the
// read-back's.
template <typename ReadBack>
void AgainstGrep(benchmark::State& state, const Family& family, ReadBack readBack) {
    double ownSeconds = 0, ownCpuSeconds = 0;
    double grepSeconds = 0, grepCpuSeconds = 0;
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        const double cpuStart = ThreadCpuSeconds();
        readBack();
        ownCpuSeconds += ThreadCpuSeconds() - cpuStart;
        const double own = Seconds(start);
        state.SetIterationTime(own);
        ownSeconds += own;
        const Clock::time_point grepStart = Clock::now();
        if (!GrepCount(family, grepCpuSeconds)) {
            state.SkipWithError("grep failed");
            return;
        }
        grepSeconds += Seconds(grepStart);
    }
    const double runs = double(state.iterations());
    state.SetBytesProcessed(i64(state.iterations()) * i64(family.Bytes()));
    state.counters["ms"] = ownSeconds * 1000 / runs;
    state.counters["grep_ms"] = grepSeconds * 1000 / runs;
    state.counters["ratio"] = grepSeconds / ownSeconds;
    state.counters["cpu_ms"] = ownCpuSeconds * 1000 / runs;
    state.counters["grep_cpu_ms"] = grepCpuSeconds * 1000 / runs;
    state.counters["cpu_ratio"] = grepCpuSeconds / ownCpuSeconds;
}

// log:GetLogData(0, 0, 0, 5000) of the loaded module: the scan, the joined
// text, and the Lua string of 5.2 MB.
void BM_ReadBackScriptVsGrep(benchmark::State& state) {
    const Family& family = SharedFamily();
    CBenchScript script(
        "local dom = SLB.norv.Dom(':memory:')\n"
        "local log = SLB.vexil.LogData(dom)\n"
        "log:SetLogFilePath('" +
        family.Folder() +
        "')\n"
        // The closure keeps the store alive as long as the log object.
        "return function() return #log:GetLogData(0, 0, 0, 5000), dom end");
    lua_Integer length = 0;
    if (script.Error().empty()) {
        AgainstGrep(state, family, [&] { length = script.Call(); });
    }
    if (!script.Error().empty()) {
        state.SkipWithError(script.Error().c_str());
    }
    state.counters["result_bytes"] = double(length);
}
BENCHMARK(BM_ReadBackScriptVsGrep)->Unit(benchmark::kMillisecond)->UseManualTime();

// LogData::GetLogData into a sink: the scan alone.
void BM_ReadBackScanVsGrep(benchmark::State& state) {
    const Family& family = SharedFamily();
    NorvCore::CDom dom(":memory:");
    VEXIL::LogData log(dom);
    log.SetLogFilePath(family.Folder());
    size_t lines = 0;
    AgainstGrep(state, family, [&] {
        VEXIL::LogLineSink sink(VEXIL::LogLineSink::kMaxLines);
        log.GetLogData(VEXIL::kRolePacket, 0, 0, "bench", &sink);
        lines = sink.LineCount();
    });
    state.counters["lines"] = double(lines);
}
BENCHMARK(BM_ReadBackScanVsGrep)->Unit(benchmark::kMillisecond)->UseManualTime();

}  // namespace
