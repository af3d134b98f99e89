// CPkcs11Module: one PKCS#11 module (a shared library such as p11-kit's proxy
// or SoftHSM), through which the store kind of key reaches its token.
//
// A module is loaded with dlopen once per process and path, initialized once
// for use from several threads (the module does its own locking with the
// system's primitives), and never finalized nor unloaded: keys on any thread
// may hold sessions on it for as long as the process lives.
//
// PKCS#11 keeps the login state per token for the whole process, not per
// session. A token that another key has logged in answers a later login with
// "already logged in" whatever PIN it is given, so the module remembers a
// digest of the PIN that the token last accepted and holds every later PIN
// against it; the PIN itself is never kept.
//
// Thread safety: Get, FindToken and Login may be called from any thread.
// m_AcceptedPins is guarded by m_LoginLock, which also makes each login and
// its record one step; the rest is written once, before the module is shared.
#pragma once

#include <array>
#include <map>
#include <mutex>
#include <string>

#include <p11-kit/pkcs11.h>

namespace VEXIL {

class CPkcs11Module {
public:
    // The host setting that names the module's library; when it is absent or
    // empty, p11-kit's proxy, which loads every module registered with p11-kit.
    static constexpr const char* kModuleSetting = "norvp.vexil.SSL.pkcs11Module";

    // The module that the setting of the agent's current CDom names, loaded
    // and initialized; name receives the library as it was tried. Null, with
    // an error log line, when it can't be had; a later call tries again.
    static CPkcs11Module* Configured(std::string& name);
    // The module of the library at path (a file, or a name that the dynamic
    // linker searches), the same object on every call. Null, with an error
    // log line, when it can't be loaded or initialized.
    static CPkcs11Module* Get(const std::string& path);

    CPkcs11Module(const CPkcs11Module&) = delete;
    CPkcs11Module& operator=(const CPkcs11Module&) = delete;

    CK_FUNCTION_LIST* Functions() const { return m_Functions; }
    const std::string& Path() const { return m_Path; }

    // The first slot whose token's label, without its blank padding, is label
    // (UTF-8), and that token's flags. False when there is none.
    bool FindToken(const std::string& label, CK_SLOT_ID& slot, CK_FLAGS& tokenFlags) const;

    // Logs the user in with pin on session, a session on the token of slot.
    // CKR_OK when the token accepted pin now, or accepted the same pin before
    // and is still logged in; CKR_PIN_INCORRECT when it is logged in with
    // another; CKR_USER_ALREADY_LOGGED_IN when someone else logged it in and
    // pin can't be checked; otherwise what C_Login answered.
    CK_RV Login(CK_SESSION_HANDLE session, CK_SLOT_ID slot, const std::string& pin);

private:
    typedef std::array<unsigned char, 32> PinDigest;

    CPkcs11Module(const std::string& path, CK_FUNCTION_LIST* functions);

    const std::string m_Path;
    CK_FUNCTION_LIST* const m_Functions;  // the module's own table, valid for ever

    std::mutex m_LoginLock;
    std::map<CK_SLOT_ID, PinDigest> m_AcceptedPins;  // m_LoginLock: SHA-256 of the PIN
};

}  // namespace VEXIL
