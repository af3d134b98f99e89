// The Lua entry of the module: luaopen_vexil publishes the system's classes
// through the interpreter's class binder.
#include <dlfcn.h>

#include <wx/dynlib.h>
#include <wx/log.h>
#include <lua.hpp>

#include "host/Toolkit.h"
#include "host/Trace.h"
#include "host/slb/SLB.h"
#include "log/LogData.h"
#include "module/LogDataLua.h"
#include "module/MaintenanceLua.h"
#include "module/QueryLua.h"
#include "module/SslLua.h"

using VEXIL::LogData;

namespace {

// Opens this module once more and never closes it, so that the module's own
// reference count never falls back to zero: the code stays mapped for the
// rest of the process, whatever the interpreter does with its handle.
wxDynamicLibrary* OpenSelf() {
    Dl_info info;
    if (dladdr(reinterpret_cast<void*>(&OpenSelf), &info) == 0 || info.dli_fname == nullptr) {
        return nullptr;
    }
    wxLogNull quiet;
    return new wxDynamicLibrary(wxString::FromUTF8(info.dli_fname), wxDL_NOW);
}

wxDynamicLibrary* g_SelfReference = OpenSelf();

void vexilLua_Init(SLB::Manager* manager) {
    SLB::Class<LogData, SLB::Instance::NoCopy>("vexil::LogData", manager)
        .setInfo("VEXIL::LogData: renders, caches, stores and analyses driver records")
        .constructor<NorvCore::CDom&>()
        .set("GetLogData", SLB::FuncCall::create(GetLogDataLua))
        .set("WriteLogData", SLB::FuncCall::create(WriteLogDataLua))
        .set("SyslogFormat", SLB::FuncCall::create(SyslogFormatLua))
        .set("SetNorvi", SLB::FuncCall::create(SetNorviLua))
        .set("SetLogFileName", &LogData::SetLogFileName)
        .set("GetLogFileName", &LogData::GetLogFileName)
        .set("SetLogFilePath", &LogData::SetLogFilePath)
        .set("GetLogFilePath", &LogData::GetLogFilePath)
        .set("SetLogFileSizeKB", &LogData::SetLogFileSizeKB)
        .set("GetLogFileSizeKB", &LogData::GetLogFileSizeKB)
        .set("SetNumberOfOldCopies", &LogData::SetNumberOfOldCopies)
        .set("GetNumberOfOldCopies", &LogData::GetNumberOfOldCopies)
        .set("GetLogFileFullPath", &LogData::GetLogFileFullPath)
        .set("FlushBufferedData", &LogData::FlushBufferedData)
        .set("InitializeLogFile", &LogData::InitializeLogFile)
        .set("CacheMaintenance", SLB::FuncCall::create(CacheMaintenanceLua));
    sslLua_Init(manager);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int luaopen_vexil(lua_State* L) {
    NorvCore::InitializeToolkit();
    NORV_TRACE(L"vexil", "luaopen_vexil");
    SLB::Manager* manager = SLB::Manager::getInstance(L);
    if (manager == nullptr) {
        return luaL_error(L, "SLB not initialized in this interpreter");
    }
    vexilLua_Init(manager);
    lua_pushboolean(L, 1);
    return 1;
}
