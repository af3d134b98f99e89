// Driver records through SyslogFormat, in the native form and in CEF with
// each key style. Every message must be printable ASCII; a CEF message must
// begin with its header.
//
// Input: a mode byte (bit 0: CEF; bits 1-2: the key style), the 192 bytes of
// the record, then its trailing block.
#include <string>

#include "config/ConfigUtils.h"
#include "fuzz/FuzzSupport.h"
#include "log/LogData.h"
#include "log/RecordCopy.h"

namespace {

const char kConfig[] = R"(return {
  packetFilterMap = { [1042] = { name = "Block telnet", filterAction = 0 },
                      [1043] = { name = "Allow forced", filterAction = 3 } },
  payloadFilterMap = { [4711] = { name = "Web Attack", severity = 2, identifier = "4711",
                                  incoming = true },
                       [4713] = { name = "Sev three", severity = 3, identifier = "S-3",
                                  incoming = false } },
  agentConfiguration = { hostID = 7, hostname = "host-7" },
  interfaceMap = { ["0011223344550000"] = { name = "eth 0", id = 3 } },
})";

struct Harness {
    VEXIL::LogData log{VEXIL::FuzzDom()};
    int table = VEXIL::FuzzPushTable(kConfig);
    int lastMode = -1;

    Harness() {
        NorvCore::CDom& dom = VEXIL::FuzzDom();
        dom.Set("norv.syslog.cef.vendor", std::string("Norv"));
        dom.Set("norv.syslog.cef.product", std::string("Agent"));
        dom.Set("norv.syslog.cef.version", std::string("1.0"));
        dom.Set("norv.syslog.hostname", std::string("fuzz-host"));
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u8* data, size_t size) {
    VEXIL::FuzzInitialize();
    static Harness* const harness = new Harness;
    VEXIL::CFuzzReader input(data, size);
    const int mode = input.Byte() & 7;
    std::string record = input.Bytes(VEXIL::DriverLogEntry::kSize);
    record.resize(VEXIL::DriverLogEntry::kSize, '\0');
    const std::string block = input.Rest();
    VEXIL::RecordCopy copy;
    if (!copy.Fill(record.data(), block.data(), block.size())) {
        return 0;
    }
    const bool cef = (mode & 1) != 0;
    if (mode != harness->lastMode) {
        NorvCore::CDom& dom = VEXIL::FuzzDom();
        dom.Set("norv.syslog.cef", cef);
        dom.Set("norv.syslog.format", i64(mode >> 1));
        harness->lastMode = mode;
    }
    VEXIL::ConfigUtils config(VEXIL::FuzzLua(), harness->table);
    harness->log.SetConfigUtils(&config);
    std::string message;
    const bool made = harness->log.SyslogFormat(copy.Entry(), message);
    harness->log.SetConfigUtils(nullptr);
    VEXIL::FuzzCheck(made, "no syslog message", message);
    VEXIL::FuzzCheck(VEXIL::FuzzPrintable(message), "unprintable byte in a syslog message",
                     message);
    if (cef) {
        static const std::string header = "CEF:0|Norv|Agent|1.0|";
        VEXIL::FuzzCheck(message.compare(0, header.size(), header) == 0,
                         "CEF message without its header", message);
    }
    VEXIL::FuzzDropLogLines();
    return 0;
}
