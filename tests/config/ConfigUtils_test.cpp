// ConfigUtils against real configuration tables in a Lua state: the lookups,
// the group readers, and the index error of a position that holds no table,
// kept for the entry; the address list texts that ParseIpList takes, with the
// events for bad entries, and the membership test IpInList. The block request
// is driven through the log object by analysis_events_spec.lua.
#include <arpa/inet.h>

#include <cmath>
#include <cstdint>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <lua.hpp>

#include "config/ConfigUtils.h"
#include "host/Dom.h"

using ::testing::HasSubstr;
using VEXIL::ConfigUtils;
using VEXIL::IpInList;
using VEXIL::IpList;

namespace {

class ConfigUtilsTest : public ::testing::Test {
protected:
    void SetUp() override {
        L = luaL_newstate();
        m_Dom.ClearAgentEvents();
    }
    void TearDown() override { lua_close(L); }

    // Leaves the value of the Lua expression alone on the stack, at 1.
    void Load(const std::string& expression) {
        lua_settop(L, 0);
        ASSERT_EQ(LUA_OK, luaL_dostring(L, ("return " + expression).c_str()))
            << lua_tostring(L, -1);
        lua_settop(L, 1);
    }

    lua_State* L = nullptr;
    NorvCore::CDom m_Dom{":memory:"};
};

TEST_F(ConfigUtilsTest, RuleAndHostLookupsReadUtf8AndDefaults) {
    ConfigUtils config(L, 1);
    Load(
        u8"{ packetFilterMap = { [12] = { name = 'Zugriff für Größe ✓', filterAction = 3 } },"
        " payloadFilterMap = { [4] = { name = 'sig', severity = 2, identifier = 'CVE-1',"
        " incoming = true }, [5] = { } }, agentConfiguration = { hostID = 77, hostname = 'wächter' "
        "} }");
    // Each lookup writes into these; a lookup that fails must leave them.
    std::string name, identifier;
    bool incoming = false;
    u32 number = 9;
    const auto values = [&](bool found) {
        return (found ? "" : "missing ") + name +
               wxString::Format("|%d|%u|", incoming, number).ToStdString() + identifier;
    };
    EXPECT_EQ("sig|1|2|CVE-1",
              values(config.getPayloadFilterInfo(4, name, incoming, number, identifier)));
    // Missing fields read as empty, false and 0.
    EXPECT_EQ("|0|0|", values(config.getPayloadFilterInfo(5, name, incoming, number, identifier)));
    EXPECT_EQ("missing |0|0|",
              values(config.getPayloadFilterInfo(6, name, incoming, number, identifier)));
    EXPECT_EQ(u8"Zugriff für Größe ✓|0|3|", values(config.getPacketFilterInfo(12, name, number)));
    EXPECT_EQ(u8"missing Zugriff für Größe ✓|0|3|",
              values(config.getPacketFilterInfo(9, name, number)));
    config.getAgentConfigurationHostIdentity(name, number);
    EXPECT_EQ(u8"wächter|0|77|", values(true));
    EXPECT_EQ(1, lua_gettop(L));
}

TEST_F(ConfigUtilsTest, MissingTableOrGroupFailsEveryLookupAndChangesNothing) {
    std::string text = "untouched";
    u32 number = 42, enabled = 0, notify = 0;
    u64 wide = 42;
    bool flag = true;
    IpList* list = nullptr;
    u32 seconds[5] = {};
    for (const std::string table : {"nil", "{ packetFilterMap = 5, agentConfiguration = 'x' }"}) {
        Load(table);
        ConfigUtils config(L, 1);
        EXPECT_FALSE(config.getPacketFilterInfo(1, text, number));
        EXPECT_FALSE(config.getPayloadFilterInfo(1, text, flag, number, text));
        config.getAgentConfigurationHostIdentity(text, number);
        EXPECT_FALSE(config.getInterfaceName("0", text));
        EXPECT_FALSE(config.getInterfaceConfigID("0", number));
        EXPECT_FALSE(config.getAgentConfigurationPacketFilterLog(number, number, list, wide, number,
                                                                 number));
        EXPECT_FALSE(
            config.getAgentConfigurationTrafficAnalysis(list, list, seconds, enabled, notify));
        EXPECT_EQ(1, lua_gettop(L));
    }
    EXPECT_EQ("untouched", text);
    EXPECT_EQ(42u, number);
    EXPECT_EQ(42u, wide);
    EXPECT_EQ(nullptr, list);
}

TEST_F(ConfigUtilsTest, InterfaceLookupsJoinDriverIndexToConfigurationId) {
    // The entry of index 5 has a mac with zero bytes and an id that is cut to
    // a whole number, beside entries that are to be passed over.
    ConfigUtils config(L, 1);
    Load(
        "{ driverInterfaceMap = { 'not a table', { id = 4, mac = 'x' }, { id = 5.9, mac = "
        "'\\0\\27\\33\\0\\0\\7' } }, interfaceMap = {"
        " ['001b21000007'] = { id = 31.9, name = 'eth0' }, ['78'] = { id = 4 } } }");
    const auto idOf = [&config](u32 index) {
        u32 id = 99;  // left as it stands when the lookup fails
        const bool found = config.getInterfaceID(index, id);
        return (found ? "" : "missing ") + std::to_string(id);
    };
    EXPECT_EQ("31", idOf(5));
    EXPECT_EQ("missing 99", idOf(6));
    EXPECT_EQ("4", idOf(4));  // the one-byte mac "x", configured under its hex text
    std::string name;
    EXPECT_TRUE(config.getInterfaceName("001b21000007", name));
    EXPECT_EQ("eth0", name);
    u32 id = 0;
    EXPECT_FALSE(config.getInterfaceConfigID("0a", id));
}

TEST_F(ConfigUtilsTest, IndexErrorOfANonTableIsKeptForTheEntry) {
    ConfigUtils config(L, 1);
    Load("nil");
    u32 id = 99;
    EXPECT_FALSE(config.getInterfaceID(5, id));
    EXPECT_EQ(99u, id);
    ASSERT_TRUE(config.HasPendingError());
    // Only the first error is kept.
    Load("42");
    bool notBlocked = true;
    EXPECT_FALSE(config.BlacklistIp(nullptr, 0, "1.2.3.4", 60, notBlocked));
    EXPECT_TRUE(notBlocked);
    EXPECT_EQ(1, lua_gettop(L));
    config.PushPendingError();
    EXPECT_FALSE(config.HasPendingError());
    ASSERT_EQ(2, lua_gettop(L));
    EXPECT_THAT(lua_tostring(L, -1), HasSubstr("attempt to index a nil value"));

    lua_settop(L, 1);
    EXPECT_FALSE(config.BlacklistIp(nullptr, 0, "1.2.3.4", 60, notBlocked));
    config.PushPendingError();
    EXPECT_THAT(lua_tostring(L, -1), HasSubstr("attempt to index a number value"));
}

TEST_F(ConfigUtilsTest, PacketFilterLogReadsValuesAndReplacesTheIgnoreList) {
    ConfigUtils config(L, 1);
    // Absent values read 0 and an absent list gives null; a list without
    // items gives an empty one; a bad entry drops the list with an event.
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"{ size = 2048, keep = 3, cacheSize = 500, cacheLifetime = 70000, cacheStaletime = 20000,"
         " ignoreIpList = { items = '10.0.0.1, 10.1.*.*', name = 'ign' } }",
         "2048 3 500 70000 20000: 2 entries"},
        {"{ keep = 1 }", "0 1 0 0 0: null"},
        {"{ ignoreIpList = { name = 'none' } }", "0 0 0 0 0: 0 entries"},
        {"{ ignoreIpList = { items = '1.2.3.4, 1.2.3.0/33', name = 'Office|LAN' } }",
         "0 0 0 0 0: null"},
    };
    IpList old;
    for (const auto& c : cases) {
        Load("{ packetFilterLog = " + c.first + " }");
        IpList* list = &old;
        u32 size = 9, keep = 9, lifetime = 9, stale = 9;
        u64 cacheSize = 9;
        EXPECT_TRUE(config.getAgentConfigurationPacketFilterLog(size, keep, list, cacheSize,
                                                                lifetime, stale));
        const std::string values = wxString::Format("%u %u %llu %u %u: ", size, keep,
                                                    (unsigned long long)cacheSize, lifetime, stale)
                                       .ToStdString();
        EXPECT_EQ(c.second, values + (list ? std::to_string(list->size()) + " entries" : "null"));
        EXPECT_NE(&old, list);
        delete list;
    }
    const auto events = m_Dom.AgentEvents();
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ(2019, events[0].number);
    EXPECT_EQ("1.2.3.0/33|Office!LAN|${ipList}", events[0].detail);
    EXPECT_EQ(1, lua_gettop(L));
}

