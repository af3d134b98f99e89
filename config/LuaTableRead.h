// Small helpers of the protected readers that ConfigUtils runs on the Lua
// stack (inside lua_pcall, where a Lua error may be raised safely).
#pragma once

#include <lua.hpp>

namespace VEXIL {

// Leaves the value on top as a string (a number is turned into one, as Lua
// does) or as nil.
inline void ToTextOrNil(lua_State* L) {
    if (lua_type(L, -1) == LUA_TSTRING || lua_type(L, -1) == LUA_TNUMBER) {
        lua_tolstring(L, -1, nullptr);
    } else {
        lua_pop(L, 1);
        lua_pushnil(L);
    }
}

}  // namespace VEXIL
