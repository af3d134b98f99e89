// vexil.SSLHostConfigurations.Read(dom) gives the SSL host configurations of
// the store's security configuration as an array of tables {id, name,
// sslCredentialId, specificIP, allInterfaces}, or nil and a reason when the
// configuration holds none that can be read. Runs on the Lua thread.
#include "module/SSLHostConfigurationsLua.h"

#include <lua.hpp>

#include "host/Dom.h"
#include "module/EntryGuard.h"
#include "ssl/SSLHostConfiguration.h"
#include "ssl/SSLHostConfigurations.h"

namespace {

// Where the security configuration keeps the SSL host configurations.
const char kHostConfigurationsPath[] = "/SecurityConfiguration/SSLHostConfigurations";

// One host configuration as a table, pushed on the stack.
void PushHostConfiguration(lua_State* L, const VEXIL::CSSLHostConfiguration& item) {
    lua_createtable(L, 0, 5);
    lua_pushinteger(L, item.GetId());
    lua_setfield(L, -2, "id");
    SLB::detail::PushWxString(L, item.GetName());
    lua_setfield(L, -2, "name");
    lua_pushinteger(L, item.m_SslCredentialId);
    lua_setfield(L, -2, "sslCredentialId");
    SLB::detail::PushWxString(L, item.m_SpecificIP);
    lua_setfield(L, -2, "specificIP");
    lua_pushboolean(L, item.m_AllInterfaces);
    lua_setfield(L, -2, "allInterfaces");
}

int ReadHostConfigurationsLua(lua_State* L) {
    NorvCore::CDom* dom = SLB::get<NorvCore::CDom*>(L, 1);
    if (dom == nullptr) {
        return luaL_argerror(L, 1, "norv::Dom expected");
    }
    return VEXIL::GuardEntry(L, "SSLHostConfigurations.Read()", VEXIL::EntryFailure::Nil, [&] {
        VEXIL::CSSLHostConfigurations list;
        if (!dom->ConfigGetXml(kHostConfigurationsPath, list)) {
            lua_pushnil(L);
            lua_pushfstring(L, "no readable %s in the security configuration",
                            kHostConfigurationsPath);
            return 2;
        }
        lua_createtable(L, static_cast<int>(list.Children().size()), 0);
        int index = 0;
        for (const NorvCore::XMLObject* item : list.Children()) {
            PushHostConfiguration(L, static_cast<const VEXIL::CSSLHostConfiguration&>(*item));
            lua_rawseti(L, -2, ++index);
        }
        return 1;
    });
}

// Holds the script functions that read configuration records; it has no
// objects of its own.
struct CSSLHostConfigurationsFunctions {};

}  // namespace

void sslHostConfigurationsLua_Init(SLB::Manager* manager) {
    SLB::Class<CSSLHostConfigurationsFunctions, SLB::Instance::NoCopy>(
        "vexil::SSLHostConfigurations", manager)
        .setInfo("The SSL host configurations of the security configuration")
        .set("Read", SLB::FuncCall::create(ReadHostConfigurationsLua));
}
