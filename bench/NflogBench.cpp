// Records per second from the packet filter's NFLOG group into
// LogData::WriteLogData, beside ulogd2 (NFLOG input, LOGEMU text file output)
// measured in the same run on the same flood. The receiver alone (records
// made, none written) is measured too, to tell the two costs apart.
//
// The log object runs with the agent's bundled packet log settings
// (share/config.lua: file size, copies, cache size and lifetimes), with its
// cache on (argument cache 1) or off (cache 0, every record its own line).
// The flood comes from one source port (ports 1) or rotates over a few
// thousand (ports 4096), so that coalescing in the cache cannot hide the cost
// of each line; the records per written line are reported (records_per_line).
//
// Inside two namespaces made here (no route out), the project's ruleset
// denies and logs every UDP datagram of a bounded flood. Each receiver meets
// the same situation: the flood is sent while it does not read (our source
// is not polled, ulogd2 is stopped), into a socket buffer large enough for
// all of it, and is then timed from its first read to its last record. Both
// must end with exactly as many records as the kernel's rule counter.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>
#include <wx/dir.h>
#include <wx/filename.h>
#include <lua.hpp>

#include "config/ConfigUtils.h"
#include "driver/linux/NflogSource.h"
#include "driver/linux/NftRuleset.h"
#include "driver/linux/RulesetVerdicts.h"
#include "host/Dom.h"
#include "log/LogData.h"
#include "tests/driver/NetnsPair.h"

