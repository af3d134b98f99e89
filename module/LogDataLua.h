// The script class vexil::LogData.
#pragma once

#include "host/slb/SLB.h"

// Registers vexil::LogData: its constructor, its bound methods, and its raw
// functions, which read their arguments by stack position:
//   log:WriteLogData(record, data, config, packet) -> boolean
//   log:SetNorvi(handle) -> 1
//   log:GetLogData(startTime, endTime, role, maxLines) -> string
//   log:SyslogFormat(record, data, config) -> string
//   log:CacheMaintenance(config) -> boolean
void logDataLua_Init(SLB::Manager* manager);
