// The Lua module "norvi": driver handles for scripts (with or without a
// record source), the process's SSL request socket, an encoder of driver log
// records, and the driver's side of the channel for tests. It reaches
// libnorvi.so only through the host core's loader, so that scripts, the
// system and these functions all work on one loaded copy of the library.
#include <lua.hpp>

#include "driver/lua/NorviLua.h"
#include "host/NorviLoader.h"
#include "host/norvi.h"

namespace NorviLua {

const char kHandleMetatable[] = "norvi_handle_t*";

// The integer at index, which must be a number without a fraction within
// [low, high]; raises an argument error for argument otherwise.
lua_Number CheckWholeNumber(lua_State* L, int index, int argument, const char* what, lua_Number low,
                            lua_Number high) {
    if (lua_type(L, index) != LUA_TNUMBER) {
        luaL_argerror(L, argument, lua_pushfstring(L, "%s must be an integer", what));
    }
    const lua_Number value = lua_tonumber(L, index);
    if (!(value >= low && value <= high)) {
        luaL_argerror(L, argument, lua_pushfstring(L, "%s out of range", what));
    }
    if (value != static_cast<lua_Number>(static_cast<int64_t>(value))) {
        luaL_argerror(L, argument, lua_pushfstring(L, "%s must be an integer", what));
    }
    return value;
}
void* RequireSymbol(lua_State* L, const char* name, const char* what) {
    void* const address = NorvCore::NorviSymbol(name);
    if (address == nullptr) {
        char reason[256] = "the loaded libnorvi.so has no such function";
        if (NorvCore::NorviSymbol("norvi_open") == nullptr) {
            norvi_get_error(nullptr, reason, sizeof reason);
        }
        luaL_error(L, "%s (%s): %s", what, name, reason);
    }
    return address;
}

norvi_handle_t CheckOpenHandle(lua_State* L) {
    norvi_handle_t* const box =
        static_cast<norvi_handle_t*>(luaL_checkudata(L, 1, kHandleMetatable));
    luaL_argcheck(L, *box != nullptr, 1, "the handle is closed");
    return *box;
}

namespace {

// handle:close() and __gc: closes the handle once; the box then holds null.
int CloseHandle(lua_State* L) {
    norvi_handle_t* const box =
        static_cast<norvi_handle_t*>(luaL_checkudata(L, 1, kHandleMetatable));
    const norvi_handle_t handle = *box;
    *box = nullptr;
    if (handle != nullptr) {
        norvi_close(handle);
    }
    return 0;
}

int HandleToString(lua_State* L) {
    norvi_handle_t* const box =
        static_cast<norvi_handle_t*>(luaL_checkudata(L, 1, kHandleMetatable));
    if (*box == nullptr) {
        lua_pushliteral(L, "norvi handle (closed)");
    } else {
        lua_pushfstring(L, "norvi handle (%p)", static_cast<void*>(*box));
    }
    return 1;
}

const luaL_Reg kFunctions[] = {
    {"BlacklistRequests", BlacklistRequests},
    {"EncodeRecord", EncodeRecord},
    {"SetBlacklistResult", SetBlacklistResult},
    {"SetSslResponseResult", SetSslResponseResult},
    {"SslResponses", SslResponses},
    {"SubmitSslRequest", SubmitSslRequest},
    {"listen_ssl", ListenSsl},
    {"open", Open},
    {"ssl_counters", SslCounters},
    {nullptr, nullptr},
};

const luaL_Reg kHandleMethods[] = {
    {"close", CloseHandle}, {"counters", Counters}, {"keylog", KeyLog},
    {"next", Next},         {nullptr, nullptr},
};

const luaL_Reg kHandleMetamethods[] = {
    {"__gc", CloseHandle},
    {"__tostring", HandleToString},
    {nullptr, nullptr},
};

}  // namespace

}  // namespace NorviLua

extern "C" int luaopen_norvi(lua_State* L) {
    if (luaL_newmetatable(L, NorviLua::kHandleMetatable)) {
        luaL_setfuncs(L, NorviLua::kHandleMetamethods, 0);
        luaL_newlib(L, NorviLua::kHandleMethods);
        lua_setfield(L, -2, "__index");
    }
    lua_pop(L, 1);
    luaL_newlib(L, NorviLua::kFunctions);
    return 1;
}
