// The Lua entry of the module: luaopen_vexil publishes the system's classes
// through the interpreter's class binder.
#include <dlfcn.h>

#include <wx/dynlib.h>
#include <wx/log.h>
#include <lua.hpp>

#include "host/Toolkit.h"
#include "host/slb/SLB.h"
#include "module/EntryGuard.h"
#include "module/LogDataLua.h"
#include "module/RSAKeyLua.h"
#include "module/SSLCertThreadLua.h"
#include "module/SSLHostConfigurationsLua.h"

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
    logDataLua_Init(manager);
    sslCertThreadLua_Init(manager);
    rsaKeyLua_Init(manager);
    sslHostConfigurationsLua_Init(manager);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int luaopen_vexil(lua_State* L) {
    SLB::Manager* manager = nullptr;
    const int results = VEXIL::GuardEntry(L, "luaopen_vexil", VEXIL::EntryFailure::LuaError, [&] {
        NorvCore::InitializeToolkit();
        VEXIL::TraceEntry("luaopen_vexil");
        manager = SLB::Manager::getInstance(L);
        if (manager == nullptr) {
            return 0;
        }
        vexilLua_Init(manager);
        lua_pushboolean(L, 1);
        return 1;
    });
    if (manager == nullptr) {
        return luaL_error(L, "SLB not initialized in this interpreter");
    }
    return results;
}
