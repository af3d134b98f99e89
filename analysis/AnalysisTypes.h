// Value types of the traffic analysis state that LogData keeps.
#pragma once

#include <set>
#include <tuple>

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
constexpr int kProbeTypeCount = 5;

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

// The distinct destination addresses and ports one source touched in a time bin.
struct FlowStats {
    std::set<u32> addresses;
    std::set<u16> ports;
};

// A source under suspicion: its accumulated figures and likelihood ratio.
struct ScanCandidate {
    FlowStats stats;
    double likelihoodRatio = 1.0;
};

}  // namespace VEXIL
