// LogData: flow and time-bin tracking. The record path counts, per source
// address and protocol, the distinct destination addresses and ports of the
// open time bin; CacheMaintenance closes the bin once its time is up, scores
// each source, and forgets known attackers whose time has run out.
//
// Locks: m_TerminatedFlowsLock is taken outside the scoring locks
// (m_LikelihoodRatiosLock, then m_ProbeConfigLock or m_ProbingIpsLock).
// Detections made while these are held are only recorded there; their block
// requests, agent events and heartbeats go out afterwards with no lock held,
// since a block request reads the configuration table through Lua.
// m_LastTimeBinTicks is read and written by CacheMaintenance alone, which a
// script calls from one thread at a time.
#include <utility>
#include <vector>

#include "analysis/AnalysisTrace.h"
#include "host/Ticks.h"
#include "log/LogData.h"

namespace VEXIL {

void LogData::HandleTerminatedFlow(const TerminatedFlow& flow, u8 protocol) {
    NorvCore::CCriticalSectionLocker lock(m_TerminatedFlowsLock);
    FlowStats& stats = m_TerminatedFlows[IpProtocolKey{flow.sourceAddress, protocol}];
    stats.addresses.Insert(flow.destAddress);
    stats.ports.Insert(flow.destPort);
    if (m_ScanTraceEnabled) {
        const AddressBytes source(flow.sourceAddress);
        SCAN_TRACE(wxString::Format(
            "Source IP %d.%d.%d.%d protocol %d has visited %u unique IPs and %u unique ports.",
            source.b[0], source.b[1], source.b[2], source.b[3], int(protocol),
            unsigned(stats.addresses.Size()), unsigned(stats.ports.Size())));
    }
}

bool LogData::CacheMaintenance(ConfigUtils* config) {
    const u32 ticksNow = NorvCore::SystemTickCount();
    const u32 sinceLastBin = ticksNow - m_LastTimeBinTicks;
    SCAN_TRACE(wxString::Format(
        "CacheMaintenance called ticksNow - m_LastTimeBinTicks %d m_TimeBinMsec %d",
        int(sinceLastBin), int(m_TimeBinMsec)));

    if (sinceLastBin > m_TimeBinMsec) {
        std::vector<ProbeReport> reports;
        bool binWasEmpty;
        {
            NorvCore::CCriticalSectionLocker lock(m_TerminatedFlowsLock);
            SCAN_TRACE(
                wxString::Format("time bin interval has expired number of terminated flows is %d",
                                 int(m_TerminatedFlows.size())));
            binWasEmpty = m_TerminatedFlows.empty();
            for (auto& entry : m_TerminatedFlows) {
                // The entry is dropped right after: its sets may move into a candidate.
                AnalyzeTerminatedFlow(entry.first.address, entry.first.protocol,
                                      std::move(entry.second), reports);
            }
            m_TerminatedFlows.clear();
        }
        // A bin in which nobody at all was active counts as a clean
        // observation for every candidate.
        if (binWasEmpty) {
            NorvCore::CCriticalSectionLocker lock(m_LikelihoodRatiosLock);
            SCAN_TRACE(wxString::Format("Updating the scan likelihoodRations size %d",
                                        int(m_LikelihoodRatios.size())));
            for (auto candidate = m_LikelihoodRatios.begin();
                 candidate != m_LikelihoodRatios.end();) {
                UpdateLikelihoodRatio(candidate++, false, reports);
            }
        }
        m_LastTimeBinTicks = ticksNow;
        for (const ProbeReport& report : reports) {
            ReportProbe(report, config);
        }
    }

    const u32 ticksCheck = NorvCore::SystemTickCount();
    {
        NorvCore::CCriticalSectionLocker lock(m_ProbingIpsLock);
        SCAN_TRACE(wxString::Format("Checking probing Ips %d", int(m_ProbingIps.size())));
        for (auto entry = m_ProbingIps.begin(); entry != m_ProbingIps.end();) {
            // Signed difference: an expiry more than 2^31 ms ahead reads as past.
            if (i32(entry->second - ticksCheck) > 0) {
                ++entry;
                continue;
            }
            const AddressBytes source(entry->first.address);
            SCAN_TRACE(
                wxString::Format("Removing IP %d.%d.%d.%d from list of known "
                                 "probing/attacking hosts for attack %.64s.",
                                 source.b[0], source.b[1], source.b[2], source.b[3],
                                 ProbeTypeName(entry->first.type)));
            entry = m_ProbingIps.erase(entry);
        }
    }
    NorvCore::CCriticalSectionLocker lock(m_TerminatedFlowsLock);
    return !m_TerminatedFlows.empty();
}

}  // namespace VEXIL
