// The stealth probe table over every flag byte, with and without DF.
#include <set>

#include <gtest/gtest.h>

#include "analysis/ProbeClassifier.h"

using VEXIL::CProbeClassifier;

namespace {

const std::set<u8> kNoIgnore;

std::set<u8> EveryByte() {
    std::set<u8> all;
    for (int flags = 0; flags < 256; ++flags) {
        all.insert(u8(flags));
    }
    return all;
}

TEST(ProbeClassifier, EveryByteFallsIntoItsClass) {
    for (int dontFragment = 0; dontFragment < 2; ++dontFragment) {
        int synFin = 0;
        int other = 0;
        for (int value = 0; value < 256; ++value) {
            const u8 flags = u8(value);
            const CProbeClassifier::Verdict verdict =
                CProbeClassifier::Classify(flags, dontFragment != 0, kNoIgnore);
            const bool special = flags == 0x00 || flags == 0x29 || flags == 0x2B || flags == 0xFF;
            if (special) {
                EXPECT_EQ(CProbeClassifier::kProbe, verdict.outcome) << value;
                EXPECT_NE(VEXIL::SynFinScan, verdict.type) << value;
            } else if ((flags & 0x03) == 0x03) {
                EXPECT_EQ(CProbeClassifier::kProbe, verdict.outcome) << value;
                EXPECT_EQ(VEXIL::SynFinScan, verdict.type) << value;
                ++synFin;
            } else {
                EXPECT_EQ(CProbeClassifier::kNotStealth, verdict.outcome) << value;
                ++other;
            }
        }
        // 64 bytes have SYN and FIN; 0x2B and 0xFF are taken by earlier rules.
        EXPECT_EQ(62, synFin);
        EXPECT_EQ(256 - 64 - 2, other);
    }
}

TEST(ProbeClassifier, IgnoreSetSilencesOnlyOrdinaryBytes) {
    const std::set<u8> all = EveryByte();
    for (int value = 0; value < 256; ++value) {
        const u8 flags = u8(value);
        for (bool dontFragment : {false, true}) {
            const CProbeClassifier::Verdict plain =
                CProbeClassifier::Classify(flags, dontFragment, kNoIgnore);
            const CProbeClassifier::Verdict ignoring =
                CProbeClassifier::Classify(flags, dontFragment, all);
            if (plain.outcome == CProbeClassifier::kProbe) {
                EXPECT_EQ(CProbeClassifier::kProbe, ignoring.outcome) << value;
                EXPECT_EQ(plain.type, ignoring.type) << value;
            } else {
                EXPECT_EQ(CProbeClassifier::kIgnored, ignoring.outcome) << value;
            }
        }
    }
    // Only the listed byte is ignored.
    EXPECT_EQ(CProbeClassifier::kNotStealth,
              CProbeClassifier::Classify(0x12, false, {0x10}).outcome);
    EXPECT_EQ(CProbeClassifier::kIgnored, CProbeClassifier::Classify(0x10, false, {0x10}).outcome);
}

}  // namespace
