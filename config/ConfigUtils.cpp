// ConfigUtils: the protected reading machinery and the lookups of single
// items (rules, host identity, interfaces).
#include "config/ConfigUtils.h"
#include "config/LuaTableRead.h"

#include <cmath>
#include <limits>

#include <lua.hpp>

#include "host/TextHelpers.h"
#include "host/Trace.h"

namespace VEXIL {

namespace {

// How far a reader got down the table.
enum EntryStage { kNoConfig, kNoMap, kNoEntry, kEntryRead };

// One field of an entry, and whether it is read as text.
struct EntryField {
    const char* name;
    bool text;
};

// What ReadEntry looks for: map[key] of the configuration (or the map itself
// when there is no key), and fields of it.
struct EntryQuery {
    enum KeyKind { kWholeMap, kNumberKey, kTextKey };

    const char* mapName;
    KeyKind keyKind;
    u32 numberKey;
    const char* textKey;
    size_t textKeyLength;
    const EntryField* fields;
    int fieldCount;
    EntryStage stage;
    // A further query read in the same protected call, or null.
    EntryQuery* next = nullptr;
};

// Traces why query found no entry, with mapTrace when the map is missing and
// the text that entryTrace() makes when the entry is; true when it was read.
template <typename EntryTrace>
bool EntryFound(const EntryQuery& query, const char* mapTrace, EntryTrace entryTrace) {
    switch (query.stage) {
        case kNoConfig:
            NORV_TRACE(L"vexil", "Could not get config map");
            return false;
        case kNoMap:
            NORV_TRACE(L"vexil", mapTrace);
            return false;
        case kNoEntry:
            NORV_TRACE(L"vexil", entryTrace());
            return false;
        case kEntryRead:
            break;
    }
    return true;
}

// Pushes what query looks for: map and entry, then its fields (text fields
// as string or nil, the others as they stand); false when the entry is
// missing, with query.stage saying where the search stopped.
bool PushEntry(lua_State* L, EntryQuery& query) {
    query.stage = kNoConfig;
    if (!lua_istable(L, 1)) {
        return false;
    }
    query.stage = kNoMap;
    lua_getfield(L, 1, query.mapName);
    if (!lua_istable(L, -1)) {
        return false;
    }
    query.stage = kNoEntry;
    if (query.keyKind == EntryQuery::kNumberKey) {
        lua_pushnumber(L, query.numberKey);
        lua_rawget(L, -2);
    } else if (query.keyKind == EntryQuery::kTextKey) {
        lua_pushlstring(L, query.textKey, query.textKeyLength);
        lua_gettable(L, -2);
    }
    if (!lua_istable(L, -1)) {
        return false;
    }
    const int entry = lua_gettop(L);
    for (int i = 0; i < query.fieldCount; ++i) {
        lua_getfield(L, entry, query.fields[i].name);
        if (query.fields[i].text) {
            ToTextOrNil(L);
        }
    }
    query.stage = kEntryRead;
    return true;
}

// Reader: configuration at 1, the first EntryQuery of a chain at 2. Returns
// the fields of each query in turn, nil for those of a missing entry.
int ReadEntry(lua_State* L) {
    int results = 0;
    for (EntryQuery* query = static_cast<EntryQuery*>(lua_touserdata(L, 2)); query != nullptr;
         query = query->next) {
        const int base = lua_gettop(L);
        if (PushEntry(L, *query)) {
            // Only the fields stay: the map and the entry under them go.
            const int found = lua_gettop(L) - query->fieldCount;
            for (int i = base + 1; i <= found; ++i) {
                lua_remove(L, base + 1);
            }
        } else {
            lua_settop(L, base);
            for (int i = 0; i < query->fieldCount; ++i) {
                lua_pushnil(L);
            }
        }
        results += query->fieldCount;
    }
    return results;
}

// What FindDriverInterface looks for, and what it found.
struct DriverInterfaceQuery {
    enum Stage { kNoDriverMap, kNoMatch, kMatch };

