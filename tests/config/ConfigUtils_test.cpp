// ConfigUtils against real configuration tables in a Lua state: the lookups,
// the group readers, the block request, and the index error of a position
// that holds no table, kept for the entry.
#include <arpa/inet.h>

#include <cerrno>
#include <cstring>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <wx/log.h>
#include <lua.hpp>

#include "config/ConfigUtils.h"
#include "host/Dom.h"
#include "host/NorviLoader.h"
#include "host/Trace.h"
#include "host/norvi/driver/NorviControl.h"

using ::testing::HasSubstr;
using VEXIL::ConfigUtils;
using VEXIL::IpList;

namespace {

class ConfigUtilsTest : public ::testing::Test {
protected:
    void SetUp() override {
        L = luaL_newstate();
        luaL_openlibs(L);
        NorvCore::SetTraceCategories("vexil");
        NorvCore::TakeTraceLines();
        NorvCore::TakeOperatorLogLines();
        m_Dom.ClearAgentEvents();
    }
    void TearDown() override {
        lua_close(L);
        NorvCore::SetTraceCategories("");
    }

    // Empties the stack and leaves the value of the Lua expression at 1,
    // where the tests' ConfigUtils look.
    void Load(const std::string& expression) {
        lua_settop(L, 0);
        const std::string chunk = "return " + expression;
        ASSERT_EQ(LUA_OK, luaL_dostring(L, chunk.c_str())) << lua_tostring(L, -1);
        lua_settop(L, 1);
    }

    // Whether exactly one trace line was written since the last call, with
    // that message.
    static void ExpectTrace(const std::string& message) {
        const std::vector<std::string> lines = NorvCore::TakeTraceLines();
        ASSERT_EQ(1u, lines.size()) << message;
        EXPECT_THAT(lines[0], ::testing::EndsWith(": " + message));
    }
    static void ExpectNoTrace() { EXPECT_TRUE(NorvCore::TakeTraceLines().empty()); }

