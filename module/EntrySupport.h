// Helpers shared by the raw script functions of vexil::LogData.
#pragma once

#include <cstddef>
#include <exception>
#include <new>

#include <lua.hpp>

#include "config/ConfigUtils.h"
#include "host/Trace.h"
#include "host/slb/SLB.h"
#include "log/LogData.h"

namespace VEXIL {

// Position 1 as a log object; null when it is anything else.
inline LogData* LogDataArgument(lua_State* L) {
    return SLB::get<LogData*>(L, 1);
}

// The bytes of a string argument; anything that is no string counts as empty.
inline const char* BytesArgument(lua_State* L, int position, size_t& length) {
    length = 0;
    if (lua_type(L, position) != LUA_TSTRING) {
        return nullptr;
    }
    return lua_tolstring(L, position, &length);
}

// Runs call with a ConfigUtils on the table at configPosition placed in the
// log object for the length of the call, then clears and frees it. name is
// the entry's, for the trace of a failure. An error
// that Lua raised while the table was read is kept by the ConfigUtils; it is
// raised here, once nothing of the call is left alive.
template <typename Call>
auto WithConfig(lua_State* L, LogData* log, int configPosition, const char* name, Call call)
    -> decltype(call()) {
    ConfigUtils* config = new (std::nothrow) ConfigUtils(L, configPosition);
    log->SetConfigUtils(config);
    // No C++ exception may cross into the interpreter: a failure inside the
    // pipeline is an empty or false result, as any other.
    decltype(call()) result{};
    try {
        result = call();
    } catch (const std::exception& e) {
        NORV_TRACE(L"vexil", wxString::Format("%s failed: %.128s", name, e.what()));
    }
    log->SetConfigUtils(nullptr);
    if (config != nullptr && config->HasPendingError()) {
        config->PushPendingError();
        delete config;
        lua_error(L);
    }
    delete config;
    return result;
}

}  // namespace VEXIL
