// The raw script function log:CacheMaintenance(config) of vexil::LogData,
// registered by luaopen_vexil.
#pragma once

#include <lua.hpp>

// log:CacheMaintenance(config) -> boolean: closes the time bin of the traffic
// analysis when it is due; true while the open bin holds flows.
int CacheMaintenanceLua(lua_State* L);
