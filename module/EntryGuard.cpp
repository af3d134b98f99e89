#include "module/EntryGuard.h"

#include <new>

#include "host/Trace.h"
#include "host/slb/SLB.h"

namespace VEXIL {

void TraceEntry(const char* message) noexcept {
    try {
        NORV_TRACE(L"vexil", message);
    } catch (...) {
        // A lost trace changes nothing else.
    }
}

void TraceEntryFailure(const char* name, const char* what) noexcept {
    try {
        NORV_TRACE(L"vexil", wxString::Format("%s failed: %.128s", name, what));
    } catch (...) {
        // A lost trace changes nothing else.
    }
}

int PushEntryFailure(lua_State* L, int top, const char* name, EntryFailure failure) {
    lua_settop(L, top);
    switch (failure) {
        case EntryFailure::False:
            lua_pushboolean(L, 0);
            break;
        case EntryFailure::EmptyString:
            lua_pushliteral(L, "");
            break;
        case EntryFailure::Nil:
            lua_pushnil(L);
            break;
        case EntryFailure::LuaError:
            return luaL_error(L, "%s failed", name);
    }
    return 1;
}

LogData* CheckLogData(lua_State* L, const char* called) {
    LogData* log = SLB::get<LogData*>(L, 1);
    if (called != nullptr) {
        TraceEntry(called);
    }
    if (log == nullptr) {
        luaL_argerror(L, 1, "LogData object expected");
    }
    return log;
}

const char* BytesArgument(lua_State* L, int position, size_t& length) {
    length = 0;
    if (lua_type(L, position) != LUA_TSTRING) {
        return nullptr;
    }
    return lua_tolstring(L, position, &length);
}

ConfigUtils* OpenConfig(lua_State* L, LogData* log, int position) {
    ConfigUtils* config = new (std::nothrow) ConfigUtils(L, position);
    log->SetConfigUtils(config);
    return config;
}

int CloseConfig(lua_State* L, LogData* log, ConfigUtils* config, int results) {
    log->SetConfigUtils(nullptr);
    if (config != nullptr && config->HasPendingError()) {
        config->PushPendingError();
        delete config;
        return lua_error(L);
    }
    delete config;
    return results;
}

}  // namespace VEXIL
