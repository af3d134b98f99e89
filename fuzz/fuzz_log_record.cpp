// Driver records through the record path (WriteLogData), with the coalescing
// cache off and on, into a real log file, then one round of the analysis's
// maintenance. Every line written must have the 31 columns of the format (30
// separators), only printable bytes, and the line end.
//
// Input: a mode byte (bit 0: cache on), then up to eight records, each the
// 192 bytes of the record, the length of its trailing block (two bytes), the
// block, the length of its packet bytes (two bytes) and those bytes.
#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>

#include <unistd.h>

#include "config/ConfigUtils.h"
#include "fuzz/FuzzSupport.h"
#include "log/LogData.h"

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

void CheckLines(const std::string& text) {
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
        start = end + 2;
    }
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
    harness->log.CloseLogFile();
    harness->log.SetConfigUtils(nullptr);

    std::ifstream file(harness->Path(), std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    CheckLines(text.str());
    unlink(harness->Path().c_str());
    VEXIL::FuzzDropLogLines();
    return 0;
}
