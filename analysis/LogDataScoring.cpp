// LogData: scanner scoring, a sequential likelihood-ratio test over time bins.
// Each closed bin of a source is one observation, suspect or clean; each
// multiplies the source's likelihood ratio, until it rises above the ceiling
// (a scanner: reported) or falls below the floor (cleared). A bin with very
// many ports per address flags its source at once.
//
// Runs inside CacheMaintenance with m_TerminatedFlowsLock held. The candidates
// are guarded by m_LikelihoodRatiosLock, taken before m_ProbeConfigLock or
// m_ProbingIpsLock (never both of those together); detections are recorded
// here and reported by the caller once every lock is released.
#include <utility>

#include "analysis/AnalysisTrace.h"
#include "log/LogData.h"

namespace VEXIL {

void LogData::AnalyzeTerminatedFlow(u32 address, u8 protocol, FlowStats&& stats,
                                    std::vector<ProbeReport>& reports) {
    const double numIps = double(u64(stats.addresses.Size()));
    const double numPorts = double(u64(stats.ports.Size()));

    bool scoringEnabled;
    {
        NorvCore::CCriticalSectionLocker lock(m_ProbeConfigLock);
        scoringEnabled = m_ProbeEnabled.test(HostOrPortScan);
    }
    if (!scoringEnabled) {
        // The scoring state does not survive a switch-off.
        NorvCore::CCriticalSectionLocker lock(m_LikelihoodRatiosLock);
        m_LikelihoodRatios.clear();
        return;
    }
    {
        // A source already known as a scanner, on any protocol, is not scored.
        NorvCore::CCriticalSectionLocker lock(m_ProbingIpsLock);
        if (m_ProbingIps.count(ProbingHostKey{address, HostOrPortScan}) != 0) {
            return;
        }
    }

    // Quotients of floating-point numbers, compared strictly.
    const double portsPerIp = numPorts / numIps;
    bool suspect = portsPerIp > m_ScanPortsPerIp;
    if (!suspect) {
        const double ipsPerPort = numIps / numPorts;
        suspect = ipsPerPort > m_ScanIpsPerPort;
    }

    NorvCore::CCriticalSectionLocker lock(m_LikelihoodRatiosLock);
    const IpProtocolKey key{address, protocol};
    auto candidate = m_LikelihoodRatios.find(key);
    if (portsPerIp > m_ScanPortsPerIpFlagNow) {
        SCAN_TRACE(
            wxString::Format("AnalyzeTerminatedFlow: exceeded threshold for port-scanner "
                             "numPorts = %f, numIps = %f, PortsPerIpFlagNow = %f",
                             numPorts, numIps, m_ScanPortsPerIpFlagNow));
        // The counts of this bin alone.
        RecordProbe(HostOrPortScan, address, protocol, &stats, reports);
        if (candidate != m_LikelihoodRatios.end()) {
            m_LikelihoodRatios.erase(candidate);
        }
        return;
    }
    if (candidate == m_LikelihoodRatios.end()) {
        if (suspect) {
            // The first ratio is the suspect-bin multiplier; the ceiling and
            // the floor are first tested one bin later.
            m_LikelihoodRatios.emplace(key, ScanCandidate(std::move(stats), m_ScanRatioSuspectBin));
        }
        return;
    }
    FlowStats& accumulated = candidate->second.stats;
    accumulated.addresses.InsertAll(stats.addresses);
    accumulated.ports.InsertAll(stats.ports);
    UpdateLikelihoodRatio(candidate, suspect, reports);
}

void LogData::UpdateLikelihoodRatio(std::map<IpProtocolKey, ScanCandidate>::iterator candidate,
                                    bool suspect, std::vector<ProbeReport>& reports) {
    const IpProtocolKey key = candidate->first;
    double& ratio = candidate->second.likelihoodRatio;
    ratio = ratio * (suspect ? m_ScanRatioSuspectBin : m_ScanRatioCleanBin);
    const AddressBytes source(key.address);
    SCAN_TRACE(wxString::Format("Likelihood ratio for IP %d.%d.%d.%d protocol %d is currently %f",
                                source.b[0], source.b[1], source.b[2], source.b[3],
                                int(key.protocol), ratio));
    if (ratio > m_ScanLikelihoodRatioCeiling) {
        // The counts accumulated since the candidate was made.
        RecordProbe(HostOrPortScan, key.address, key.protocol, &candidate->second.stats, reports);
        m_LikelihoodRatios.erase(candidate);
    } else if (m_ScanLikelihoodRatioFloor > ratio) {
        SCAN_TRACE(wxString::Format(
            "Removed IP %d.%d.%d.%d protocol %d from consideration as a host/port scanner",
            source.b[0], source.b[1], source.b[2], source.b[3], int(key.protocol)));
        m_LikelihoodRatios.erase(candidate);
    }
}

}  // namespace VEXIL
