// Value types of the traffic analysis state that LogData keeps.
#pragma once

#include <tuple>
#include <utility>

#include "analysis/SmallSortedSet.h"
#include "config/ConfigUtils.h"
#include "host/Types.h"

namespace VEXIL {

// The five probe kinds. The value indexes the per-type settings, and 7000 plus
// the value is the number of the agent event that reports a probe.
enum ProbeType : u8 {
    FingerprintScan = 0,
    HostOrPortScan = 1,
    NullScan = 2,
    SynFinScan = 3,
    XmasScan = 4,
};

// The name of a probe type in event texts and trace lines.
inline const char* ProbeTypeName(int type) {
    switch (type) {
        case FingerprintScan:
            return "FingerprintScan";
        case HostOrPortScan:
            return "HostOrPortScan";
        case NullScan:
            return "NullScan";
        case SynFinScan:
            return "SynFinScan";
        case XmasScan:
            return "XmasScan";
        default:
            return "UnknownProbeType";
    }
}

// One countable packet record, as the flow tracking sees it. Addresses stay in
// network order as they stand in the record; ports are in host order. The
// source port is carried along but not counted.
struct TerminatedFlow {
    u32 destAddress;
    u32 sourceAddress;
    u16 destPort;
    u16 sourcePort;
};

// Source address (network order) and IP protocol; ordered by address, then protocol.
struct IpProtocolKey {
    u32 address;
    u8 protocol;
    bool operator<(const IpProtocolKey& other) const {
        return std::tie(address, protocol) < std::tie(other.address, other.protocol);
    }
};

// Source address (network order) and probe type; ordered by address, then type.
struct ProbingHostKey {
    u32 address;
    u8 type;
    bool operator<(const ProbingHostKey& other) const {
        return std::tie(address, type) < std::tie(other.address, other.type);
    }
};

// The distinct destination addresses and ports one source touched in a time
// bin. A bin's source mostly touches a few of each, which stay inside the
// object: with its key in the map of tracked sources it takes one small heap
// block.
struct FlowStats {
    CSmallSortedSet<u32, 4> addresses;
    CSmallSortedSet<u16, 8> ports;
};

// A source under suspicion: its figures accumulated over all bins since it
// became a candidate, and its likelihood ratio. A candidate is made only by a
// suspect bin, so the ratio starts at the suspect-bin multiplier, never at 1.
struct ScanCandidate {
    ScanCandidate(FlowStats firstBin, double suspectBinRatio)
        : stats(std::move(firstBin)), likelihoodRatio(suspectBinRatio) {}

    FlowStats stats;
    double likelihoodRatio;
};

// A detection that is recorded in the table of known attackers and whose
// outside effects (block request, agent event, heartbeat) are still to be
// carried out, with no lock held. Scanner detections carry the address and
// port counts that the event reports.
struct ProbeReport {
    u8 type;
    u32 address;  // network order
    u8 protocol;
    i32 blockSeconds;
    bool notifyImmediately;
    bool hasCounts;
    u64 addressCount;
    u64 portCount;
};

}  // namespace VEXIL
