// LogData: probe events and blocking, where a detection becomes an outcome.
// A detection that is new for its (source address, probe type) is recorded in
// m_ProbingIps for the retention time, the driver is asked to block the
// source if the type is so configured, an agent event 7000 + type is written
// and, if configured, an immediate heartbeat is requested. While the entry
// lives, further detections of the same kind from that source are silent.
//
// Recording takes m_ProbeConfigLock and then m_ProbingIpsLock, never both at
// once, and may run under the caller's analysis locks. Reporting (block,
// event, heartbeat) runs with no lock held: the block request reads the
// configuration table through Lua.
#include <cinttypes>
#include <cstdio>

#include "analysis/AnalysisTrace.h"
#include "config/ConfigUtils.h"
#include "host/Ticks.h"
#include "log/LogData.h"

namespace VEXIL {

bool LogData::WriteProbeEvent(int type, u32 address, u8 protocol, ConfigUtils* config,
                              const FlowStats* scanStats) {
    std::vector<ProbeReport> reports;
    if (!RecordProbe(type, address, protocol, scanStats, reports)) {
        return false;
    }
    for (const ProbeReport& report : reports) {
        ReportProbe(report, config);
    }
    return true;
}

bool LogData::RecordProbe(int type, u32 address, u8 protocol, const FlowStats* scanStats,
                          std::vector<ProbeReport>& reports) {
    SCAN_TRACE("WriteProbeEvent");
    ProbeReport report = {};
    {
        NorvCore::CCriticalSectionLocker lock(m_ProbeConfigLock);
        // A type outside the table is a programming error: test() throws.
        if (!m_ProbeEnabled.test(size_t(type))) {
            SCAN_TRACE("ProbeType was Not enabled");
            return false;
        }
        report.notifyImmediately = m_ProbeNotifyImmediately.test(size_t(type));
        report.blockSeconds = m_BlockAttackerSeconds[type];
    }
    report.type = u8(type);
    report.address = address;
    report.protocol = protocol;
    if (scanStats != nullptr) {
        report.hasCounts = true;
        report.addressCount = scanStats->addresses.Size();
        report.portCount = scanStats->ports.Size();
    }
    // Blocking types keep their attacker as long as the block lasts.
    const u32 retentionMsec =
        report.blockSeconds > 0 ? u32(report.blockSeconds) * 1000u : m_ScanningIpsRetentionMsec;

    // Test and insert in one hold of the lock, so that two threads cannot
    // both take the same detection for new.
    NorvCore::CCriticalSectionLocker lock(m_ProbingIpsLock);
    if (m_ProbingIps.count(ProbingHostKey{address, u8(type)}) != 0) {
        SCAN_TRACE("ProbeType was already logged");
        return true;
    }
    if ((type == NullScan || type == XmasScan) &&
        m_ProbingIps.count(ProbingHostKey{address, FingerprintScan}) != 0) {
        SCAN_TRACE("ProbeType was already logged because we already detected fingerprint scan");
        return true;
    }
    m_ProbingIps.emplace(ProbingHostKey{address, u8(type)},
                         NorvCore::SystemTickCount() + retentionMsec);
    reports.push_back(report);
    return true;
}

void LogData::ReportProbe(const ProbeReport& report, ConfigUtils* config) {
    const AddressBytes source(report.address);
    char dotted[16];
    std::snprintf(dotted, sizeof dotted, "%d.%d.%d.%d", source.b[0], source.b[1], source.b[2],
                  source.b[3]);

    bool notBlocked = false;
    if (report.blockSeconds > 0) {
        SCAN_TRACE(wxString::Format("Adding to the blacklist %s", dotted));
        if (m_NorviHandle != nullptr && config != nullptr) {
            // Cleared by BlacklistIp once it goes on to ask the driver; it
            // stays set for 127.x.x.x, for the host's own interfaces, and when
            // the table cannot be read. After an error of the script's table
            // nothing more is read from it.
            notBlocked = true;
            if (source.b[0] != 127 && !config->HasPendingError()) {
                config->BlacklistIp(m_NorviHandle, report.address, wxString(dotted),
                                    u32(report.blockSeconds), notBlocked);
            }
        }
    }

    char detail[256];
    int length = std::snprintf(detail, sizeof detail, "%.64s|%s|%d|%d", ProbeTypeName(report.type),
                               dotted, int(report.protocol), notBlocked ? 0 : report.blockSeconds);
    if (report.hasCounts && length > 0 && size_t(length) < sizeof detail) {
        std::snprintf(detail + length, sizeof detail - size_t(length), "|%" PRIu64 "|%" PRIu64,
                      report.addressCount, report.portCount);
    }
    const int number = u16(7000 + report.type);
    m_Dom->AgentEventWrite(number, wxString::FromUTF8(detail));
    SCAN_TRACE(wxString::Format("WriteProbeEvent writing agent event %d-%s", number, detail));
    if (report.notifyImmediately) {
        m_Dom->ConditionRaise("norv.HeartbeatNow");
    }
}

}  // namespace VEXIL