TEST_F(ConfigUtilsTest, TrafficAnalysisReadsListsAndProbeMap) {
    ConfigUtils config(L, 1);
    Load(
        "{ trafficAnalysisConfiguration = { destIpList = { items = '192.168.0.0/16', name = 'd' } "
        "},"
        "  probeConfigurationMap = { [0] = { blockAttackerSeconds = 30, notifyImmediately = true },"
        "    [3] = { blockAttackerSeconds = 600 }, [4] = 'no table', [-1] = { },"
        "    [5] = { blockAttackerSeconds = 1, notifyImmediately = true } } }");
    IpList oldDest, oldWhite;
    IpList* dest = &oldDest;
    IpList* white = &oldWhite;
    u32 seconds[5] = {11, 12, 13, 14, 15};
    u32 enabled = 0xFF, notify = 0xFF;
    EXPECT_TRUE(config.getAgentConfigurationTrafficAnalysis(dest, white, seconds, enabled, notify));
    ASSERT_NE(nullptr, dest);
    EXPECT_EQ(1u, dest->size());
    delete dest;
    EXPECT_EQ(nullptr, white);
    EXPECT_EQ(0x09u, enabled);  // types 0 and 3; 4 has no table, -1 and 5 are out of range
    EXPECT_EQ(0x01u, notify);
    EXPECT_EQ((std::vector<u32>{30, 0, 13, 600, 15}), std::vector<u32>(seconds, seconds + 5));
    EXPECT_EQ(1, lua_gettop(L));

    // Without the map the lists are replaced all the same, and the first two
    // block times and the bit sets are cleared.
    Load("{ trafficAnalysisConfiguration = { whitelistIpList = { items = '', name = 'w' } } }");
    dest = &oldDest;
    EXPECT_FALSE(
        config.getAgentConfigurationTrafficAnalysis(dest, white, seconds, enabled, notify));
    EXPECT_EQ(nullptr, dest);
    ASSERT_NE(nullptr, white);
    EXPECT_FALSE(VEXIL::IpInList(inet_addr("1.2.3.4"), white));
    delete white;
    EXPECT_EQ((std::vector<u32>{0, 0, 13}), std::vector<u32>(seconds, seconds + 3));
    EXPECT_EQ(0u, enabled | notify);
}

