// The stealth probe table over every flag byte, with and without DF, with no
// ignored bytes and with all of them ignored.
#include <set>

#include <gtest/gtest.h>

#include "analysis/ProbeClassifier.h"

using VEXIL::CProbeClassifier;

namespace {

TEST(ProbeClassifier, EveryByteFallsIntoItsClassAndOnlyOrdinaryBytesAreIgnored) {
    std::set<u8> all;
    for (int flags = 0; flags < 256; ++flags) {
        all.insert(u8(flags));
    }
    for (const std::set<u8>& ignore : {std::set<u8>(), all}) {
        for (int value = 0; value < 512; ++value) {
            const u8 flags = u8(value);
            const bool dontFragment = value >= 256;
            const CProbeClassifier::Verdict verdict =
                CProbeClassifier::Classify(flags, dontFragment, ignore);
            int expected = -1;  // no probe
            if (flags == 0x2B || (flags == 0 && dontFragment)) {
                expected = VEXIL::FingerprintScan;
            } else if (flags == 0x29 || flags == 0xFF) {
                expected = VEXIL::XmasScan;
            } else if ((flags & 3) == 3) {
                expected = VEXIL::SynFinScan;
            } else if (flags == 0) {
                expected = VEXIL::NullScan;
            }
            if (expected < 0) {
                EXPECT_EQ(
                    ignore.empty() ? CProbeClassifier::kNotStealth : CProbeClassifier::kIgnored,
                    verdict.outcome)
                    << value;
                continue;
            }
            EXPECT_EQ(CProbeClassifier::kProbe, verdict.outcome) << value;
            EXPECT_EQ(expected, verdict.type) << value;
        }
    }
    // Only the listed byte is ignored.
    EXPECT_EQ(CProbeClassifier::kNotStealth,
              CProbeClassifier::Classify(0x12, false, {0x10}).outcome);
    EXPECT_EQ(CProbeClassifier::kIgnored, CProbeClassifier::Classify(0x10, false, {0x10}).outcome);
}

}  // namespace
