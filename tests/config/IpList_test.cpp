// Address lists: the text forms that ParseIpList takes, the events for bad
// entries, and the membership test IpInList.
#include <arpa/inet.h>

#include <sstream>

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

std::string Dotted(u32 address) {
    in_addr in;
    in.s_addr = address;
    return inet_ntoa(in);
}

// The entries as "first-last" for a range and "address/mask" otherwise.
std::string Text(const IpList& list) {
    std::string text;
    for (const IpListEntry& entry : list) {
        text += (text.empty() ? "" : " ") + Dotted(entry.first) + (entry.isRange ? "-" : "/") +
                Dotted(entry.second);
    }
    return text;
}

TEST(ParseIpList, FormsSeparatorsAndBadEntries) {
    struct Case {
        const char* text;
        const char* expected;
        const char* bad;  // the entries reported as event 2019
    };
    const char* const net24 = "192.168.0.0/255.255.255.0";
    const std::vector<Case> cases = {
        {"192.168.0.0/24", net24, ""},
        {"192.168.0.0/255.255.255.0", net24, ""},
        {"192.168.0.*", net24, ""},
        {"10.0.0.0/1 10.2.3.4/32", "10.0.0.0/128.0.0.0 10.2.3.4/255.255.255.255", ""},
        {"10.1 10.1.*.* 10.*.3 *",
         "10.1.0.0/255.255.0.0 10.1.0.0/255.255.0.0 10.0.3.0/255.0.255.0 0.0.0.0/0.0.0.0", ""},
        // An unparsable address becomes all ones, without a report.
        {"10.1.2.x", "255.255.255.255/255.255.255.255", ""},
        {" 1.2.3.4,, ,  5.6.7.8 ,", "1.2.3.4/255.255.255.255 5.6.7.8/255.255.255.255", ""},
        {"", "", ""},
        // Bad entries are left out; the good ones are still parsed.
        {"9.9.9.9 1.2.3.4- -1.2.3.4 1.2.3.4-1.2.3.9", "9.9.9.9/255.255.255.255 1.2.3.4-1.2.3.9",
         "1.2.3.4- -1.2.3.4"},
        {"1.2.3.0/ /24 1.2.3.0/0 1.2.3.0/33 1.2.3.0/abc 1.2.3.0/2x", "",
         "1.2.3.0/ /24 1.2.3.0/0 1.2.3.0/33 1.2.3.0/abc 1.2.3.0/2x"},
    };
    NorvCore::CDom dom(":memory:");
    for (const Case& c : cases) {
        dom.ClearAgentEvents();
        IpList list = {{true, 1, 2}};  // emptied by the parse
        EXPECT_EQ(*c.bad == '\0', ConfigUtils::ParseIpList(c.text, "servers", L"ipList", &list))
            << c.text;
        EXPECT_EQ(c.expected, Text(list)) << c.text;
        std::string expected, reported, entry;
        for (std::istringstream bad(c.bad); bad >> entry;) {
            expected += "2019 " + entry + "|servers|${ipList}\n";
        }
        for (const auto& event : dom.AgentEvents()) {
            reported += std::to_string(event.number) + " " + event.detail.ToStdString() + "\n";
        }
        EXPECT_EQ(expected, reported) << c.text;
    }
}

TEST(IpInList, RangesInHostOrderAndMaskedBits) {
    // The range crosses a byte boundary, where a comparison in network order
    // would fail.
    const IpList range = {{true, Ip("10.0.0.250"), Ip("10.0.1.5")}};
    const IpList masked = {{false, Ip("10.0.3.1"), Ip("255.0.255.0")}};
    const IpList second = {{true, Ip("20.0.0.1"), Ip("20.0.0.3")}, {false, Ip("1.2.3.4"), 0}};
    const IpList empty;
    const std::vector<std::tuple<const IpList*, const char*, bool>> cases = {
        {&range, "10.0.0.250", true},   {&range, "10.0.1.0", true},
        {&range, "10.0.1.5", true},     {&range, "10.0.0.249", false},
        {&range, "10.0.1.6", false},    {&range, "11.0.0.251", false},
        {&masked, "10.77.3.200", true}, {&masked, "10.77.4.200", false},
        {&masked, "11.0.3.1", false},   {&second, "200.1.1.1", true},
        {&empty, "0.0.0.0", false},     {nullptr, "1.2.3.4", false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(std::get<2>(c), IpInList(Ip(std::get<1>(c)), std::get<0>(c))) << std::get<1>(c);
    }
}

}  // namespace
