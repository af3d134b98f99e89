// The one guard of every script entry of the module, and the helpers that the
// raw functions of vexil::LogData share.
//
// No C++ exception may cross into the interpreter, which unwinds with longjmp
// and knows nothing of C++. GuardEntry runs an entry's work; whatever it
// throws (std::bad_alloc included) is traced under the entry's name and
// becomes the entry's failure result: false, an empty string, nil, or, for
// the module's load, a Lua error raised once the work's objects are gone.
// Argument errors are raised before the work starts, never inside it.
#pragma once

#include <cstddef>

#include <lua.hpp>

#include "config/ConfigUtils.h"
#include "log/LogData.h"

namespace VEXIL {

enum class EntryFailure {
    False,        // pushes false
    EmptyString,  // pushes ""
    Nil,          // pushes nil
    LuaError,     // raises "<entry> failed"
};

// Trace message under the category vexil; neither throws.
void TraceEntry(const char* message) noexcept;
// Traces "<name> failed: <what>".
void TraceEntryFailure(const char* name, const char* what) noexcept;
// Drops whatever the failed work left above top, pushes failure's value and
// returns 1; raises the Lua error for EntryFailure::LuaError.
int PushEntryFailure(lua_State* L, int top, const char* name, EntryFailure failure);

// Runs work, which pushes its results and returns their count.
template <class Work>
int GuardEntry(lua_State* L, const char* name, EntryFailure failure, Work&& work) {
    const int top = lua_gettop(L);
    try {
        return work();
    } catch (const std::exception& e) {
        TraceEntryFailure(name, e.what());
    } catch (...) {
        TraceEntryFailure(name, "unknown exception");
    }
    return PushEntryFailure(L, top, name, failure);
}

// Position 1 as a log object; traces called (when not null) and then raises
// "LogData object expected" when it is anything else.
LogData* CheckLogData(lua_State* L, const char* called = nullptr);

// The bytes of a string argument; anything that is no string counts as empty.
const char* BytesArgument(lua_State* L, int position, size_t& length);

// The configuration table at position, wrapped in a ConfigUtils that the log
// object holds for the length of one entry: OpenConfig places it, CloseConfig
// clears and frees it and then raises the Lua error that reading the table
// met, if any, once nothing of the call is left alive. CloseConfig returns
// results.
ConfigUtils* OpenConfig(lua_State* L, LogData* log, int position);
int CloseConfig(lua_State* L, LogData* log, ConfigUtils* config, int results);

}  // namespace VEXIL
