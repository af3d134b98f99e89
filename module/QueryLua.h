// The raw script functions of vexil::LogData that answer queries: the
// read-back of log lines by time span and the syslog text of one record.
#pragma once

#include <lua.hpp>

// log:GetLogData(startTime, endTime, role, maxLines) -> string
int GetLogDataLua(lua_State* L);
// log:SyslogFormat(record, data, config) -> string
int SyslogFormatLua(lua_State* L);
