// Address lists: the text forms that ParseIpList takes, the events for bad
// entries, and the membership test IpInList.
#include <arpa/inet.h>

#include <gtest/gtest.h>

#include "config/ConfigUtils.h"
#include "config/IpList.h"
#include "host/Dom.h"

using VEXIL::ConfigUtils;
using VEXIL::IpInList;
using VEXIL::IpList;
using VEXIL::IpListEntry;

namespace {

u32 Ip(const char* dotted) {
    return inet_addr(dotted);
}

class IpListTest : public ::testing::Test {
protected:
    void SetUp() override { m_Dom.ClearAgentEvents(); }

    // Parses text as the list "servers", expecting the given result.
    IpList Parse(const wxString& text, bool expected = true) {
        IpList list = {{true, 1, 2}};  // emptied by the parse
        EXPECT_EQ(expected, ConfigUtils::ParseIpList(text, "servers", L"ipList", &list)) << text;
        return list;
    }

    std::vector<NorvCore::AgentEvent> Events() { return m_Dom.AgentEvents(); }

    NorvCore::CDom m_Dom{":memory:"};
};

bool SameEntry(const IpListEntry& a, const IpListEntry& b) {
    return a.isRange == b.isRange && a.first == b.first && a.second == b.second;
}

TEST_F(IpListTest, MaskFormsAndWildcardPatternGiveTheSameEntry) {
    const IpList prefix = Parse("192.168.0.0/24");
    const IpList dotted = Parse("192.168.0.0/255.255.255.0");
    const IpList pattern = Parse("192.168.0.*");
    ASSERT_EQ(1u, prefix.size());
    ASSERT_EQ(1u, dotted.size());
    ASSERT_EQ(1u, pattern.size());
    const IpListEntry expected = {false, Ip("192.168.0.0"), Ip("255.255.255.0")};
    EXPECT_TRUE(SameEntry(expected, prefix[0]));
    EXPECT_TRUE(SameEntry(expected, dotted[0]));
    EXPECT_TRUE(SameEntry(expected, pattern[0]));
    EXPECT_TRUE(Events().empty());
}

TEST_F(IpListTest, PrefixLengthsAtTheEndsOfTheRange) {
    const IpList list = Parse("10.0.0.0/1 10.2.3.4/32 10.0.0.0/8");
    ASSERT_EQ(3u, list.size());
    EXPECT_EQ(Ip("128.0.0.0"), list[0].second);
    EXPECT_EQ(Ip("255.255.255.255"), list[1].second);
    EXPECT_EQ(Ip("255.0.0.0"), list[2].second);
}

TEST_F(IpListTest, DottedPatternsPadAndWildcard) {
    const IpList list = Parse("10.1.2.3 10.1 10.1.*.* 10.*.3 *");
    ASSERT_EQ(5u, list.size());
    EXPECT_TRUE(SameEntry({false, Ip("10.1.2.3"), Ip("255.255.255.255")}, list[0]));
    EXPECT_TRUE(SameEntry({false, Ip("10.1.0.0"), Ip("255.255.0.0")}, list[1]));
    EXPECT_TRUE(SameEntry({false, Ip("10.1.0.0"), Ip("255.255.0.0")}, list[2]));
    EXPECT_TRUE(SameEntry({false, Ip("10.0.3.0"), Ip("255.0.255.0")}, list[3]));
    EXPECT_TRUE(SameEntry({false, 0, 0}, list[4]));

    EXPECT_TRUE(IpInList(Ip("10.77.3.200"), &list));  // through 10.*.3
    IpList onlyMiddle(list.begin() + 3, list.begin() + 4);
    EXPECT_TRUE(IpInList(Ip("10.77.3.200"), &onlyMiddle));
    EXPECT_FALSE(IpInList(Ip("10.77.4.200"), &onlyMiddle));
    EXPECT_FALSE(IpInList(Ip("11.77.3.200"), &onlyMiddle));
}

TEST_F(IpListTest, UnparsableAddressIsTakenAsAllOnesWithoutReport) {
    const IpList list = Parse("10.1.2.x");
    ASSERT_EQ(1u, list.size());
    EXPECT_EQ(0xFFFFFFFFu, list[0].first);
    EXPECT_EQ(Ip("255.255.255.255"), list[0].second);
    EXPECT_TRUE(Events().empty());
}

TEST_F(IpListTest, RunsOfSeparatorsGiveNoEmptyEntries) {
    const IpList list = Parse(" 1.2.3.4,, ,  5.6.7.8 ,");
    ASSERT_EQ(2u, list.size());
    EXPECT_EQ(Ip("1.2.3.4"), list[0].first);
    EXPECT_EQ(Ip("5.6.7.8"), list[1].first);
}

TEST_F(IpListTest, EmptyTextGivesAnEmptyListThatMatchesNothing) {
    const IpList list = Parse("");
    EXPECT_TRUE(list.empty());
    EXPECT_FALSE(IpInList(Ip("1.2.3.4"), &list));
    EXPECT_FALSE(IpInList(0, &list));
    EXPECT_FALSE(IpInList(Ip("1.2.3.4"), nullptr));
    EXPECT_TRUE(Events().empty());
}

TEST_F(IpListTest, RangeWithAnEmptySideIsReportedAndLeftOut) {
    const IpList list = Parse("9.9.9.9 1.2.3.4- -1.2.3.4 1.2.3.4-1.2.3.9", false);
    ASSERT_EQ(2u, list.size());  // the good entries are still parsed
    EXPECT_EQ(Ip("9.9.9.9"), list[0].first);
    EXPECT_TRUE(SameEntry({true, Ip("1.2.3.4"), Ip("1.2.3.9")}, list[1]));
    const auto events = Events();
    ASSERT_EQ(2u, events.size());
    EXPECT_EQ(2019, events[0].number);
    EXPECT_EQ("1.2.3.4-|servers|${ipList}", events[0].detail);
    EXPECT_EQ("-1.2.3.4|servers|${ipList}", events[1].detail);
}

TEST_F(IpListTest, MaskedAddressWithAnEmptySideIsReported) {
    Parse("1.2.3.0/", false);
    Parse("/24", false);
    const auto events = Events();
    ASSERT_EQ(2u, events.size());
    EXPECT_EQ("1.2.3.0/|servers|${ipList}", events[0].detail);
    EXPECT_EQ("/24|servers|${ipList}", events[1].detail);
}

TEST_F(IpListTest, PrefixLengthOutsideOneToThirtyTwoIsReported) {
    for (const char* entry : {"1.2.3.0/0", "1.2.3.0/33", "1.2.3.0/abc", "1.2.3.0/2x"}) {
        EXPECT_TRUE(Parse(entry, false).empty()) << entry;
    }
    const auto events = Events();
    ASSERT_EQ(4u, events.size());
    EXPECT_EQ(2019, events[0].number);
    EXPECT_EQ("1.2.3.0/0|servers|${ipList}", events[0].detail);
    EXPECT_EQ("1.2.3.0/33|servers|${ipList}", events[1].detail);
}

TEST_F(IpListTest, ParseIpMaskReportsTheWholeEntry) {
    u32 mask = 7;
    EXPECT_FALSE(ConfigUtils::ParseIpMask("40", "1.0.0.0/40", "servers", L"ipList", mask));
    EXPECT_EQ(0u, mask);
    EXPECT_TRUE(ConfigUtils::ParseIpMask("255.255.0.0", "x", "servers", L"ipList", mask));
    EXPECT_EQ(Ip("255.255.0.0"), mask);
    EXPECT_TRUE(ConfigUtils::ParseIpMask("20", "x", "servers", L"ipList", mask));
    EXPECT_EQ(Ip("255.255.240.0"), mask);
    const auto events = Events();
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ("1.0.0.0/40|servers|${ipList}", events[0].detail);
}

TEST(IpInListTest, RangeIsComparedInHostOrderWithBothBoundsIncluded) {
    // Crosses a byte boundary, where a comparison in network order would fail.
    const IpList list = {{true, Ip("10.0.0.250"), Ip("10.0.1.5")}};
    EXPECT_TRUE(IpInList(Ip("10.0.0.250"), &list));
    EXPECT_TRUE(IpInList(Ip("10.0.1.0"), &list));
    EXPECT_TRUE(IpInList(Ip("10.0.1.5"), &list));
    EXPECT_FALSE(IpInList(Ip("10.0.0.249"), &list));
    EXPECT_FALSE(IpInList(Ip("10.0.1.6"), &list));
    EXPECT_FALSE(IpInList(Ip("11.0.0.251"), &list));
}

TEST(IpInListTest, MaskedEntryComparesTheMaskedBits) {
    const IpList list = {{false, Ip("192.168.7.1"), Ip("255.255.255.0")}};
    EXPECT_TRUE(IpInList(Ip("192.168.7.200"), &list));
    EXPECT_FALSE(IpInList(Ip("192.168.8.1"), &list));
    const IpList all = {{true, Ip("20.0.0.1"), Ip("20.0.0.3")}, {false, Ip("1.2.3.4"), 0}};
    EXPECT_TRUE(IpInList(Ip("200.1.1.1"), &all));
}

}  // namespace
