// The Lua module "norvi": what its files share. NorviLua.cpp registers the
// functions (one sorted table each for the module and the handle), the
// record encoder is in NorviRecordEncoder.cpp, the stand-in's test controls in
// NorviTestControls.cpp, the record sources and the SSL socket in
// NorviSources.cpp.
//
// Every function runs on the calling Lua thread. Functions that can raise a
// Lua error keep no C++ object with a destructor alive at that point (such
// objects live in userdata with a __gc, see NewScratch).
#pragma once

#include <new>

#include <lua.hpp>

#include "host/norvi.h"

namespace NorviLua {

// Metatable of the box that holds a norvi_handle_t; null once closed. Other
// modules test for this name with luaL_testudata.
extern const char kHandleMetatable[];

// The integer at index, which must be a number without a fraction within
// [low, high]; raises an argument error for argument otherwise.
lua_Number CheckWholeNumber(lua_State* L, int index, int argument, const char* what, lua_Number low,
                            lua_Number high);

// The named function of the loaded driver library; raises an error that
// starts with what when the library or the function is missing.
void* RequireSymbol(lua_State* L, const char* name, const char* what);

// The open handle in the box at index (argument 1); raises an argument error
// for anything else or a closed handle.
norvi_handle_t CheckOpenHandle(lua_State* L);

// A default-constructed T in a new userdata on the stack, destroyed by the
// collector: a C++ object that survives a Lua error without a leak. The
// metatable is made once per type, under the given name.
template <typename T>
T* NewScratch(lua_State* L, const char* metatable) {
    void* const memory = lua_newuserdata(L, sizeof(T));
    T* const object = new (memory) T();
    if (luaL_newmetatable(L, metatable)) {
        lua_pushcfunction(L, [](lua_State* state) -> int {
            static_cast<T*>(lua_touserdata(state, 1))->~T();
            return 0;
        });
        lua_setfield(L, -2, "__gc");
    }
    lua_setmetatable(L, -2);
    return object;
}

// Module functions.
int BlacklistRequests(lua_State* L);
int EncodeRecord(lua_State* L);
int ListenSsl(lua_State* L);
int SslCounters(lua_State* L);
int Open(lua_State* L);
int SetBlacklistResult(lua_State* L);
int SetSslResponseResult(lua_State* L);
int SslResponses(lua_State* L);
int SubmitSslRequest(lua_State* L);

// Handle methods.
int Counters(lua_State* L);
int KeyLog(lua_State* L);
int Next(lua_State* L);

}  // namespace NorviLua
