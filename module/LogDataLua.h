// The raw script functions of vexil::LogData, registered by luaopen_vexil.
#pragma once

#include <lua.hpp>

// log:WriteLogData(record, data, config, packet) -> boolean
int WriteLogDataLua(lua_State* L);
// log:SetNorvi(handle) -> 1
int SetNorviLua(lua_State* L);
