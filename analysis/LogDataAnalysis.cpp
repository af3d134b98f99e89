// LogData: the analysis gate of the record path. Every record passes here,
// logged or not. What cannot be analysed is dropped, single-packet stealth
// probes are reported, and every other incoming IPv4 TCP or UDP record is
// counted as one terminated flow.
//
// Runs on the record thread. The list and probe-configuration locks are taken
// one at a time, and none is held while a probe is reported or a flow counted.
#include "analysis/AnalysisTrace.h"
#include "analysis/ProbeClassifier.h"
#include "config/IpList.h"
#include "log/LogData.h"

namespace VEXIL {

namespace {

// Reason codes that matter to the analysis.
constexpr i16 kReasonDroppedRetransmit = 139;
// The action "Log", with or without the detect-only mark (0x80).
constexpr u16 kActionLog = 6;
constexpr u16 kActionDetectOnlyMask = 0xFF7F;

bool Ipv6AddressesZero(const DriverLogEntry& record) {
    for (int group = 0; group < 8; ++group) {
        if (record.ipv6h_src(group) != 0 || record.ipv6h_dest(group) != 0) {
            return false;
        }
    }
    return true;
}

}  // namespace

bool LogData::AnalyzeLogEntry(const std::string& /*line*/, const u64* /*firstTimeUsec*/,
                              DriverLogEntry* copy) {
    const DriverLogEntry& record = *copy;
    const i16 reason = record.reason();
    const u16 flags = record.flags();
    if (reason < 0) {
        SCAN_TRACE_BUSY("AnalyzeLogEntry - returning because it not packet");
        return true;
    }
    if (flags & DriverLogEntry::kOutgoing) {
        SCAN_TRACE_BUSY("AnalyzeLogEntry - returning because it is Outgoing");
        return true;
    }
    if (!record.hasPorts()) {
        SCAN_TRACE_BUSY("AnalyzeLogEntry - returning because protocol does not use port numbers");
        return true;
    }
    if (record.th_sport() == 0 && record.th_dport() == 0) {
        SCAN_TRACE_BUSY("AnalyzeLogEntry - returning because both port fields are 0");
        return true;
    }
    const bool ipv4 = record.isIpv4();
    if (ipv4 && record.iph_src() == 0 && record.iph_dest() == 0) {
        SCAN_TRACE_BUSY("AnalyzeLogEntry - returning because iph_src and iph_dest are both 0");
        return true;
    }
    if (!ipv4 && Ipv6AddressesZero(record)) {
        SCAN_TRACE_BUSY("AnalyzeLogEntry - returning because ipv6h_src is zero");
        return true;
    }
    {
        NorvCore::CCriticalSectionLocker lock(m_ProbeConfigLock);
        if (m_ProbeEnabled.none()) {
            SCAN_TRACE_BUSY("AnalyzeLogEntry - returning because no probe configs are enabled");
            return true;
        }
    }
    if (ipv4) {
        NorvCore::CCriticalSectionLocker lock(m_WhitelistIpListLock);
        if (IpInList(record.iph_src(), m_WhitelistIpList)) {
            SCAN_TRACE_BUSY(
                "AnalyzeLogEntry - returning because the ipv4 packet isn't from a host we care "
                "about");
            return true;
        }
    } else {
        // IPv6 sources are not filtered.
        NorvCore::CCriticalSectionLocker lock(m_WhitelistIpv6ListLock);
    }
    if (ipv4) {
        NorvCore::CCriticalSectionLocker lock(m_DestIpListLock);
        if (m_DestIpList != nullptr && !IpInList(record.iph_dest(), m_DestIpList)) {
            SCAN_TRACE_BUSY(
                "AnalyzeLogEntry - returning because the ipv4 packet isn't destined for a host we "
                "care about");
            return true;
        }
    } else {
        NorvCore::CCriticalSectionLocker lock(m_DestIpv6ListLock);
        if (m_DestIpv6List != nullptr) {
            SCAN_TRACE_BUSY(
                "AnalyzeLogEntry - returning because the ipv6 packet isn't destined for a host we "
                "care about");
            return true;
        }
    }
    if (reason == DriverLogEntry::kReasonConnectionClosedNormal) {
        SCAN_TRACE_BUSY("AnalyzeLogEntry - returning because log_reason_conntrack_closed_normal");
        return true;
    }

    // Stealth probes: one IPv4 TCP packet tells. The other close
    // notification skips this on purpose and is counted as a flow.
    if (reason != DriverLogEntry::kReasonConnectionClosedOther && ipv4 &&
        record.iph_proto() == DriverLogEntry::kProtocolTcp) {
        const u8 tcpFlags = record.tcph_flags();
        const bool dontFragment = (record.iph_frag_off() & DriverLogEntry::kDontFragment) != 0;
        const CProbeClassifier::Verdict verdict =
            CProbeClassifier::Classify(tcpFlags, dontFragment, m_IgnoreTcpFlags);
        if (verdict.outcome == CProbeClassifier::kIgnored) {
            SCAN_TRACE_BUSY(
                wxString::Format("Ignoring packet with TCP flags of 0x%X.", unsigned(tcpFlags)));
            return true;
        }
        if (verdict.outcome == CProbeClassifier::kProbe) {
            SCAN_TRACE_BUSY(verdict.traceText);
            // A type that is not enabled is still counted as a flow.
            if (WriteProbeEvent(verdict.type, record.iph_src(), record.iph_proto(), m_ConfigUtils,
                                nullptr)) {
                return true;
            }
        }
    }

    // The flow stage.
    if ((u16(record.action()) & kActionDetectOnlyMask) == kActionLog) {
        return true;
    }
    if (reason == kReasonDroppedRetransmit) {
        return true;
    }
    if (flags & DriverLogEntry::kSrcIpInHistoryList) {
        SCAN_TRACE_BUSY("Ignoring packet with bSrcIPInHistoryList set.");
        return true;
    }
    if (!ipv4) {
        return true;  // IPv6 records are never tracked as flows
    }
    const TerminatedFlow flow = {record.iph_dest(), record.iph_src(), record.th_dport(),
                                 record.th_sport()};
    HandleTerminatedFlow(flow, record.iph_proto());
    return true;
}

}  // namespace VEXIL
