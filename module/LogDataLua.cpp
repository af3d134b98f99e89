// The raw script functions of vexil::LogData: they read their arguments by
// stack position, hand over to the log object, and push the result.
//
// The entries that take a configuration table wrap its position in a
// ConfigUtils for the length of the call. An error that Lua raises while the
// table is read (an index of something that is no table) is caught inside
// ConfigUtils and kept; the entry raises it again here, once the call has
// returned and nothing of the log object is left half done.
#include "module/LogDataLua.h"

#include "host/Trace.h"
#include "module/EntrySupport.h"

using VEXIL::BytesArgument;
using VEXIL::DriverLogEntry;
using VEXIL::LogData;
using VEXIL::LogDataArgument;
using VEXIL::WithConfig;

int WriteLogDataLua(lua_State* L) {
    LogData* log = LogDataArgument(L);
    NORV_TRACE(L"vexil", "WriteLogData called!");
    if (log == nullptr) {
        return luaL_argerror(L, 1, "LogData object expected");
    }
    size_t recordLength, dataLength, packetLength;
    const char* record = BytesArgument(L, 2, recordLength);
    const char* data = BytesArgument(L, 3, dataLength);
    const char* packet = BytesArgument(L, 5, packetLength);
    bool result = false;
    // A record shorter than its fixed part is refused, never read past. A
    // trailing block too long for the working copy is refused by the copy.
    if (record != nullptr && recordLength >= DriverLogEntry::kSize && dataLength <= 0xFFFFFFFFu &&
        packetLength <= 0xFFFFFFFFu) {
        result = WithConfig(L, log, 4, "WriteLogData()", [&] {
            return log->WriteLogData(reinterpret_cast<const DriverLogEntry*>(record), data,
                                     u32(dataLength), reinterpret_cast<const u8*>(packet),
                                     u32(packetLength));
        });
    } else {
        NORV_TRACE(L"vexil", wxString::Format("WriteLogData() - refused a record of %u bytes",
                                              unsigned(recordLength)));
    }
    lua_pushboolean(L, result);
    return 1;
}

int SetNorviLua(lua_State* L) {
    LogData* log = LogDataArgument(L);
    if (log == nullptr) {
        NORV_TRACE(L"vexil", "LogData object expected");
        return luaL_argerror(L, 1, "LogData object expected");
    }
    auto* box = static_cast<norvi_handle_t*>(luaL_testudata(L, 2, "norvi_handle_t*"));
    if (box == nullptr) {
        NORV_TRACE(L"vexil", "norvi handle expected");
        return luaL_argerror(L, 2, "norvi handle expected");
    }
    if (*box == nullptr) {
        NORV_TRACE(L"vexil", "norvi handle already closed");
        return luaL_argerror(L, 2, "norvi handle already closed");
    }
    // The handle stays the script's: it is copied, never closed here.
    log->SetNorviHandle(*box);
    lua_pushinteger(L, 1);
    return 1;
}
