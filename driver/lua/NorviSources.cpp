// norvi.open with or without a record source, a handle's records, counters
// and key log, and norvi.listen_ssl: the Linux library's extras, reached
// through the loader. With a library that lacks them (the stand-in) each of
// these calls raises an error that says so.
#include <stdint.h>
#include <string.h>

#include <string>

#include "driver/linux/NorviLinux.h"
#include "driver/lua/NorviLua.h"

namespace NorviLua {

namespace {

const char kNoSources[] = "this driver library has no record sources";

#define NORVI_EXTRA(L, name) reinterpret_cast<decltype(&name)>(RequireSymbol(L, #name, kNoSources))

// The keys that norvi.open's table may have, and which source each is for.
enum class For { Either, Live, Replay };
struct OptionKey {
    const char* m_Name;
    For m_For;
};
const OptionKey kOptionKeys[] = {
    {"host", For::Replay},      {"install", For::Live},      {"interface", For::Replay},
    {"nflog", For::Live},       {"pcap", For::Replay},       {"services", For::Either},
    {"ssl_hosts", For::Replay}, {"ssl_socket", For::Either},
};

// The string at the top of the stack for the key name (argument 1), popped.
std::string PopString(lua_State* L, const char* name) {
    size_t length = 0;
    // Tested before lua_tolstring, which would turn a number into a string.
    const bool isString = lua_type(L, -1) == LUA_TSTRING;
    const char* const text = lua_tolstring(L, -1, &length);
    if (!isString || strlen(text) != length) {
        luaL_argerror(L, 1, lua_pushfstring(L, "'%s' must be a string without NUL bytes", name));
    }
    std::string value(text, length);
    lua_pop(L, 1);
    return value;
}

// The whole number at the top of the stack within [low, high], popped.
lua_Number PopNumber(lua_State* L, const char* name, lua_Number low, lua_Number high) {
    const int index = lua_gettop(L);
    const char* const what = lua_pushfstring(L, "'%s'", name);
    const lua_Number value = CheckWholeNumber(L, index, 1, what, low, high);
    lua_pop(L, 2);
    return value;
}

// host = "a" or {"a", "b"}.
void ReadHosts(lua_State* L, NORVI::SourceOptions& options) {
    if (lua_type(L, -1) == LUA_TSTRING) {
        options.m_HostAddresses.push_back(PopString(L, "host"));
        return;
    }
    luaL_argcheck(L, lua_type(L, -1) == LUA_TTABLE, 1, "'host' must be a string or a list");
    const int list = lua_gettop(L);
    for (int index = 1; index <= static_cast<int>(lua_rawlen(L, list)); ++index) {
        lua_rawgeti(L, list, index);
        options.m_HostAddresses.push_back(PopString(L, "host"));
    }
    lua_pop(L, 1);
}

// ssl_hosts = {{address = "a", id = 7}, {id = 9}}.
void ReadSslHosts(lua_State* L, NORVI::SourceOptions& options) {
    luaL_argcheck(L, lua_type(L, -1) == LUA_TTABLE, 1, "'ssl_hosts' must be a list");
    const int list = lua_gettop(L);
    for (int index = 1; index <= static_cast<int>(lua_rawlen(L, list)); ++index) {
        lua_rawgeti(L, list, index);
        luaL_argcheck(L, lua_type(L, -1) == LUA_TTABLE, 1,
                      "each of 'ssl_hosts' must be a table {address = ..., id = ...}");
        const int entry = lua_gettop(L);
        lua_pushnil(L);
        while (lua_next(L, entry) != 0) {
            const bool known =
                lua_type(L, -2) == LUA_TSTRING && (strcmp(lua_tostring(L, -2), "address") == 0 ||
                                                   strcmp(lua_tostring(L, -2), "id") == 0);
            luaL_argcheck(L, known, 1, "an SSL host has only 'address' and 'id'");
            lua_pop(L, 1);
        }
        NORVI::SslHost host;
        lua_getfield(L, entry, "address");
        if (lua_isnil(L, -1)) {
            lua_pop(L, 1);
        } else {
            host.m_Address = PopString(L, "address");
            luaL_argcheck(L, !host.m_Address.empty(), 1,
                          "an SSL host's 'address' is not empty; leave it out for all interfaces");
        }
        lua_getfield(L, entry, "id");
        luaL_argcheck(L, !lua_isnil(L, -1), 1, "each SSL host needs an 'id'");
        host.m_ConfigurationId = static_cast<uint32_t>(PopNumber(L, "id", 0, UINT32_MAX));
        options.m_SslHosts.push_back(host);
        lua_pop(L, 1);
    }
    lua_pop(L, 1);
}

// Fills options from the table at index 1; raises argument errors.
void ReadOptions(lua_State* L, NORVI::SourceOptions& options) {
    bool live = false;
    bool replay = false;
    lua_pushnil(L);
    while (lua_next(L, 1) != 0) {
        const OptionKey* key = nullptr;
        if (lua_type(L, -2) == LUA_TSTRING) {
            for (const OptionKey& candidate : kOptionKeys) {
                if (strcmp(candidate.m_Name, lua_tostring(L, -2)) == 0) {
                    key = &candidate;
                }
            }
        }
        if (key == nullptr) {
            luaL_argerror(
                L, 1, lua_pushfstring(L, "unknown option '%s'", luaL_tolstring(L, -2, nullptr)));
        }
        live = live || key->m_For == For::Live;
        replay = replay || key->m_For == For::Replay;
        lua_pop(L, 1);
    }
    lua_getfield(L, 1, "nflog");
    const bool hasNflog = !lua_isnil(L, -1);
    lua_pop(L, 1);
    lua_getfield(L, 1, "pcap");
    const bool hasPcap = !lua_isnil(L, -1);
    lua_pop(L, 1);
    luaL_argcheck(L, hasNflog != hasPcap, 1, "give either 'nflog' (live) or 'pcap' (replay)");
    luaL_argcheck(L, !(live && replay), 1,
                  hasNflog ? "options of a replay given with 'nflog'"
                           : "options of the live source given with 'pcap'");

    if (hasNflog) {
        lua_getfield(L, 1, "nflog");
        options.m_NflogGroup = static_cast<int>(PopNumber(L, "nflog", 0, 65535));
        lua_getfield(L, 1, "install");
        if (!lua_isnil(L, -1)) {
            luaL_argcheck(L, lua_isboolean(L, -1), 1, "'install' must be a boolean");
            options.m_InstallRuleset = lua_toboolean(L, -1) != 0;
        }
        lua_pop(L, 1);
    } else {
        lua_getfield(L, 1, "pcap");
        options.m_CapturePath = PopString(L, "pcap");
        lua_getfield(L, 1, "host");
        if (!lua_isnil(L, -1)) {
            ReadHosts(L, options);
        } else {
            lua_pop(L, 1);
        }
        lua_getfield(L, 1, "interface");
        if (!lua_isnil(L, -1)) {
            options.m_InterfaceIndex =
                static_cast<uint32_t>(PopNumber(L, "interface", 0, UINT32_MAX));
        } else {
            lua_pop(L, 1);
        }
        lua_getfield(L, 1, "ssl_hosts");
        if (!lua_isnil(L, -1)) {
            ReadSslHosts(L, options);
        } else {
            lua_pop(L, 1);
        }
    }
    lua_getfield(L, 1, "services");
    if (!lua_isnil(L, -1)) {
        options.m_Services = PopString(L, "services");
    } else {
        lua_pop(L, 1);
    }
    lua_getfield(L, 1, "ssl_socket");
    if (!lua_isnil(L, -1)) {
        options.m_SslSocketPath = PopString(L, "ssl_socket");
    } else {
        lua_pop(L, 1);
    }
}

// Pushes nil and the library's last error (of handle, or of the library).
int PushFailure(lua_State* L, norvi_handle_t handle) {
    char reason[256] = "";
    norvi_get_error(handle, reason, sizeof reason);
    lua_pushnil(L);
    lua_pushstring(L, reason);
    return 2;
}

}  // namespace

// norvi.open() or norvi.open{...}: a box holding a new handle, or nil and
// the reason.
int Open(lua_State* L) {
    decltype(&norvi_open_source) openSource = nullptr;
    NORVI::SourceOptions* options = nullptr;
    if (!lua_isnoneornil(L, 1)) {
        luaL_checktype(L, 1, LUA_TTABLE);
        openSource = NORVI_EXTRA(L, norvi_open_source);
        options = NewScratch<NORVI::SourceOptions>(L, "norvi.SourceOptions");
        ReadOptions(L, *options);
    }
    norvi_handle_t* const box =
        static_cast<norvi_handle_t*>(lua_newuserdata(L, sizeof(norvi_handle_t)));
    *box = nullptr;
    luaL_setmetatable(L, kHandleMetatable);
    *box = options != nullptr ? openSource(options) : norvi_open();
    return *box != nullptr ? 1 : PushFailure(L, nullptr);
}

// handle:next([timeoutMs]): record, data, packet; or nil and "timeout",
// "end", or "error" and the reason.
int Next(lua_State* L) {
    auto next = NORVI_EXTRA(L, norvi_next_record);
    const norvi_handle_t handle = CheckOpenHandle(L);
    const int timeoutMs =
        lua_isnoneornil(L, 2)
            ? 0
            : static_cast<int>(CheckWholeNumber(L, 2, 2, "timeout", 0, INT32_MAX));
    NORVI::SourceRecord* const record = NewScratch<NORVI::SourceRecord>(L, "norvi.SourceRecord");
    switch (next(handle, timeoutMs, record)) {
        case 0:
            lua_pushlstring(L, reinterpret_cast<const char*>(record->m_Record),
                            sizeof record->m_Record);
            lua_pushlstring(L, reinterpret_cast<const char*>(record->m_Data.data()),
                            record->m_Data.size());
            lua_pushlstring(L, reinterpret_cast<const char*>(record->m_Packet.data()),
                            record->m_Packet.size());
            return 3;
        case 1:
            lua_pushnil(L);
            lua_pushliteral(L, "timeout");
            return 2;
        case 2:
            lua_pushnil(L);
            lua_pushliteral(L, "end");
            return 2;
        default: {
            char reason[256] = "";
            norvi_get_error(handle, reason, sizeof reason);
            lua_pushnil(L);
            lua_pushliteral(L, "error");
            lua_pushstring(L, reason);
            return 3;
        }
    }
}

// handle:counters(): {records =, lost =, gaps =, dropped =}.
int Counters(lua_State* L) {
    auto counters = NORVI_EXTRA(L, norvi_source_counters);
    const norvi_handle_t handle = CheckOpenHandle(L);
    NORVI::SourceCounters values;
    luaL_argcheck(L, counters(handle, &values) == 0, 1, "the handle has no record source");
    lua_createtable(L, 0, 4);
    const std::pair<const char*, uint64_t> fields[] = {{"records", values.m_Records},
                                                       {"lost", values.m_Lost},
                                                       {"gaps", values.m_Gaps},
                                                       {"dropped", values.m_Dropped}};
    for (const auto& field : fields) {
        lua_pushnumber(L, static_cast<lua_Number>(field.second));
        lua_setfield(L, -2, field.first);
    }
    return 1;
}

// handle:keylog(): the key log lines made since the last call, and the
// number of SSL requests that failed so far.
int KeyLog(lua_State* L) {
    // long norvi_take_keylog(handle, buffer, size, failed): whole lines, each
    // ending in a newline, as many as fit; 0 when none are left, -1 for a
    // handle without a source.
    using TakeKeyLog = long (*)(norvi_handle_t, char*, size_t, uint64_t*);
    auto take = reinterpret_cast<TakeKeyLog>(RequireSymbol(L, "norvi_take_keylog", kNoSources));
    const norvi_handle_t handle = CheckOpenHandle(L);
    const size_t kChunk = 16384;
    char* const buffer = static_cast<char*>(lua_newuserdata(L, kChunk));
    lua_newtable(L);
    int count = 0;
    uint64_t failed = 0;
    for (;;) {
        const long taken = take(handle, buffer, kChunk, &failed);
        luaL_argcheck(L, taken >= 0, 1, "the handle has no record source");
        if (taken == 0) {
            break;
        }
        const char* line = buffer;
        const char* const end = buffer + taken;
        while (line < end) {
            const char* const newline = static_cast<const char*>(memchr(line, '\n', end - line));
            const char* const stop = newline != nullptr ? newline : end;
            lua_pushlstring(L, line, static_cast<size_t>(stop - line));
            lua_rawseti(L, -2, ++count);
            line = stop + 1;
        }
    }
    lua_pushnumber(L, static_cast<lua_Number>(failed));
    return 2;
}

// norvi.listen_ssl(path): this process serves SSL requests at path (the
// empty text stops it). True, or nil and the reason.
int ListenSsl(lua_State* L) {
    auto listen = NORVI_EXTRA(L, norvi_listen_ssl);
    size_t length = 0;
    const char* const path = luaL_checklstring(L, 1, &length);
    luaL_argcheck(L, strlen(path) == length, 1, "the path has a NUL byte");
    if (listen(path) != 0) {
        return PushFailure(L, nullptr);
    }
    lua_pushboolean(L, 1);
    return 1;
}

// norvi.ssl_counters(): the counts of this process's SSL socket so far,
// {clients =, requests =, answered =, orphaned =, refused =, dropped =}; nil
// and the reason when no socket is served.
int SslCounters(lua_State* L) {
    auto counters = NORVI_EXTRA(L, norvi_ssl_counters);
    uint64_t values[6] = {};
    if (counters(values) != 0) {
        return PushFailure(L, nullptr);
    }
    const char* const names[6] = {"clients",  "requests", "answered",
                                  "orphaned", "refused",  "dropped"};
    lua_createtable(L, 0, 6);
    for (int i = 0; i < 6; ++i) {
        lua_pushnumber(L, static_cast<lua_Number>(values[i]));
        lua_setfield(L, -2, names[i]);
    }
    return 1;
}

}  // namespace NorviLua