    u32 driverIndex;
    Stage stage;
};

// Reader: configuration at 1, DriverInterfaceQuery at 2. Walks
// driverInterfaceMap for the first table whose id, cut to a whole number, is
// the driver's index, and returns its mac as string or nil. Indexing a
// configuration that is no table raises Lua's index error here.
int FindDriverInterface(lua_State* L) {
    DriverInterfaceQuery& query = *static_cast<DriverInterfaceQuery*>(lua_touserdata(L, 2));
    query.stage = DriverInterfaceQuery::kNoDriverMap;
    lua_getfield(L, 1, "driverInterfaceMap");
    if (!lua_istable(L, -1)) {
        return 0;
    }
    query.stage = DriverInterfaceQuery::kNoMatch;
    const int map = lua_gettop(L);
    lua_pushnil(L);
    while (lua_next(L, map) != 0) {
        if (lua_istable(L, -1)) {
            lua_getfield(L, -1, "id");
            const lua_Number id = lua_tonumberx(L, -1, nullptr);
            lua_pop(L, 1);
            // A whole-number comparison in floating point: 5.9 matches 5,
            // and no cast of an out-of-range number is made.
            if (std::trunc(id) == static_cast<lua_Number>(query.driverIndex)) {
                lua_getfield(L, -1, "mac");
                ToTextOrNil(L);
                query.stage = DriverInterfaceQuery::kMatch;
                return 1;
            }
        }
        lua_pop(L, 1);
    }
    return 0;
}

// Protected part of KeepError: stores the value at 1 in the registry and
// returns its reference.
int ReferenceError(lua_State* L) {
    lua_pushinteger(L, luaL_ref(L, LUA_REGISTRYINDEX));
    return 1;
}

// Protected part of ReleaseKeptError: frees the registry reference at 1.
int ReleaseReference(lua_State* L) {
    luaL_unref(L, LUA_REGISTRYINDEX, static_cast<int>(lua_tointeger(L, 1)));
    return 0;
}

}  // namespace

ConfigUtils::~ConfigUtils() {
    static_assert(kNoError == LUA_NOREF, "kNoError must stand for no reference");
    ReleaseKeptError();
}

bool ConfigUtils::HasPendingError() const {
    return m_PendingError != kNoError;
}

void ConfigUtils::PushPendingError() {
    if (m_PendingError == kLostError) {
        lua_pushliteral(L, "not enough memory");
    } else {
        // LUA_REFNIL (a nil error object) and kNoError both push nil.
        lua_rawgeti(L, LUA_REGISTRYINDEX, m_PendingError);
    }
    ReleaseKeptError();
}

void ConfigUtils::KeepError() {
    if (m_PendingError != kNoError) {
        lua_pop(L, 1);
        return;
    }
    // Growing the registry can raise a memory error, so the reference is made
    // in protected mode; the stack has room, as the failed read used more.
    lua_pushcfunction(L, ReferenceError);
    lua_insert(L, -2);
    if (lua_pcall(L, 1, 1, 0) == LUA_OK) {
        m_PendingError = static_cast<int>(lua_tointeger(L, -1));
    } else {
        m_PendingError = kLostError;
    }
    lua_pop(L, 1);
}

void ConfigUtils::ReleaseKeptError() {
    // Freeing a reference may store into the registry, which can raise: it
    // is done in protected mode, and a failure only leaves the slot in use.
    if (m_PendingError >= 0 && lua_checkstack(L, 2)) {
        lua_pushcfunction(L, ReleaseReference);
        lua_pushinteger(L, m_PendingError);
        if (lua_pcall(L, 1, 0, 0) != LUA_OK) {
            lua_pop(L, 1);
        }
    }
    m_PendingError = kNoError;
}

i64 ConfigUtils::TruncateNumber(double number) {
    if (std::isnan(number)) {
        return 0;
    }
    // 2^63 is exact as a double; anything at or beyond either end saturates.
    constexpr double kLimit = 9223372036854775808.0;
    if (number >= kLimit) {
        return std::numeric_limits<i64>::max();
    }
    if (number <= -kLimit) {
        return std::numeric_limits<i64>::min();
    }
    return static_cast<i64>(number);
}

wxString ConfigUtils::TextResult(lua_State* state, int position) {
    size_t length = 0;
    const char* text = lua_tolstring(state, position, &length);
    return text != nullptr ? wxString::FromUTF8(text, length) : wxString();
}

std::string ConfigUtils::BytesResult(lua_State* state, int position) {
    size_t length = 0;
    const char* text = lua_tolstring(state, position, &length);
    return text != nullptr ? std::string(text, length) : std::string();
}

i64 ConfigUtils::IntegerResult(lua_State* state, int position) {
    int isNumber = 0;
    const lua_Number number = lua_tonumberx(state, position, &isNumber);
    return isNumber ? TruncateNumber(number) : 0;
}

ConfigUtils::ReadResult ConfigUtils::ProtectedRead(int (*reader)(lua_State*), void* query,
                                                   int results) const {
    if (!lua_checkstack(L, results + 3)) {
        NORV_TRACE(L"vexil", "Lua stack is exhausted, the configuration can't be read");
        return kNoStack;
    }
    const int config = lua_absindex(L, index);
    // None of these three pushes allocates, so none of them can raise.
    lua_pushcfunction(L, reader);
    lua_pushvalue(L, config);
    lua_pushlightuserdata(L, query);
    return lua_pcall(L, 2, results, 0) == LUA_OK ? kRead : kRaised;
}

bool ConfigUtils::ReadOrTrace(int (*reader)(lua_State*), void* query, int results) const {
    const int top = lua_gettop(L);
    const ReadResult result = ProtectedRead(reader, query, results);
    if (result == kRaised) {
        const char* error = lua_type(L, -1) == LUA_TSTRING ? lua_tostring(L, -1) : "no message";
        NORV_TRACE(L"vexil", wxString::Format("Reading the configuration failed: %.128s",
                                              wxString::FromUTF8(error)));
        lua_settop(L, top);
    }
    return result == kRead;
}

namespace {

const EntryField kPacketRuleFields[] = {{"name", true}, {"filterAction", false}};
const EntryField kPayloadFilterFields[] = {
    {"name", true}, {"severity", false}, {"identifier", true}, {"incoming", false}};
const EntryField kHostIdentityFields[] = {{"hostID", false}, {"hostname", true}};

EntryQuery PacketRuleQuery(u32 id) {
    return {"packetFilterMap", EntryQuery::kNumberKey, id, nullptr, 0, kPacketRuleFields, 2,
            kNoConfig};
}

EntryQuery PayloadFilterQuery(u32 id) {
    return {"payloadFilterMap", EntryQuery::kNumberKey, id, nullptr, 0, kPayloadFilterFields, 4,
            kNoConfig};
}

// hostname is read only when fields says so (2), hostID always.
EntryQuery HostIdentityQuery(int fields) {
    return {"agentConfiguration",
            EntryQuery::kWholeMap,
            0,
            nullptr,
            0,
            kHostIdentityFields,
            fields,
            kNoConfig};
}

bool PacketRuleFound(const EntryQuery& query, u32 id) {
    return EntryFound(query, "Could not get packetFilterMap", [id] {
        return wxString::Format("Filter ID %d was not found in the packetFilterMap",
                                static_cast<int>(id));
    });
}

bool PayloadFilterFound(const EntryQuery& query, u32 id) {
    return EntryFound(query, "Could not get payloadFilterMap", [id] {
        return wxString::Format("Filter ID %d was not found in the payloadFilterMap",
                                static_cast<int>(id));
    });
}

bool HostIdentityFound(const EntryQuery& query) {
    if (query.stage == kNoConfig) {
        NORV_TRACE(L"vexil", "Could not get config map");
    } else if (query.stage == kNoMap) {
        NORV_TRACE(L"vexil", "Could not agentConfiguration map");
    }
    return query.stage == kEntryRead;
}

}  // namespace

void ConfigUtils::TakePacketRule(int position, std::string& name, u32& action) const {
    name = BytesResult(L, position);
    action = static_cast<u32>(IntegerResult(L, position + 1));
}

void ConfigUtils::TakePayloadFilter(int position, std::string& name, bool& incoming, u32& severity,
                                    std::string& identifier) const {
    name = BytesResult(L, position);
    severity = static_cast<u32>(IntegerResult(L, position + 1));
    identifier = BytesResult(L, position + 2);
    incoming = lua_toboolean(L, position + 3) != 0;
}

bool ConfigUtils::getPacketFilterInfo(u32 id, std::string& name, u32& action) const {
    EntryQuery query = PacketRuleQuery(id);
    const int top = lua_gettop(L);
    if (!ReadOrTrace(ReadEntry, &query, 2)) {
        return false;
    }
    const bool found = PacketRuleFound(query, id);
    if (found) {
        TakePacketRule(top + 1, name, action);
    }
    lua_settop(L, top);
    return found;
}

bool ConfigUtils::getPayloadFilterInfo(u32 id, std::string& name, bool& incoming, u32& severity,
                                       std::string& identifier) const {
    EntryQuery query = PayloadFilterQuery(id);
    const int top = lua_gettop(L);
    if (!ReadOrTrace(ReadEntry, &query, 4)) {
        return false;
    }
    const bool found = PayloadFilterFound(query, id);
    if (found) {
        TakePayloadFilter(top + 1, name, incoming, severity, identifier);
    }
    lua_settop(L, top);
    return found;
}

void ConfigUtils::getAgentConfigurationHostIdentity(std::string& hostname, u32& hostID) const {
    EntryQuery query = HostIdentityQuery(2);
    const int top = lua_gettop(L);
    if (!ReadOrTrace(ReadEntry, &query, 2)) {
        return;
    }
    if (HostIdentityFound(query)) {
        hostID = static_cast<u32>(IntegerResult(L, top + 1));
        hostname = BytesResult(L, top + 2);
    }
    lua_settop(L, top);
}

bool ConfigUtils::getSyslogEventInfo(bool payload, u32 id, SyslogEventInfo& info,
                                     u32& hostID) const {
    EntryQuery rule = payload ? PayloadFilterQuery(id) : PacketRuleQuery(id);
    EntryQuery host = HostIdentityQuery(1);
    rule.next = &host;
    EntryQuery* first = id != 0 ? &rule : &host;
    const int ruleFields = id != 0 ? rule.fieldCount : 0;
    const int top = lua_gettop(L);
    if (!ReadOrTrace(ReadEntry, first, ruleFields + 1)) {
        return false;
    }
    bool found = false;
    if (id != 0 && payload) {
        found = PayloadFilterFound(rule, id);
        if (found) {
            TakePayloadFilter(top + 1, info.name, info.incoming, info.severity, info.identifier);
        }
    } else if (id != 0) {
        found = PacketRuleFound(rule, id);
        if (found) {
            TakePacketRule(top + 1, info.name, info.action);
        }
    }
    if (HostIdentityFound(host)) {
        hostID = static_cast<u32>(IntegerResult(L, top + ruleFields + 1));
    }
    lua_settop(L, top);
    return found;
}

bool ConfigUtils::getInterfaceName(const std::string& mac, std::string& name) const {
    static const EntryField kFields[] = {{"name", true}};
    EntryQuery query = {"interfaceMap", EntryQuery::kTextKey, 0, mac.data(), mac.size(), kFields, 1,
                        kNoConfig};
    const int top = lua_gettop(L);
    if (!ReadOrTrace(ReadEntry, &query, 1)) {
        return false;
    }
    const bool found = EntryFound(query, "Could not get interface map", [&mac] {
        return wxString::Format("Could not look up interface given mac %s",
                                wxString::FromUTF8(mac));
    });
    if (found) {
        name = BytesResult(L, top + 1);
    }
    lua_settop(L, top);
    return found;
}

bool ConfigUtils::getInterfaceConfigID(const std::string& mac, u32& id) const {
    static const EntryField kFields[] = {{"id", false}};
    EntryQuery query = {"interfaceMap", EntryQuery::kTextKey, 0, mac.data(), mac.size(), kFields, 1,
                        kNoConfig};
    const int top = lua_gettop(L);
    if (!ReadOrTrace(ReadEntry, &query, 1)) {
        return false;
    }
    const bool found = EntryFound(query, "Could not get interface map", [&mac] {
        return wxString::Format("Could not look up interface given mac %s",
                                wxString::FromUTF8(mac));
    });
    if (found) {
        id = static_cast<u32>(IntegerResult(L, top + 1));
    }
    lua_settop(L, top);
    return found;
}

bool ConfigUtils::getInterfaceID(u32 driverIndex, u32& id) {
    const int top = lua_gettop(L);
    DriverInterfaceQuery query = {driverIndex, DriverInterfaceQuery::kNoDriverMap};
    const ReadResult result = ProtectedRead(FindDriverInterface, &query, 1);
    if (result == kRaised) {
        // The index error of a configuration that is no table belongs to the
        // script call: it is kept for the entry to raise.
        KeepError();
        return false;
    }
    if (result == kNoStack) {
        return false;
    }
    if (query.stage != DriverInterfaceQuery::kMatch) {
        if (query.stage == DriverInterfaceQuery::kNoDriverMap) {
            NORV_TRACE(L"vexil", "Could not get driverInterfaceMap");
        }
        lua_settop(L, top);
        return false;
    }
    // The hardware address is raw bytes, zeros included: read it by length.
    size_t length = 0;
    const char* bytes = lua_tolstring(L, top + 1, &length);
    const std::string raw = bytes != nullptr ? std::string(bytes, length) : std::string();
    lua_settop(L, top);
    return getInterfaceConfigID(NorvCore::toHexString(raw, false).utf8_string(), id);
}

}  // namespace VEXIL
