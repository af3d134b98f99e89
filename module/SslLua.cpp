// vexil::SSLCertThread and vexil::RSAKey for scripts.
//
// vexil.RSAKey.Create(xml) parses one <SSLCredential> element and loads its
// key: the key object (owned by the script) on success; nil, a reason number
// and its name otherwise. vexil.SSLHostConfigurations.Read(dom) gives the SSL
// host configurations of the host store's security configuration, so that an
// agent can tell its driver which servers to inspect. Everything here runs on
// the Lua thread.
#include "module/SslLua.h"

#include <wx/string.h>
#include <lua.hpp>

#include "host/Dom.h"
#include "host/Runnable.h"
#include "host/TextHelpers.h"
#include "ssl/RSAKey.h"
#include "ssl/SSLCertThread.h"
#include "ssl/SSLCredential.h"
#include "ssl/SSLHostConfiguration.h"
#include "ssl/SSLHostConfigurations.h"

using VEXIL::CRSAKey;
using VEXIL::CSSLCertThread;

namespace {

// Result of a parse that met no credential.
const int kNotACredential = 400;
const char kNotACredentialText[] = "XML parsing of <SSLCredential> failed";

// Keys are made with new by their factory, so the script's collection deletes
// them the same way.
void DeleteKey(void* key) {
    delete static_cast<CRSAKey*>(key);
}

// vexil.RSAKey.Create(xml) -> key | nil, reason, text
int CreateRSAKeyLua(lua_State* L) {
    size_t length = 0;
    const char* text = luaL_checklstring(L, 1, &length);
    SLB::Manager* manager = SLB::Manager::getInstance(L);
    SLB::ClassInfo* keyClass =
        manager != nullptr ? manager->getClass(SLB::TypeID<CRSAKey>::Key()) : nullptr;
    if (keyClass == nullptr) {
        return luaL_error(L, "Unknown class %s", SLB::TypeID<CRSAKey>::Key().c_str());
    }
    // The instance exists before the key, so that a Lua memory error can't
    // leak the key; it is filled in or dropped below.
    SLB::InstanceBox* box = keyClass->pushInstance(L, nullptr, false);
    int reason = 0;
    char reasonText[64] = "";
    const int results = SLB::detail::Protect(L, [&] {
        VEXIL::CSSLCredential credential;
        if (credential.FromXML(wxString::FromUTF8(text, length), nullptr) !=
                NorvCore::XMLObject::ParseOk ||
            !credential.WasParsed()) {
            reason = kNotACredential;
            return 0;
        }
        CRSAKey::FailureReason failure = CRSAKey::UnsupportedCredentialType;
        CRSAKey* key = CRSAKey::Create(credential, &failure);
        if (key == nullptr) {
            reason = failure;
            strcpy_safe(reasonText, sizeof reasonText, CRSAKey::toString(failure).utf8_str());
            return 0;
        }
        box->object = key;
        return 1;
    });
    if (results == 1) {
        SLB::scriptOwnsInstance(L, -1, true);
        return 1;
    }
    lua_pop(L, 1);
    lua_pushnil(L);
    lua_pushinteger(L, reason);
    lua_pushstring(L, reason == kNotACredential ? kNotACredentialText : reasonText);
    return 3;
}

// Where the security configuration keeps the SSL host configurations.
const char kHostConfigurationsPath[] = "/SecurityConfiguration/SSLHostConfigurations";

// One host configuration as a table {id, name, sslCredentialId, specificIP,
// allInterfaces}, pushed on the stack.
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

// vexil.SSLHostConfigurations.Read(dom) -> array of tables | nil, reason
int ReadHostConfigurationsLua(lua_State* L) {
    NorvCore::CDom* dom = SLB::get<NorvCore::CDom*>(L, 1);
    if (dom == nullptr) {
        return luaL_argerror(L, 1, "norv::Dom expected");
    }
    return SLB::detail::Protect(L, [&] {
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

void sslLua_Init(SLB::Manager* manager) {
    SLB::Class<CSSLCertThread, SLB::Instance::NoCopy>("vexil::SSLCertThread", manager)
        .setInfo("VEXIL::CSSLCertThread: decrypts the driver's SSL pre-master secrets")
        .constructor<NorvCore::CDom&>()
        .inherits<NorvCore::CRunnable>()
        .inherits<wxThread>()
        .set("OnSecurityConfigurationChanged", &CSSLCertThread::OnSecurityConfigurationChanged);

    SLB::Class<CRSAKey, SLB::Instance::NoCopy>("vexil::RSAKey", manager)
        .setInfo("VEXIL::CRSAKey: an RSA private key loaded from an SSL credential")
        .set("Create", SLB::FuncCall::create(CreateRSAKeyLua))
        .set("FailureReason::BadIdentifierFormat", static_cast<int>(CRSAKey::BadIdentifierFormat))
        .set("FailureReason::IdentifierNotFound", static_cast<int>(CRSAKey::IdentifierNotFound))
        .set("FailureReason::ImproperKeyUsage", static_cast<int>(CRSAKey::ImproperKeyUsage))
        .set("FailureReason::IncorrectPassphrase", static_cast<int>(CRSAKey::IncorrectPassphrase))
        .set("FailureReason::KeyNotFound", static_cast<int>(CRSAKey::KeyNotFound))
        .set("FailureReason::UnableToLoadCredentials",
             static_cast<int>(CRSAKey::UnableToLoadCredentials))
        .set("FailureReason::UnableToOpenContainer",
             static_cast<int>(CRSAKey::UnableToOpenContainer))
        .set("FailureReason::UnableToOpenFile", static_cast<int>(CRSAKey::UnableToOpenFile))
        .set("FailureReason::UnsupportedCredentialType",
             static_cast<int>(CRSAKey::UnsupportedCredentialType));
    SLB::Class<CSSLHostConfigurationsFunctions, SLB::Instance::NoCopy>(
        "vexil::SSLHostConfigurations", manager)
        .setInfo("The SSL host configurations of the security configuration")
        .set("Read", SLB::FuncCall::create(ReadHostConfigurationsLua));
    if (SLB::ClassInfo* keyClass = manager->getClass(SLB::TypeID<CRSAKey>::Key())) {
        keyClass->setDestructor(&DeleteKey);
    }
}
