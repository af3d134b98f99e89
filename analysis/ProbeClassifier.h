// CProbeClassifier: recognises a stealth probe from one IPv4 TCP packet alone,
// by its flag byte and its don't-fragment bit.
//
// The rules form an ordered table and the first rule that holds decides, so
// that a byte matching several kinds (0xFF has SYN and FIN, 0x2B too) counts
// as the kind listed first. The class is stateless; the set of flag bytes to
// ignore belongs to the caller and is only read.
#pragma once

#include <set>
#include <string>

#include "analysis/AnalysisTypes.h"
#include "host/Types.h"

namespace VEXIL {

class CProbeClassifier {
public:
    enum Outcome {
        kProbe,       // a stealth probe of type
        kIgnored,     // a flag byte in the ignore set: the packet is not analysed further
        kNotStealth,  // an ordinary packet: it goes on to the flow tracking
    };

    struct Verdict {
        Outcome outcome;
        ProbeType type;         // meaningful for kProbe only
        const char* traceText;  // the trace line of a probe; null otherwise
    };

    // tcpFlags is the TCP flag byte; dontFragment the DF bit of the IPv4
    // header. ignoreFlags is consulted only for a byte that no rule matched.
    static Verdict Classify(u8 tcpFlags, bool dontFragment, const std::set<u8>& ignoreFlags);
};

}  // namespace VEXIL
