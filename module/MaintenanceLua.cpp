// log:CacheMaintenance(config): the script's periodic call into the traffic
// analysis. The configuration table at position 2 is wrapped in a ConfigUtils
// for the length of the call; it is read only when an attacker is to be
// blocked (to spare the host's own interfaces). Runs on the Lua thread.
#include "module/MaintenanceLua.h"

#include "module/EntrySupport.h"

using VEXIL::LogData;
using VEXIL::LogDataArgument;
using VEXIL::WithConfig;

int CacheMaintenanceLua(lua_State* L) {
    LogData* log = LogDataArgument(L);
    if (log == nullptr) {
        return luaL_argerror(L, 1, "LogData object expected");
    }
    if (lua_type(L, 2) != LUA_TTABLE) {
        return luaL_argerror(L, 2, "lua table expected");
    }
    const bool result = WithConfig(L, log, 2, "CacheMaintenance()", [log]() {
        return log->CacheMaintenance(log->GetConfigUtils());
    });
    lua_pushboolean(L, result);
    return 1;
}