TEST(ConfigUtils, TruncateNumberCutsTowardZeroAndSaturates) {
    const auto cut = ConfigUtils::TruncateNumber;
    EXPECT_EQ(
        (std::vector<i64>{0, 5, -5, INT64_MAX, INT64_MIN}),
        (std::vector<i64>{cut(std::nan("")), cut(5.9), cut(-5.9), cut(1e19), cut(-HUGE_VAL)}));
}

std::string Dotted(u32 address) {
    return inet_ntoa(in_addr{address});
}

// The entries as "first-last" for a range and "address/mask" otherwise.
std::string Text(const IpList& list) {
    std::string text;
    for (const VEXIL::IpListEntry& entry : list) {
        text += (text.empty() ? "" : " ") + Dotted(entry.first) + (entry.isRange ? "-" : "/") +
                Dotted(entry.second);
    }
    return text;
}

TEST_F(ConfigUtilsTest, ParseIpListFormsSeparatorsAndBadEntries) {
    const char* const net24 = "192.168.0.0/255.255.255.0";
    const struct {
        const char* text;
        const char* expected;
        const char* bad;  // the entries reported as event 2019
    } cases[] = {
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
    for (const auto& c : cases) {
        m_Dom.ClearAgentEvents();
        IpList list = {{true, 1, 2}};  // emptied by the parse
        EXPECT_EQ(*c.bad == '\0', ConfigUtils::ParseIpList(c.text, "servers", L"ipList", &list))
            << c.text;
        EXPECT_EQ(c.expected, Text(list)) << c.text;
        std::string expected, reported, entry;
        for (std::istringstream bad(c.bad); bad >> entry;) {
            expected += "2019 " + entry + "|servers|${ipList}\n";
        }
        for (const auto& event : m_Dom.AgentEvents()) {
            reported += std::to_string(event.number) + " " + event.detail.ToStdString() + "\n";
        }
        EXPECT_EQ(expected, reported) << c.text;
    }
}

TEST(IpInList, RangesInHostOrderAndMaskedBits) {
    // The range crosses a byte boundary, where a comparison in network order
    // would fail; the masked entry's address has bits outside its mask.
    IpList list;
    ASSERT_TRUE(ConfigUtils::ParseIpList("10.0.0.250-10.0.1.5 10.0.3.1/255.0.255.0", "servers",
                                         L"ipList", &list));
    const std::vector<std::pair<const char*, bool>> cases = {
        {"10.0.0.250", true},  {"10.0.1.0", true},     {"10.0.1.5", true},
        {"10.0.0.249", false}, {"10.0.1.6", false},    {"11.0.0.251", false},
        {"10.77.3.200", true}, {"10.77.4.200", false}, {"11.0.3.1", false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.second, IpInList(inet_addr(c.first), &list)) << c.first;
    }
    const IpList empty;
    EXPECT_FALSE(IpInList(0, &empty));
    EXPECT_FALSE(IpInList(0, nullptr));
}

}  // namespace