namespace {

using Clock = std::chrono::steady_clock;
using drivertest::CBackground;
using drivertest::CNetnsPair;
using drivertest::RunProcess;

constexpr int kGroup = 9;
constexpr size_t kFlood = 100000;
constexpr int kBuffer = 256 << 20;

// Sends count UDP datagrams of 64 bytes from the peer namespace to a port
// that the ruleset denies, on a thread of its own that enters the namespace.
// With ports above 1 the datagrams leave from that many sockets in turn, so
// that consecutive datagrams differ in their source port.
void Flood(const std::string& peer, size_t count, size_t ports) {
    std::thread sender([&] {
        const int space = open(("/run/netns/" + peer).c_str(), O_RDONLY | O_CLOEXEC);
        if (space < 0 || setns(space, CLONE_NEWNET) != 0) {
            return;
        }
        close(space);
        sockaddr_in target = {};
        target.sin_family = AF_INET;
        target.sin_port = htons(9999);
        inet_pton(AF_INET, "10.77.0.1", &target.sin_addr);
        char payload[64] = {};
        if (ports > 1) {
            std::vector<int> sockets;
            for (size_t i = 0; i < ports; ++i) {
                const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
                if (fd < 0) {
                    break;
                }
                sockets.push_back(fd);
            }
            for (size_t sent = 0; sent < count && !sockets.empty(); ++sent) {
                const int fd = sockets[sent % sockets.size()];
                if (sendto(fd, payload, sizeof payload, 0, reinterpret_cast<sockaddr*>(&target),
                           sizeof target) != sizeof payload) {
                    break;
                }
            }
            for (const int fd : sockets) {
                close(fd);
            }
            return;
        }
        const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        iovec part = {payload, sizeof payload};
        std::vector<mmsghdr> batch(64);
        for (mmsghdr& message : batch) {
            message.msg_hdr = {};
            message.msg_hdr.msg_name = &target;
            message.msg_hdr.msg_namelen = sizeof target;
            message.msg_hdr.msg_iov = &part;
            message.msg_hdr.msg_iovlen = 1;
        }
        for (size_t sent = 0; sent < count;) {
            const unsigned int now =
                static_cast<unsigned int>(std::min(batch.size(), count - sent));
            const int done = sendmmsg(fd, batch.data(), now, 0);
            if (done <= 0) {
                break;
            }
            sent += static_cast<size_t>(done);
        }
        close(fd);
    });
    sender.join();
}

// The packets that the deny-UDP rule has counted in the host namespace.
uint64_t DeniedUdp(const CNetnsPair& net, const std::string& folder) {
    const std::string path = folder + "/counters";
    RunProcess(CNetnsPair::In(net.Host(), {"nft", "list", "chain", "inet", "vexil", "input"}),
               10000, path);
    std::ifstream file(path);
    const std::regex rule(R"re(packets (\d+) bytes \d+ log prefix "vx:\d+:\d+:41")re");
    for (std::string line; std::getline(file, line);) {
        std::smatch match;
        if (std::regex_search(line, match, rule)) {
            return std::stoull(match[1]);
        }
    }
    return 0;
}

// Lines of a file, counted without keeping them.
size_t Lines(const std::string& path) {
    std::ifstream file(path);
    return static_cast<size_t>(
        std::count(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>(), '\n'));
}

// Lines in the files of a folder, and the records they stand for (the sum of
// each line's count, the third field from its end).
std::pair<uint64_t, uint64_t> LinesAndRecords(const std::string& folder) {
    wxArrayString files;
    wxDir::GetAllFiles(folder, &files, wxEmptyString, wxDIR_FILES);
    uint64_t lines = 0;
    uint64_t records = 0;
    for (const wxString& name : files) {
        std::ifstream file(name.ToStdString());
        for (std::string line; std::getline(file, line);) {
            ++lines;
            size_t end = line.rfind(", ");
            end = end == std::string::npos || end == 0 ? std::string::npos
                                                       : line.rfind(", ", end - 1);
            const size_t start = end == std::string::npos || end == 0 ? std::string::npos
                                                                      : line.rfind(", ", end - 1);
            if (start != std::string::npos) {
                records += std::strtoull(line.c_str() + start + 2, nullptr, 10);
            }
        }
    }
    return {lines, records};
}

// A log object in its own folder with the agent's bundled configuration,
// its cache on or off.
class CLogSink {
public:
    CLogSink(const std::string& folder, bool cache) : m_Dom(":memory:"), m_Lua(luaL_newstate()) {
        luaL_openlibs(m_Lua);
        if (luaL_dofile(m_Lua, VEXIL_SOURCE_DIR "/share/config.lua") != LUA_OK) {
            fprintf(stderr, "config.lua: %s\n", lua_tostring(m_Lua, -1));
            lua_settop(m_Lua, 0);
            lua_newtable(m_Lua);
        }
        if (!cache) {
            lua_getfield(m_Lua, -1, "packetFilterLog");
            if (lua_istable(m_Lua, -1)) {
                lua_pushinteger(m_Lua, 0);
                lua_setfield(m_Lua, -2, "cacheSize");
            }
            lua_pop(m_Lua, 1);
        }
        m_Config = new VEXIL::ConfigUtils(m_Lua, lua_gettop(m_Lua));
        m_Log = new VEXIL::LogData(m_Dom);
        m_Log->SetLogFilePath(folder);
        m_Log->SetConfigUtils(m_Config);
    }
    // What the cache still holds goes to the file.
    void Flush() { m_Log->FlushBufferedData(true); }
    ~CLogSink() {
        delete m_Log;
        delete m_Config;
        lua_close(m_Lua);
    }
    void Write(const NORVI::SourceRecord& record) {
        VEXIL::DriverLogEntry entry;
        std::memcpy(entry.bytes, record.m_Record, sizeof entry.bytes);
        m_Log->WriteLogData(&entry, record.m_Data.data(), static_cast<u32>(record.m_Data.size()),
                            record.m_Packet.data(), static_cast<u32>(record.m_Packet.size()));
    }

private:
    NorvCore::CDom m_Dom;
    lua_State* m_Lua;
    VEXIL::ConfigUtils* m_Config;
    VEXIL::LogData* m_Log;
};

// CPU seconds of the calling thread.
double ThreadCpu() {
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// CPU seconds (user and system) that a process has used.
double ProcessCpu(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    double ticks = 0;
    for (int index = 3; index <= 15 && fields >> field; ++index) {
        if (index == 14 || index == 15) {
            ticks += std::stod(field);
        }
    }
    return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

struct Measured {
    double m_Seconds = 0;     // wall time
    double m_CpuSeconds = 0;  // CPU time of the receiving thread or process
    uint64_t m_Records = 0;
    uint64_t m_Counted = 0;  // by the kernel's rule counter
    uint64_t m_Lost = 0;
    uint64_t m_Lines = 0;        // lines in the surviving log files
    uint64_t m_LineRecords = 0;  // records those lines stand for
};

// Our source, with every record written through WriteLogData when intoLog.
Measured MeasureVexil(CNetnsPair& net, const std::string& folder, bool intoLog, bool cache,
                      size_t ports) {
    Measured measured;
    NORVI::SourceOptions options;
    options.m_NflogGroup = kGroup;
    options.m_InstallRuleset = true;
    options.m_ReceiveBufferBytes = kBuffer;
    std::string error;
    std::unique_ptr<NORVI::CNflogSource> source = NORVI::CNflogSource::Open(options, error);
    if (source == nullptr) {
        fprintf(stderr, "NFLOG source: %s\n", error.c_str());
        return measured;
    }
    const std::string logFolder = folder + "/log";
    wxFileName::Rmdir(logFolder, wxPATH_RMDIR_RECURSIVE);
    CLogSink sink(logFolder, cache);
    Flood(net.Peer(), kFlood, ports);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    measured.m_Counted = DeniedUdp(net, folder);
    NORVI::SourceRecord record;
    const double cpu = ThreadCpu();
    const auto start = Clock::now();
    auto last = start;
    while (measured.m_Records < measured.m_Counted &&
           source->Next(record, 2000) == NORVI::CRecordSource::ReadResult::Record) {
        if (intoLog) {
            sink.Write(record);
        }
        ++measured.m_Records;
        last = Clock::now();
    }
    if (intoLog) {
        sink.Flush();
        last = Clock::now();
    }
    measured.m_Seconds = std::chrono::duration<double>(last - start).count();
    measured.m_CpuSeconds = ThreadCpu() - cpu;
    const NORVI::SourceCounters counters = source->Counters();
    measured.m_Lost = counters.m_Lost + counters.m_Gaps + counters.m_Dropped;
    if (intoLog) {
        std::tie(measured.m_Lines, measured.m_LineRecords) = LinesAndRecords(logFolder);
    }
    return measured;
}

Measured MeasureUlogd(CNetnsPair& net, const std::string& folder, size_t ports) {
    Measured measured;
    NORVI::CNftRuleset ruleset;
    std::string error;
    if (ruleset.Install(kGroup, {}, {}, error) != 0) {
        fprintf(stderr, "ruleset: %s\n", error.c_str());
        return measured;
    }
    const std::string output = folder + "/ulogd.out";
    const std::string plugins = "/usr/lib/x86_64-linux-gnu/ulogd/ulogd_";
    {
        std::ofstream config(folder + "/ulogd.conf");
        config << "[global]\nlogfile=\"" << folder << "/ulogd.log\"\nloglevel=5\n";
        for (const char* plugin : {"inppkt_NFLOG", "raw2packet_BASE", "filter_IFINDEX",
                                   "filter_IP2STR", "filter_PRINTPKT", "output_LOGEMU"}) {
            config << "plugin=\"" << plugins << plugin << ".so\"\n";
        }
        config << "stack=log1:NFLOG,base1:BASE,ifi1:IFINDEX,ip2str1:IP2STR,print1:PRINTPKT,"
                  "emu1:LOGEMU\n\n[log1]\ngroup="
               << kGroup << "\nbufsize=262144\nnetlink_socket_buffer_size=" << kBuffer
               << "\nnetlink_socket_buffer_maxsize=" << 2 * kBuffer
               << "\nnetlink_qthreshold=256\nnetlink_qtimeout=1\n\n[emu1]\nfile=\"" << output
               << "\"\nsync=1\n";
    }
    CBackground ulogd(CNetnsPair::In(net.Host(), {"ulogd", "-c", folder + "/ulogd.conf"}));
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    if (!ulogd.Started() || kill(ulogd.Pid(), SIGSTOP) != 0) {
        fprintf(stderr, "ulogd did not start\n");
        return measured;
    }
    Flood(net.Peer(), kFlood, ports);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    measured.m_Counted = DeniedUdp(net, folder);
    const double cpu = ProcessCpu(ulogd.Pid());
    const auto start = Clock::now();
    auto last = start;
    kill(ulogd.Pid(), SIGCONT);
    size_t previous = 0;
    while (previous < measured.m_Counted && Clock::now() - last < std::chrono::seconds(3)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        const size_t lines = Lines(output);
        if (lines != previous) {
            previous = lines;
            last = Clock::now();
        }
    }
    measured.m_Records = previous;
    measured.m_Seconds = std::chrono::duration<double>(last - start).count();
    measured.m_CpuSeconds = ProcessCpu(ulogd.Pid()) - cpu;
    ruleset.Remove(error);
    return measured;
}

void BM_NflogIntoWriteLogDataBesideUlogd(benchmark::State& state) {
    CNetnsPair net;
    if (!net.Failure().empty() || !net.Enter(net.Host())) {
        state.SkipWithError(("no namespaces: " + net.Failure()).c_str());
        return;
    }
    char pattern[] = "/tmp/vexil-nflog-bench-XXXXXX";
    const std::string folder = mkdtemp(pattern);
    Measured vexil, receiver, ulogd;
    const bool cache = state.range(0) != 0;
    const size_t ports = static_cast<size_t>(state.range(1));
    for (auto _ : state) {
        vexil = MeasureVexil(net, folder, true, cache, ports);
        receiver = MeasureVexil(net, folder, false, cache, ports);
        ulogd = MeasureUlogd(net, folder, ports);
    }
    net.Leave();
    wxFileName::Rmdir(folder, wxPATH_RMDIR_RECURSIVE);
    const double ours = vexil.m_Seconds > 0 ? vexil.m_Records / vexil.m_Seconds : 0;
    const double theirs = ulogd.m_Seconds > 0 ? ulogd.m_Records / ulogd.m_Seconds : 0;
    const double received = receiver.m_Seconds > 0 ? receiver.m_Records / receiver.m_Seconds : 0;
    state.counters["vexil_rec_per_s"] = ours;
    state.counters["ulogd_rec_per_s"] = theirs;
    state.counters["ratio"] = theirs > 0 ? ours / theirs : 0;
    state.counters["receiver_rec_per_s"] = received;
    // The same per CPU second of the receiver, which other load does not move.
    const double oursCpu = vexil.m_CpuSeconds > 0 ? vexil.m_Records / vexil.m_CpuSeconds : 0;
    const double theirsCpu = ulogd.m_CpuSeconds > 0 ? ulogd.m_Records / ulogd.m_CpuSeconds : 0;
    state.counters["vexil_rec_per_cpu_s"] = oursCpu;
    state.counters["ulogd_rec_per_cpu_s"] = theirsCpu;
    state.counters["cpu_ratio"] = theirsCpu > 0 ? oursCpu / theirsCpu : 0;
    state.counters["receiver_ratio"] = theirs > 0 ? received / theirs : 0;
    state.counters["vexil_records"] = static_cast<double>(vexil.m_Records);
    state.counters["vexil_kernel"] = static_cast<double>(vexil.m_Counted);
    state.counters["ulogd_records"] = static_cast<double>(ulogd.m_Records);
    state.counters["ulogd_kernel"] = static_cast<double>(ulogd.m_Counted);
    // Records per line written: 1 when nothing coalesced. With the cache on
    // the oldest copies may have been rotated away, so this is over the
    // lines that survive.
    state.counters["vexil_lines"] = static_cast<double>(vexil.m_Lines);
    state.counters["records_per_line"] =
        vexil.m_Lines > 0 ? static_cast<double>(vexil.m_LineRecords) / vexil.m_Lines : 0;
    for (const Measured* run : {&vexil, &receiver}) {
        if (run->m_Lost != 0 || run->m_Records != run->m_Counted || run->m_Counted == 0) {
            state.SkipWithError("records were lost on the NFLOG path");
            return;
        }
    }
    if (ulogd.m_Records != ulogd.m_Counted) {
        state.SkipWithError("ulogd2 did not log every packet");
    }
}
BENCHMARK(BM_NflogIntoWriteLogDataBesideUlogd)
    ->ArgNames({"cache", "ports"})
    ->Args({1, 1})
    ->Args({1, 4096})
    ->Args({0, 1})
    ->Args({0, 4096})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace
