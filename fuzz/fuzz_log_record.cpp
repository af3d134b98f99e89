// Driver records through the record path (WriteLogData), with the coalescing
// cache off and on, into a real log file, then one round of the analysis's
// maintenance. Every line written must have the 31 columns of the format (30
// separators), only printable bytes, and the line end, and must read back as
// it was written.
//
// Input: a mode byte (bit 0: cache on), then up to eight records, each the
// 192 bytes of the record, the length of its trailing block (two bytes), the
// block, the length of its packet bytes (two bytes) and those bytes.
#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

#include "config/ConfigUtils.h"
#include "fuzz/FuzzSupport.h"
#include "log/LogData.h"
#include "log/LogLineSink.h"

namespace {

using VEXIL::CFuzzReader;

const char kConfig[] = R"(return {
  packetFilterLog = { cacheSize = %d, cacheLifetime = 600000 },
  payloadFilterLog = { cacheSize = %d },
  trafficAnalysisConfiguration = {},
  probeConfigurationMap = {},
  packetFilterMap = { [1042] = { name = "Block telnet", filterAction = 0 } },
  payloadFilterMap = { [4711] = { name = "Web Attack", severity = 2, identifier = "4711",
                                  incoming = true } },
  driverInterfaceMap = { { id = 5, mac = "\0\17\34\51\68\85" } },
  interfaceMap = { ["001122334455"] = { id = 3, name = "eth0" } },
})";

// Largest trailing block and packet the harness hands over, and the most
// records of one input.
const size_t kMaxDataLen = 4096;
const int kMaxRecords = 8;
// Lines at least this long are read back in pieces.
const size_t kReadBackLineMax = 9000;

struct Harness {
    VEXIL::LogData log{VEXIL::FuzzDom()};
    int tables[2];  // stack positions: cache off, cache on
    int lastMode = -1;

    Harness() {
        char chunk[sizeof kConfig + 16];
        for (int on = 0; on < 2; ++on) {
            snprintf(chunk, sizeof chunk, kConfig, on * 8, on * 8);
            tables[on] = VEXIL::FuzzPushTable(chunk);
        }
        log.SetLogFilePath(wxString::FromUTF8(VEXIL::FuzzFolder().c_str()));
        log.SetLogFileName("fuzz_log_record");
    }

    std::string Path() const { return VEXIL::FuzzFolder() + "/fuzz_log_record"; }
};

// The lines of the file, each checked.
std::vector<std::string> CheckedLines(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        const size_t end = text.find("\r\n", start);
        VEXIL::FuzzCheck(end != std::string::npos, "line without its end", text.substr(start));
        const std::string line = text.substr(start, end - start);
        VEXIL::FuzzCheck(VEXIL::FuzzPrintable(line), "unprintable byte in a line", line);
        size_t separators = 0;
        for (size_t at = line.find(", "); at != std::string::npos; at = line.find(", ", at + 2)) {
            ++separators;
        }
        VEXIL::FuzzCheck(separators == 30, "a line without 31 columns", line);
        lines.push_back(line);
        start = end + 2;
    }
    return lines;
}

// Read-back gives every line of its role that has a first time, less its date
// and time, in file order. Lines beyond the read-back's buffer come back in
// pieces, so a file with one is left out.
void CheckReadBack(VEXIL::LogData& log, const std::vector<std::string>& lines) {
    std::vector<std::string> expected[2];
    for (const std::string& line : lines) {
        if (line.size() >= kReadBackLineMax) {
            return;
        }
        const long long first = strtoll(line.c_str() + line.rfind(',') + 2, nullptr, 10);
        if (first == 0 || first / 1000000 == -1) {
            continue;
        }
        size_t comma = 0;
        for (int n = 0; n < 3; ++n) {
            comma = line.find(',', comma + 1);
        }
        expected[line[comma - 1] == 'f' ? 0 : 1].push_back(line.substr(22));
    }
    for (int role = 0; role < 2; ++role) {
        VEXIL::LogLineSink sink(VEXIL::LogLineSink::kMaxLines);
        log.GetLogData(role, 0, 0, "fuzz", &sink);
        std::vector<std::string> read;
        const std::string_view text = sink.JoinedText();
        for (size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos;
             start = end + 1) {
            read.emplace_back(text.substr(start, end - start));
        }
        VEXIL::FuzzCheck(read == expected[role], "lines that do not read back as written",
                         lines.empty() ? "" : lines[0]);
    }
}

// Closes the file so that the next input starts a new one. The harness is
// single-threaded: nothing else can hold the file lock, which is private to
// the log object.
void CloseLogFile(VEXIL::LogData& log) NO_THREAD_SAFETY_ANALYSIS {
    log.CloseLogFile();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u8* data, size_t size) {
    VEXIL::FuzzInitialize();
    static Harness* const harness = new Harness;
    CFuzzReader input(data, size);
    const int mode = input.Byte() & 1;
    if (mode != harness->lastMode) {
        // The next record reads the other table.
        VEXIL::FuzzDom().ConditionRaise("app.configUpdated");
        harness->lastMode = mode;
    }
    VEXIL::ConfigUtils config(VEXIL::FuzzLua(), harness->tables[mode]);
    harness->log.SetConfigUtils(&config);
    harness->log.InitializeLogFile();
    for (int count = 0; count < kMaxRecords && input.Left() > 0; ++count) {
        std::string record = input.Bytes(VEXIL::DriverLogEntry::kSize);
        record.resize(VEXIL::DriverLogEntry::kSize, '\0');
        const std::string block = input.Bytes(std::min<size_t>(input.Short(), kMaxDataLen));
        const std::string packet = input.Bytes(std::min<size_t>(input.Short(), kMaxDataLen));
        harness->log.WriteLogData(reinterpret_cast<const VEXIL::DriverLogEntry*>(record.data()),
                                  block.data(), u32(block.size()),
                                  reinterpret_cast<const u8*>(packet.data()), u32(packet.size()));
    }
    harness->log.CacheMaintenance(&config);
    harness->log.FlushBufferedData(true);
    CloseLogFile(harness->log);
    harness->log.SetConfigUtils(nullptr);

    std::ifstream file(harness->Path(), std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    CheckReadBack(harness->log, CheckedLines(text.str()));
    unlink(harness->Path().c_str());
    VEXIL::FuzzDropLogLines();
    return 0;
}
