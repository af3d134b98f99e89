// vexil.RSAKey.Create(xml) parses one <SSLCredential> element and loads its
// key: the key object (owned by the script) on success; nil, a reason number
// and its name otherwise. Runs on the Lua thread.
#include "module/RSAKeyLua.h"

#include <wx/string.h>
#include <lua.hpp>

#include "host/TextHelpers.h"
#include "module/EntryGuard.h"
#include "ssl/RSAKey.h"
#include "ssl/SSLCredential.h"

using VEXIL::CRSAKey;

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
    const int results = VEXIL::GuardEntry(L, "RSAKey.Create()", VEXIL::EntryFailure::Nil, [&] {
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
    if (results == 1 && box->object != nullptr) {
        SLB::scriptOwnsInstance(L, -1, true);
        return 1;
    }
    // A failure: no key, the empty instance (or the guard's nil) goes.
    lua_settop(L, 1);
    lua_pushnil(L);
    if (reason == 0) {
        return 1;
    }
    lua_pushinteger(L, reason);
    lua_pushstring(L, reason == kNotACredential ? kNotACredentialText : reasonText);
    return 3;
}

}  // namespace

void rsaKeyLua_Init(SLB::Manager* manager) {
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
    if (SLB::ClassInfo* keyClass = manager->getClass(SLB::TypeID<CRSAKey>::Key())) {
        keyClass->setDestructor(&DeleteKey);
    }
}
