// ConfigUtils: the readers of whole setting groups, the address list parser
// and the block request to the driver.
#include <arpa/inet.h>

#include <cstdlib>
#include <cstring>
#include <new>

#include <wx/log.h>
#include <wx/tokenzr.h>
#include <lua.hpp>

#include "config/ConfigUtils.h"
#include "config/LuaTableRead.h"
#include "host/Dom.h"
#include "host/TextHelpers.h"
#include "host/Trace.h"

namespace VEXIL {

namespace {

// How far a group reader got down the table.
enum GroupStage { kNoConfig, kNoGroup, kNoProbeMap, kGroupRead };

// Results per named list: present (boolean), items, name.
constexpr int kListResults = 3;
// Results of ReadPacketFilterLog: five numbers, then ignoreIpList.
constexpr int kPacketFilterLogResults = 5 + kListResults;
// Results of ReadTrafficAnalysis: destIpList, then whitelistIpList.
constexpr int kTrafficAnalysisResults = 2 * kListResults;

struct PacketFilterLogQuery {
    GroupStage stage;
};

// The probe map as it is walked. seconds starts as the caller's array.
struct TrafficAnalysisQuery {
    GroupStage stage;
    u32 enabled;
    u32 notify;
    u32 seconds[kProbeTypeCount];
    u32 negativeKeys;     // entries skipped for a negative key
    i32 lastNegativeKey;  // the last of them
};

// What FindPlatformInterface looks up, and what it found.
struct PlatformInterfaceQuery {
    enum Stage { kNoPlatformMap, kOwnInterface, kForeign };

