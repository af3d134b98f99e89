// CProbeClassifier: the ordered rule table of the stealth probes.
#include "analysis/ProbeClassifier.h"

namespace VEXIL {

namespace {

constexpr u8 kFin = 0x01;
constexpr u8 kSyn = 0x02;
constexpr u8 kPsh = 0x08;
constexpr u8 kUrg = 0x20;

// One rule: the flag byte AND mask must equal value, and the DF bit must be
// set where the rule asks for it.
struct StealthRule {
    u8 mask;
    u8 value;
    bool needsDontFragment;
    ProbeType type;
    const char* traceText;
};

// In order: the first rule that holds decides.
constexpr StealthRule kStealthRules[] = {
    {0xFF, kUrg | kPsh | kSyn | kFin, false, FingerprintScan, "AnalyzeLogEntry - fingerprint scan"},
    {0xFF, 0x00, true, FingerprintScan, "AnalyzeLogEntry - fingerprint scan"},
    {0xFF, kUrg | kPsh | kFin, false, XmasScan, "AnalyzeLogEntry - Xmas scan"},
    {0xFF, 0xFF, false, XmasScan, "AnalyzeLogEntry - Xmas scan"},
    {kSyn | kFin, kSyn | kFin, false, SynFinScan, "AnalyzeLogEntry - SYN-FIN scan"},
    {0xFF, 0x00, false, NullScan, "AnalyzeLogEntry - NULL scan"},
};

}  // namespace

CProbeClassifier::Verdict CProbeClassifier::Classify(u8 tcpFlags, bool dontFragment,
                                                     const std::set<u8>& ignoreFlags) {
    for (const StealthRule& rule : kStealthRules) {
        if ((tcpFlags & rule.mask) == rule.value && (dontFragment || !rule.needsDontFragment)) {
            return {kProbe, rule.type, rule.traceText};
        }
    }
    if (ignoreFlags.count(tcpFlags) != 0) {
        return {kIgnored, FingerprintScan, nullptr};
    }
    return {kNotStealth, FingerprintScan, nullptr};
}

}  // namespace VEXIL
