// CProbeClassifier: the ordered rule table of the stealth probes.
#include "analysis/ProbeClassifier.h"

#include <wx/log.h>
#include <wx/tokenzr.h>

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

std::set<u8> CProbeClassifier::ParseIgnoreFlags(const std::string& text) {
    std::set<u8> flags;
    wxStringTokenizer tokens(wxString::FromUTF8(text.data(), text.size()), ",; \t", wxTOKEN_STRTOK);
    while (tokens.HasMoreTokens()) {
        long value = 0;
        // Base 0: 0x12, 022 and 18 are the same flag byte.
        if (!tokens.GetNextToken().ToLong(&value, 0)) {
            continue;
        }
        // long has 64 bits here: a value is tested as it stands, so that one
        // beyond 32 bits cannot wrap into a flag byte.
        if (value < 0 || value > 255) {
            wxLogWarning("IgnoreTcpFlags value %ld is out of range - ignoring it.", value);
            continue;
        }
        flags.insert(u8(value));
    }
    return flags;
}

}  // namespace VEXIL