    const char* address;
    size_t length;
    Stage stage;
};

// Pushes the kListResults values of the named list group[field].
void PushNamedList(lua_State* L, int group, const char* field) {
    lua_getfield(L, group, field);
    if (!lua_istable(L, -1)) {
        lua_pop(L, 1);
        lua_pushboolean(L, 0);
        lua_pushnil(L);
        lua_pushnil(L);
        return;
    }
    const int list = lua_gettop(L);
    lua_pushboolean(L, 1);
    lua_getfield(L, list, "items");
    ToTextOrNil(L);
    lua_getfield(L, list, "name");
    ToTextOrNil(L);
    lua_remove(L, list);
}

// Reader: configuration at 1, PacketFilterLogQuery at 2.
int ReadPacketFilterLog(lua_State* L) {
    PacketFilterLogQuery& query = *static_cast<PacketFilterLogQuery*>(lua_touserdata(L, 2));
    query.stage = kNoConfig;
    if (!lua_istable(L, 1)) {
        return 0;
    }
    query.stage = kNoGroup;
    lua_getfield(L, 1, "packetFilterLog");
    if (!lua_istable(L, -1)) {
        return 0;
    }
    const int group = lua_gettop(L);
    for (const char* field : {"size", "keep", "cacheSize", "cacheLifetime", "cacheStaletime"}) {
        lua_getfield(L, group, field);
    }
    PushNamedList(L, group, "ignoreIpList");
    query.stage = kGroupRead;
    return kPacketFilterLogResults;
}

// Reader: configuration at 1, TrafficAnalysisQuery at 2. The lists are
// returned whether or not probeConfigurationMap is there.
int ReadTrafficAnalysis(lua_State* L) {
    TrafficAnalysisQuery& query = *static_cast<TrafficAnalysisQuery*>(lua_touserdata(L, 2));
    query.stage = kNoConfig;
    if (!lua_istable(L, 1)) {
        return 0;
    }
    query.stage = kNoGroup;
    lua_getfield(L, 1, "trafficAnalysisConfiguration");
    if (!lua_istable(L, -1)) {
        return 0;
    }
    const int group = lua_gettop(L);
    PushNamedList(L, group, "destIpList");
    PushNamedList(L, group, "whitelistIpList");
    query.stage = kNoProbeMap;
    lua_getfield(L, 1, "probeConfigurationMap");
    if (!lua_istable(L, -1)) {
        lua_pop(L, 1);
        return kTrafficAnalysisResults;
    }
    const int map = lua_gettop(L);
    lua_pushnil(L);
    while (lua_next(L, map) != 0) {
        // The key is taken as a signed 32-bit number; one that is no number
        // counts as 0.
        const i32 key =
            static_cast<i32>(ConfigUtils::TruncateNumber(lua_tonumberx(L, -2, nullptr)));
        if (lua_istable(L, -1) && key < kProbeTypeCount) {
            if (key < 0) {
                // A negative key has no bit to set: it is skipped and traced
                // by the caller, where an exception out of the bit set would
                // otherwise cross into Lua.
                ++query.negativeKeys;
                query.lastNegativeKey = key;
            } else {
                const u32 bit = u32(1) << key;
                query.enabled |= bit;
                lua_getfield(L, -1, "blockAttackerSeconds");
                query.seconds[key] =
                    static_cast<u32>(ConfigUtils::TruncateNumber(lua_tonumberx(L, -1, nullptr)));
                lua_pop(L, 1);
                lua_getfield(L, -1, "notifyImmediately");
                if (lua_toboolean(L, -1)) {
                    query.notify |= bit;
                } else {
                    query.notify &= ~bit;
                }
                lua_pop(L, 1);
            }
        }
        lua_pop(L, 1);
    }
    lua_pop(L, 1);
    query.stage = kGroupRead;
    return kTrafficAnalysisResults;
}

// Reader: configuration at 1, PlatformInterfaceQuery at 2. Indexing a
// configuration that is no table raises Lua's index error here.
int FindPlatformInterface(lua_State* L) {
    PlatformInterfaceQuery& query = *static_cast<PlatformInterfaceQuery*>(lua_touserdata(L, 2));
    query.stage = PlatformInterfaceQuery::kNoPlatformMap;
    lua_getfield(L, 1, "platformInterfaceMap");
    if (!lua_istable(L, -1)) {
        return 0;
    }
    lua_pushlstring(L, query.address, query.length);
    lua_gettable(L, -2);
    query.stage = lua_istable(L, -1) ? PlatformInterfaceQuery::kOwnInterface
                                     : PlatformInterfaceQuery::kForeign;
    return 0;
}

// Reports a bad entry of an address list as the agent event 2019.
void ReportBadEntry(const wchar_t* format, const wxString& entry, const wxString& listName,
                    const wchar_t* kindName) {
    NorvCore::CDom::DoLogAgentEvent(
        0, 2019, format, entry.utf8_str().data(), NorvCore::ReplaceBars(listName).utf8_str().data(),
        wxString(kindName != nullptr ? kindName : L"").utf8_str().data());
}

u32 InetAddr(const wxString& text) {
    return inet_addr(text.utf8_str().data());
}

}  // namespace

void ConfigUtils::ReplaceList(int position, IpList*& list) const {
    list = nullptr;
    if (!lua_toboolean(L, position)) {
        return;
    }
    IpList* parsed = new (std::nothrow) IpList;
    if (parsed != nullptr &&
        !ParseIpList(TextResult(L, position + 1), TextResult(L, position + 2), L"ipList", parsed)) {
        delete parsed;
        parsed = nullptr;
    }
    list = parsed;
}

bool ConfigUtils::getAgentConfigurationPacketFilterLog(u32& size, u32& keep, IpList*& ignoreIpList,
                                                       u64& cacheSize, u32& cacheLifetime,
                                                       u32& cacheStaletime) const {
    PacketFilterLogQuery query = {kNoConfig};
    const int top = lua_gettop(L);
    if (!ReadOrTrace(ReadPacketFilterLog, &query, kPacketFilterLogResults)) {
        return false;
    }
    bool read = false;
    if (query.stage == kNoConfig) {
        NORV_TRACE(L"vexil", "Could not get config map");
    } else if (query.stage == kNoGroup) {
        NORV_TRACE(L"vexil", "Could not get packet filter log map");
    } else {
        size = static_cast<u32>(IntegerResult(L, top + 1));
        keep = static_cast<u32>(IntegerResult(L, top + 2));
        cacheSize = static_cast<u64>(IntegerResult(L, top + 3));
        cacheLifetime = static_cast<u32>(IntegerResult(L, top + 4));
        cacheStaletime = static_cast<u32>(IntegerResult(L, top + 5));
        ReplaceList(top + 6, ignoreIpList);
        read = true;
    }
    lua_settop(L, top);
    return read;
}

bool ConfigUtils::getAgentConfigurationTrafficAnalysis(IpList*& destIpList,
                                                       IpList*& whitelistIpList,
                                                       u32 blockAttackerSeconds[kProbeTypeCount],
                                                       u32& probeEnabled,
                                                       u32& probeNotifyImmediately) const {
    // Entries 2 to 4 keep what they hold: a type that the map doesn't enable
    // never looks at its block time.
    blockAttackerSeconds[0] = 0;
    blockAttackerSeconds[1] = 0;
    probeEnabled = 0;
    probeNotifyImmediately = 0;

    TrafficAnalysisQuery query = {kNoConfig, 0, 0, {}, 0, 0};
    std::memcpy(query.seconds, blockAttackerSeconds, sizeof query.seconds);
    const int top = lua_gettop(L);
    if (!ReadOrTrace(ReadTrafficAnalysis, &query, kTrafficAnalysisResults)) {
        return false;
    }
    bool read = false;
    if (query.stage == kNoConfig) {
        NORV_TRACE(L"vexil", "Could not get config map");
    } else if (query.stage == kNoGroup) {
        NORV_TRACE(L"vexil", "Could not get trafficAnalysisConfiguration map");
    } else {
        ReplaceList(top + 1, destIpList);
        ReplaceList(top + 1 + kListResults, whitelistIpList);
        if (query.stage == kNoProbeMap) {
            NORV_TRACE(L"vexil", "Could not get probeConfigurationMap");
        } else {
            if (query.negativeKeys != 0) {
                NORV_TRACE(L"vexil",
                           wxString::Format("Skipped %u entries of probeConfigurationMap with a "
                                            "negative key, the last %d",
                                            query.negativeKeys, query.lastNegativeKey));
            }
            std::memcpy(blockAttackerSeconds, query.seconds, sizeof query.seconds);
            probeEnabled = query.enabled;
            probeNotifyImmediately = query.notify;
            read = true;
        }
    }
    lua_settop(L, top);
    return read;
}

bool ConfigUtils::ParseIpList(const wxString& items, const wxString& listName,
                              const wchar_t* kindName, IpList* list) {
    if (list == nullptr) {
        return false;
    }
    list->clear();
    bool result = true;
    wxStringTokenizer entries(items, ", ", wxTOKEN_STRTOK);
    while (entries.HasMoreTokens()) {
        const wxString entry = entries.GetNextToken();
        IpListEntry parsed = {false, 0, 0};
        bool good = true;
        if (entry.Find('-') != wxNOT_FOUND) {
            const wxString first = entry.BeforeFirst('-');
            const wxString last = entry.AfterFirst('-');
            parsed.isRange = true;
            parsed.first = InetAddr(first);
            parsed.second = InetAddr(last);
            if (first.empty() || last.empty()) {
                ReportBadEntry(L"%.64s|%.128s|${%.64s}", entry, listName, kindName);
                good = false;
            }
        } else if (entry.Find('/') != wxNOT_FOUND) {
            const wxString address = entry.BeforeFirst('/');
            const wxString mask = entry.AfterFirst('/');
            parsed.first = InetAddr(address);
            if (address.empty() || mask.empty()) {
                ReportBadEntry(L"%.64s|%.128s|${%.64s}", entry, listName, kindName);
                good = false;
            } else {
                // A bad mask has been reported by ParseIpMask.
                good = ParseIpMask(mask, entry, listName, kindName, parsed.second);
            }
        } else {
            // A dotted pattern: "*" and missing parts are wildcards.
            wxString address;
            wxString mask;
            int parts = 0;
            wxStringTokenizer pattern(entry, ".", wxTOKEN_RET_EMPTY);
            while (pattern.HasMoreTokens()) {
                const wxString part = pattern.GetNextToken();
                const wxString separator = parts == 0 ? "" : ".";
                address += separator + (part == "*" ? wxString("0") : part);
                mask += separator + (part == "*" ? "0" : "255");
                ++parts;
            }
            for (; parts < 4; ++parts) {
                address += parts == 0 ? "0" : ".0";
                mask += parts == 0 ? "0" : ".0";
            }
            // A part that isn't a number makes inet_addr give 255.255.255.255,
            // which is taken as it stands.
            parsed.first = InetAddr(address);
            parsed.second = InetAddr(mask);
        }
        if (good) {
            list->push_back(parsed);
        } else {
            result = false;
        }
    }
    return result;
}

bool ConfigUtils::ParseIpMask(const wxString& mask, const wxString& entry, const wxString& listName,
                              const wchar_t* kindName, u32& result) {
    result = 0;
    if (mask.Find('.') != wxNOT_FOUND) {
        result = InetAddr(mask);
        return true;
    }
    long bits = 0;
    if (!mask.ToLong(&bits, 10) || bits < 1 || bits > 32) {
        ReportBadEntry(L"%.128s|%.128s|${%.64s}", entry, listName, kindName);
        return false;
    }
    result = htonl(~u32(0) << (32 - bits));
    return true;
}

bool ConfigUtils::BlacklistIp(norvi_handle_t handle, u32 address, const wxString& dottedAddress,
                              u32 seconds, bool& notBlocked) {
    const wxScopedCharBuffer key = dottedAddress.utf8_str();
    PlatformInterfaceQuery query = {key.data(), key.length(),
                                    PlatformInterfaceQuery::kNoPlatformMap};
    const int top = lua_gettop(L);
    const ReadResult result = ProtectedRead(FindPlatformInterface, &query, 0);
    if (result == kRaised) {
        // The index error of a configuration that is no table belongs to the
        // script call: it is kept for the entry to raise.
        KeepError();
        return false;
    }
    lua_settop(L, top);
    if (result == kNoStack) {
        return false;
    }
    if (query.stage == PlatformInterfaceQuery::kNoPlatformMap) {
        NORV_TRACE(L"vexil", "Could not get packet filter log map");
        return false;
    }
    if (query.stage == PlatformInterfaceQuery::kOwnInterface) {
        return false;
    }
    notBlocked = false;

    u8* request = static_cast<u8*>(std::calloc(1, 12));
    if (request == nullptr) {
        return false;
    }
    // Byte 0 and bytes 2 and 3 stay 0 from calloc.
    request[1] = 4;
    const u32 milliseconds = seconds * 1000;
    std::memcpy(request + 4, &milliseconds, sizeof milliseconds);
    std::memcpy(request + 8, &address, sizeof address);
    if (handle == nullptr) {
        NORV_TRACE(L"vexil", "NORVI handle is NULL norvi_add_blacklist was not called");
        std::free(request);
        return false;
    }
    const int code = norvi_add_blacklist(handle, request);
    std::free(request);
    return ShowErrors(L"BLACKLIST_ADD", static_cast<u32>(code));
}

bool ConfigUtils::ShowErrors(const wchar_t* command, u32 code) {
    if (code == 0) {
        return true;
    }
    const wxString name(command != nullptr ? command : L"");
    const wxString text = wxSysErrorMsgStr(code);
    wxLogError("Driver command code failed %.64s %08x (%.128s)", name, code, text);
    NorvCore::CDom::DoLogAgentEvent(0, 1001, L"%.64s|%08x (%.128s)", name.utf8_str().data(), code,
                                    text.utf8_str().data());
    return false;
}

}  // namespace VEXIL
