// The stealth probe rules, each at its edges, with and without DF, and the
// ignore set, which only bytes that no rule matched can meet.
#include <set>

#include <gtest/gtest.h>

#include "analysis/ProbeClassifier.h"

using VEXIL::CProbeClassifier;

namespace {

TEST(ProbeClassifier, FirstRuleThatHoldsWinsAndOnlyOrdinaryBytesAreIgnored) {
    const int kNone = -1;
    const struct {
        u8 flags;
        bool dontFragment;
        int type;
    } cases[] = {
        {0x2B, false, VEXIL::FingerprintScan},
        {0x00, true, VEXIL::FingerprintScan},
        {0x00, false, VEXIL::NullScan},
        {0x29, false, VEXIL::XmasScan},
        {0xFF, true, VEXIL::XmasScan},
        {0x03, false, VEXIL::SynFinScan},
        {0xAB, false, VEXIL::SynFinScan},
        {0x2F, false, VEXIL::SynFinScan},
        {0x02, false, kNone},
        {0x12, true, kNone},
        {0x29 ^ 0x80, false, kNone},
        {0x01, false, kNone},
    };
    const std::set<u8> everything = [] {
        std::set<u8> all;
        for (int flags = 0; flags < 256; ++flags) {
            all.insert(u8(flags));
        }
        return all;
    }();
    const std::set<u8> nothing;
    for (const auto& c : cases) {
        for (const std::set<u8>* ignore : {&nothing, &everything}) {
            const CProbeClassifier::Verdict verdict =
                CProbeClassifier::Classify(c.flags, c.dontFragment, *ignore);
            if (c.type == kNone) {
                EXPECT_EQ(
                    ignore->empty() ? CProbeClassifier::kNotStealth : CProbeClassifier::kIgnored,
                    verdict.outcome)
                    << int(c.flags);
            } else {
                EXPECT_EQ(CProbeClassifier::kProbe, verdict.outcome) << int(c.flags);
                EXPECT_EQ(c.type, verdict.type) << int(c.flags);
            }
        }
    }
    // Only the listed byte is ignored.
    EXPECT_EQ(CProbeClassifier::kNotStealth,
              CProbeClassifier::Classify(0x12, false, {0x10}).outcome);
    EXPECT_EQ(CProbeClassifier::kIgnored, CProbeClassifier::Classify(0x10, false, {0x10}).outcome);
}

}  // namespace