    lua_State* L = nullptr;
    NorvCore::CDom m_Dom{":memory:"};
};

TEST_F(ConfigUtilsTest, PacketFilterInfoReadsUtf8NameAndAction) {
    ConfigUtils config(L, 1);
    Load(u8"{ packetFilterMap = { [12] = { name = 'Zugriff für Größe ✓', filterAction = 3 } } }");
    wxString name;
    u32 action = 0;
    EXPECT_TRUE(config.getPacketFilterInfo(12, name, action));
    EXPECT_EQ(wxString::FromUTF8(u8"Zugriff für Größe ✓"), name);
    EXPECT_EQ(3u, action);
    EXPECT_EQ(1, lua_gettop(L));
    ExpectNoTrace();

    name = "untouched";
    EXPECT_FALSE(config.getPacketFilterInfo(9, name, action));
    ExpectTrace("Filter ID 9 was not found in the packetFilterMap");
    EXPECT_EQ("untouched", name);
    EXPECT_EQ(3u, action);
    EXPECT_EQ(1, lua_gettop(L));
}

TEST_F(ConfigUtilsTest, PayloadFilterInfoReadsFourFieldsWithDefaults) {
    ConfigUtils config(L, 1);
    Load(
        "{ payloadFilterMap = { [4] = { name = 'sig', severity = 2, identifier = 'CVE-1',"
        " incoming = true }, [5] = { } } }");
    wxString name, identifier;
    bool incoming = false;
    u32 severity = 0;
    EXPECT_TRUE(config.getPayloadFilterInfo(4, name, incoming, severity, identifier));
    EXPECT_EQ("sig", name);
    EXPECT_TRUE(incoming);
    EXPECT_EQ(2u, severity);
    EXPECT_EQ("CVE-1", identifier);

    EXPECT_TRUE(config.getPayloadFilterInfo(5, name, incoming, severity, identifier));
    EXPECT_EQ("", name);
    EXPECT_FALSE(incoming);
    EXPECT_EQ(0u, severity);
    EXPECT_EQ("", identifier);

    EXPECT_FALSE(config.getPayloadFilterInfo(6, name, incoming, severity, identifier));
    ExpectTrace("Filter ID 6 was not found in the payloadFilterMap");
}

TEST_F(ConfigUtilsTest, HostIdentityIsReadOrLeftAlone) {
    ConfigUtils config(L, 1);
    Load("{ agentConfiguration = { hostID = 77, hostname = 'wächter' } }");
    wxString hostname = "default";
    u32 hostID = 1;
    config.getAgentConfigurationHostIdentity(hostname, hostID);
    EXPECT_EQ(wxString::FromUTF8(u8"wächter"), hostname);
    EXPECT_EQ(77u, hostID);

    Load("{ agentConfiguration = 'no table' }");
    hostname = "default";
    hostID = 1;
    config.getAgentConfigurationHostIdentity(hostname, hostID);
    ExpectTrace("Could not agentConfiguration map");
    EXPECT_EQ("default", hostname);
    EXPECT_EQ(1u, hostID);
}

TEST_F(ConfigUtilsTest, MissingMapsAreTraced) {
    ConfigUtils config(L, 1);
    Load("{ packetFilterMap = 5 }");
    wxString text;
    u32 number = 0;
    bool flag = false;
    EXPECT_FALSE(config.getPacketFilterInfo(1, text, number));
    ExpectTrace("Could not get packetFilterMap");
    EXPECT_FALSE(config.getPayloadFilterInfo(1, text, flag, number, text));
    ExpectTrace("Could not get payloadFilterMap");
    EXPECT_FALSE(config.getInterfaceName("00", text));
    ExpectTrace("Could not get interface map");
    EXPECT_FALSE(config.getInterfaceConfigID("00", number));
    ExpectTrace("Could not get interface map");
    EXPECT_FALSE(config.getInterfaceID(1, number));
    ExpectTrace("Could not get driverInterfaceMap");
    IpList* list = nullptr;
    u64 cacheSize = 0;
    EXPECT_FALSE(config.getAgentConfigurationPacketFilterLog(number, number, list, cacheSize,
                                                             number, number));
    ExpectTrace("Could not get packet filter log map");
    u32 seconds[5] = {};
    EXPECT_FALSE(config.getAgentConfigurationTrafficAnalysis(list, list, seconds, number, number));
    ExpectTrace("Could not get trafficAnalysisConfiguration map");
    EXPECT_EQ(1, lua_gettop(L));
}

TEST_F(ConfigUtilsTest, PositionWithoutTableFailsEveryLookupButTheIndexedOnes) {
    ConfigUtils config(L, 1);
    Load("nil");
    wxString text = "untouched";
    u32 number = 42;
    bool flag = true;
    u64 cacheSize = 0;
    IpList* list = nullptr;
    u32 seconds[5] = {};
    EXPECT_FALSE(config.getPacketFilterInfo(1, text, number));
    ExpectTrace("Could not get config map");
    EXPECT_FALSE(config.getPayloadFilterInfo(1, text, flag, number, text));
    ExpectTrace("Could not get config map");
    config.getAgentConfigurationHostIdentity(text, number);
    ExpectTrace("Could not get config map");
    EXPECT_FALSE(config.getInterfaceName("00", text));
    ExpectTrace("Could not get config map");
    EXPECT_FALSE(config.getInterfaceConfigID("00", number));
    ExpectTrace("Could not get config map");
    EXPECT_FALSE(config.getAgentConfigurationPacketFilterLog(number, number, list, cacheSize,
                                                             number, number));
    ExpectTrace("Could not get config map");
    EXPECT_EQ("untouched", text);
    EXPECT_EQ(42u, number);
    EXPECT_FALSE(config.getAgentConfigurationTrafficAnalysis(list, list, seconds, number, number));
    ExpectTrace("Could not get config map");
}

TEST_F(ConfigUtilsTest, InterfaceLookupsByHexAddress) {
    ConfigUtils config(L, 1);
    Load("{ interfaceMap = { ['001b21000007'] = { name = 'eth0', id = 3.7 } } }");
    wxString name;
    u32 id = 0;
    EXPECT_TRUE(config.getInterfaceName("001b21000007", name));
    EXPECT_EQ("eth0", name);
    EXPECT_TRUE(config.getInterfaceConfigID("001b21000007", id));
    EXPECT_EQ(3u, id);
    EXPECT_FALSE(config.getInterfaceName("001b21000008", name));
    ExpectTrace("Could not look up interface given mac 001b21000008");
    EXPECT_FALSE(config.getInterfaceConfigID("0a", id));
    ExpectTrace("Could not look up interface given mac 0a");
}

// A driver map whose matching entry has the given id, a mac with zero bytes,
// and entries that are to be passed over.
std::string DriverConfig(const char* id) {
    return std::string("{ driverInterfaceMap = { 'not a table', { id = 4, mac = 'x' }, { id = ") +
           id +
           ", mac = '\\0\\27\\33\\0\\0\\7' } },"
           " interfaceMap = { ['001b21000007'] = { id = 31 }, ['78'] = { id = 4 } } }";
}

TEST_F(ConfigUtilsTest, InterfaceIdJoinsDriverIndexToConfigurationId) {
    for (const char* storedId : {"5", "5.0", "5.9"}) {
        ConfigUtils config(L, 1);
        Load(DriverConfig(storedId));
        u32 id = 0;
        EXPECT_TRUE(config.getInterfaceID(5, id)) << storedId;
        EXPECT_EQ(31u, id) << storedId;
        EXPECT_EQ(1, lua_gettop(L));
    }
    ExpectNoTrace();

    ConfigUtils config(L, 1);
    Load(DriverConfig("5"));
    u32 id = 99;
    EXPECT_FALSE(config.getInterfaceID(6, id));
    EXPECT_EQ(99u, id);
    ExpectNoTrace();
    // A match whose address isn't configured fails in the second lookup.
    EXPECT_TRUE(config.getInterfaceID(4, id));
    EXPECT_EQ(4u, id);
}

TEST_F(ConfigUtilsTest, IndexErrorOfANonTableIsKeptForTheEntry) {
    ConfigUtils config(L, 1);
    Load("nil");
    u32 id = 99;
    EXPECT_FALSE(config.getInterfaceID(5, id));
    EXPECT_EQ(99u, id);
    EXPECT_EQ(1, lua_gettop(L));
    ASSERT_TRUE(config.HasPendingError());

    // Only the first error is kept.
    Load("42");
    bool notBlocked = true;
    EXPECT_FALSE(config.BlacklistIp(nullptr, 0, "1.2.3.4", 60, notBlocked));
    EXPECT_TRUE(notBlocked);
    EXPECT_EQ(1, lua_gettop(L));
    ExpectNoTrace();

    config.PushPendingError();
    EXPECT_FALSE(config.HasPendingError());
    ASSERT_EQ(2, lua_gettop(L));
    EXPECT_THAT(lua_tostring(L, -1), HasSubstr("attempt to index a nil value"));

    lua_settop(L, 1);
    EXPECT_FALSE(config.BlacklistIp(nullptr, 0, "1.2.3.4", 60, notBlocked));
    config.PushPendingError();
    EXPECT_THAT(lua_tostring(L, -1), HasSubstr("attempt to index a number value"));
}

// What an entry does: looks up with a ConfigUtils on the value at 1 and
// raises the kept error once the ConfigUtils is gone.
int EntryLike(lua_State* L) {
    ConfigUtils* config = new ConfigUtils(L, 1);
    u32 id = 0;
    const bool found = config->getInterfaceID(5, id);
    if (config->HasPendingError()) {
        config->PushPendingError();
        delete config;
        return lua_error(L);
    }
    delete config;
    lua_pushboolean(L, found);
    return 1;
}

TEST_F(ConfigUtilsTest, KeptIndexErrorReachesTheScriptAndTheStateGoesOn) {
    lua_settop(L, 0);
    lua_pushcfunction(L, EntryLike);
    lua_pushnil(L);
    ASSERT_EQ(LUA_ERRRUN, lua_pcall(L, 1, 1, 0));
    EXPECT_THAT(lua_tostring(L, -1), HasSubstr("attempt to index a nil value"));

    lua_settop(L, 0);
    ASSERT_EQ(LUA_OK, luaL_dostring(L, "return 6 * 7"));
    EXPECT_EQ(42, lua_tointeger(L, -1));
    lua_settop(L, 0);
    lua_pushcfunction(L, EntryLike);
    ASSERT_EQ(LUA_OK, luaL_dostring(L, ("return " + DriverConfig("5")).c_str()));
    ASSERT_EQ(LUA_OK, lua_pcall(L, 1, 1, 0));
    EXPECT_TRUE(lua_toboolean(L, -1));

    // An error nobody took is released with its ConfigUtils.
    Load("nil");
    {
        ConfigUtils config(L, 1);
        u32 id = 0;
        EXPECT_FALSE(config.getInterfaceID(5, id));
        EXPECT_TRUE(config.HasPendingError());
    }
    EXPECT_EQ(1, lua_gettop(L));
}

TEST_F(ConfigUtilsTest, PacketFilterLogReadsValuesAndIgnoreList) {
    ConfigUtils config(L, 1);
    Load(
        "{ packetFilterLog = { size = 2048, keep = 3, cacheSize = 500, cacheLifetime = 70000,"
        " cacheStaletime = 20000, ignoreIpList = { items = '10.0.0.1, 10.1.*.*', name = 'ign' }"
        " } }");
    u32 size = 0, keep = 0, lifetime = 0, stale = 0;
    u64 cacheSize = 0;
    IpList old;
    IpList* list = &old;
    EXPECT_TRUE(
        config.getAgentConfigurationPacketFilterLog(size, keep, list, cacheSize, lifetime, stale));
    EXPECT_EQ(2048u, size);
    EXPECT_EQ(3u, keep);
    EXPECT_EQ(500u, cacheSize);
    EXPECT_EQ(70000u, lifetime);
    EXPECT_EQ(20000u, stale);
    ASSERT_NE(nullptr, list);
    ASSERT_NE(&old, list);
    EXPECT_EQ(2u, list->size());
    EXPECT_TRUE(VEXIL::IpInList(inet_addr("10.1.200.3"), list));
    delete list;
    EXPECT_EQ(1, lua_gettop(L));

    // Absent values read 0, an absent list gives null, and a list without
    // items gives an empty one.
    Load("{ packetFilterLog = { keep = 1 } }");
    list = &old;
    EXPECT_TRUE(
        config.getAgentConfigurationPacketFilterLog(size, keep, list, cacheSize, lifetime, stale));
    EXPECT_EQ(0u, size);
    EXPECT_EQ(1u, keep);
    EXPECT_EQ(0u, cacheSize);
    EXPECT_EQ(nullptr, list);

    Load("{ packetFilterLog = { ignoreIpList = { name = 'none' } } }");
    EXPECT_TRUE(
        config.getAgentConfigurationPacketFilterLog(size, keep, list, cacheSize, lifetime, stale));
    ASSERT_NE(nullptr, list);
    EXPECT_TRUE(list->empty());
    delete list;
    ExpectNoTrace();
    EXPECT_TRUE(m_Dom.AgentEvents().empty());
}

TEST_F(ConfigUtilsTest, BadIgnoreListIsDroppedWithAnEventAndTheReaderSucceeds) {
    ConfigUtils config(L, 1);
    Load(
        "{ packetFilterLog = { size = 9, ignoreIpList = { items = '1.2.3.4, 1.2.3.0/33',"
        " name = 'Office|LAN' } } }");
    u32 size = 0, keep = 0, lifetime = 0, stale = 0;
    u64 cacheSize = 0;
    IpList old;
    IpList* list = &old;
    EXPECT_TRUE(
        config.getAgentConfigurationPacketFilterLog(size, keep, list, cacheSize, lifetime, stale));
    EXPECT_EQ(nullptr, list);
    EXPECT_EQ(9u, size);
    const auto events = m_Dom.AgentEvents();
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ(2019, events[0].number);
    EXPECT_EQ("1.2.3.0/33|Office!LAN|${ipList}", events[0].detail);
}

TEST_F(ConfigUtilsTest, TrafficAnalysisReadsListsAndProbeMap) {
    ConfigUtils config(L, 1);
    Load(
        "{ trafficAnalysisConfiguration = { destIpList = { items = '192.168.0.0/16', name = 'd' }"
        " },"
        "  probeConfigurationMap = {"
        "    [0] = { blockAttackerSeconds = 30, notifyImmediately = true },"
        "    [3] = { blockAttackerSeconds = 600 },"
        "    [4] = 'no table',"
        "    [7] = { blockAttackerSeconds = 1, notifyImmediately = true } } }");
    IpList oldDest, oldWhite;
    IpList* dest = &oldDest;
    IpList* white = &oldWhite;
    u32 seconds[5] = {11, 12, 13, 14, 15};
    u32 enabled = 0xFF, notify = 0xFF;
    EXPECT_TRUE(config.getAgentConfigurationTrafficAnalysis(dest, white, seconds, enabled, notify));
    ASSERT_NE(nullptr, dest);
    ASSERT_EQ(1u, dest->size());
    EXPECT_EQ(nullptr, white);
    EXPECT_EQ(0x09u, enabled);  // types 0 and 3; 4 has no table, 7 is out of range
    EXPECT_EQ(0x01u, notify);
    EXPECT_EQ(30u, seconds[0]);
    EXPECT_EQ(0u, seconds[1]);
    EXPECT_EQ(13u, seconds[2]);
    EXPECT_EQ(600u, seconds[3]);
    EXPECT_EQ(15u, seconds[4]);
    delete dest;
    ExpectNoTrace();
    EXPECT_EQ(1, lua_gettop(L));
}

TEST_F(ConfigUtilsTest, TrafficAnalysisSkipsNegativeKeysWithATrace) {
    ConfigUtils config(L, 1);
    Load(
        "{ trafficAnalysisConfiguration = { }, probeConfigurationMap = {"
        " [-1] = { blockAttackerSeconds = 5 }, [2] = { notifyImmediately = true } } }");
    IpList* dest = nullptr;
    IpList* white = nullptr;
    u32 seconds[5] = {};
    u32 enabled = 0, notify = 0;
    EXPECT_TRUE(config.getAgentConfigurationTrafficAnalysis(dest, white, seconds, enabled, notify));
    EXPECT_EQ(0x04u, enabled);
    EXPECT_EQ(0x04u, notify);
    ExpectTrace("Skipped 1 entries of probeConfigurationMap with a negative key, the last -1");
}

TEST_F(ConfigUtilsTest, TrafficAnalysisWithoutProbeMapStillReplacesTheLists) {
    ConfigUtils config(L, 1);
    Load("{ trafficAnalysisConfiguration = { whitelistIpList = { items = '', name = 'w' } } }");
    IpList oldDest;
    IpList* dest = &oldDest;
    IpList* white = nullptr;
    u32 seconds[5] = {1, 2, 3, 4, 5};
    u32 enabled = 3, notify = 3;
    EXPECT_FALSE(
        config.getAgentConfigurationTrafficAnalysis(dest, white, seconds, enabled, notify));
    ExpectTrace("Could not get probeConfigurationMap");
    EXPECT_EQ(nullptr, dest);
    ASSERT_NE(nullptr, white);
    EXPECT_TRUE(white->empty());
    EXPECT_FALSE(VEXIL::IpInList(inet_addr("1.2.3.4"), white));
    delete white;
    EXPECT_EQ(0u, seconds[0]);
    EXPECT_EQ(0u, seconds[1]);
    EXPECT_EQ(3u, seconds[2]);
    EXPECT_EQ(0u, enabled);
    EXPECT_EQ(0u, notify);
}

// The test controls of the in-process driver, reached in the loaded copy.
struct DriverControls {
    size_t (*takeRequests)(void*, size_t);
    void (*setResult)(int);
    void (*reset)();
};

DriverControls Controls() {
    return {
        reinterpret_cast<size_t (*)(void*, size_t)>(
            NorvCore::NorviSymbol("norvi_test_take_blacklist_requests")),
        reinterpret_cast<void (*)(int)>(NorvCore::NorviSymbol("norvi_test_set_blacklist_result")),
        reinterpret_cast<void (*)()>(NorvCore::NorviSymbol("norvi_test_reset"))};
}

const char* const kPlatformConfig = "{ platformInterfaceMap = { ['10.0.0.5'] = { } } }";

TEST_F(ConfigUtilsTest, BlacklistIpSparesTheHostsOwnInterfaces) {
    ConfigUtils config(L, 1);
    Load(kPlatformConfig);
    bool notBlocked = true;
    EXPECT_FALSE(config.BlacklistIp(nullptr, inet_addr("10.0.0.5"), "10.0.0.5", 60, notBlocked));
    EXPECT_TRUE(notBlocked);
    ExpectNoTrace();

    Load("{ }");
    EXPECT_FALSE(config.BlacklistIp(nullptr, inet_addr("10.0.0.5"), "10.0.0.5", 60, notBlocked));
    EXPECT_TRUE(notBlocked);
    ExpectTrace("Could not get packet filter log map");
    EXPECT_EQ(1, lua_gettop(L));
}

TEST_F(ConfigUtilsTest, BlacklistIpWithoutHandleClearsNotBlocked) {
    ConfigUtils config(L, 1);
    Load(kPlatformConfig);
    bool notBlocked = true;
    EXPECT_FALSE(config.BlacklistIp(nullptr, inet_addr("10.0.0.6"), "10.0.0.6", 60, notBlocked));
    EXPECT_FALSE(notBlocked);
    ExpectTrace("NORVI handle is NULL norvi_add_blacklist was not called");
    EXPECT_EQ(1, lua_gettop(L));
}

TEST_F(ConfigUtilsTest, BlacklistIpSendsTheTwelveByteRequest) {
    const DriverControls driver = Controls();
    ASSERT_TRUE(driver.takeRequests && driver.setResult && driver.reset)
        << "libnorvi.so must be built beside the host core";
    driver.reset();
    const norvi_handle_t handle = norvi_open();
    ASSERT_NE(nullptr, handle);

    ConfigUtils config(L, 1);
    Load(kPlatformConfig);
    bool notBlocked = true;
    EXPECT_TRUE(config.BlacklistIp(handle, inet_addr("172.16.5.9"), "172.16.5.9", 90, notBlocked));
    EXPECT_FALSE(notBlocked);
    u8 request[2 * NORVI_BLACKLIST_REQUEST_SIZE] = {};
    ASSERT_EQ(1u, driver.takeRequests(request, 2));
    const u32 milliseconds = 90000;
    u8 expected[NORVI_BLACKLIST_REQUEST_SIZE] = {0, 4, 0, 0};
    std::memcpy(expected + 4, &milliseconds, 4);
    const u32 address = inet_addr("172.16.5.9");
    std::memcpy(expected + 8, &address, 4);
    EXPECT_EQ(0, std::memcmp(expected, request, sizeof expected));
    EXPECT_TRUE(NorvCore::TakeOperatorLogLines().empty());

    // A refusal is an operator log line and the event 1001.
    driver.setResult(EACCES);
    EXPECT_FALSE(config.BlacklistIp(handle, address, "172.16.5.9", 1, notBlocked));
    // The host copies the event to the operator log as well, as a warning.
    std::vector<std::string> errors;
    for (const std::string& line : NorvCore::TakeOperatorLogLines()) {
        if (line.rfind("Error: ", 0) == 0) {
            errors.push_back(line);
        }
    }
    ASSERT_EQ(1u, errors.size());
    const std::string systemText = wxSysErrorMsgStr(EACCES).utf8_string();
    EXPECT_EQ("Error: Driver command code failed BLACKLIST_ADD 0000000d (" + systemText + ")",
              errors[0]);
    const auto events = m_Dom.AgentEvents();
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ(1001, events[0].number);
    EXPECT_EQ(wxString::FromUTF8("BLACKLIST_ADD|0000000d (" + systemText + ")"), events[0].detail);

    driver.reset();
    norvi_close(handle);
}

}  // namespace
