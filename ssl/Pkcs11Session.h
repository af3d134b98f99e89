// CPkcs11Session: one read-only session on a PKCS#11 token, closed with the
// object, with the few operations that the store kind of key needs: find
// objects, read an attribute, log in, decrypt.
//
// Thread safety: a session belongs to one thread at a time (the key that owns
// it belongs to one worker or one script), so nothing here locks; sessions of
// different threads on one module run side by side, which the module allows
// since it was initialized for that.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <p11-kit/pkcs11.h>

namespace VEXIL {

class CPkcs11Module;

class CPkcs11Session {
public:
    // Opens the session on the token of slot; Opened() tells the result.
    CPkcs11Session(CPkcs11Module& module, CK_SLOT_ID slot);
    ~CPkcs11Session();
    CPkcs11Session(const CPkcs11Session&) = delete;
    CPkcs11Session& operator=(const CPkcs11Session&) = delete;

    // CKR_OK when the session is open, else what C_OpenSession answered.
    CK_RV Opened() const { return m_OpenResult; }

    // Up to maxCount handles of the objects that match the template, in the
    // token's order.
    CK_RV FindObjects(CK_ATTRIBUTE* attributes, CK_ULONG attributeCount, size_t maxCount,
                      std::vector<CK_OBJECT_HANDLE>& found) const;
    // The value of one attribute of object; CKR_DATA_LEN_RANGE when it is
    // longer than maxLength.
    CK_RV GetAttribute(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type, size_t maxLength,
                       std::string& value) const;
    // As CPkcs11Module::Login, for this session's token.
    CK_RV Login(const std::string& pin);
    // Decrypts inLength bytes of in with key and PKCS#1 v1.5 padding, inside
    // the token, into out. A plain text longer than outCapacity fails with
    // CKR_BUFFER_TOO_SMALL; every call leaves no operation active, so a
    // failure never blocks the next call.
    CK_RV Decrypt(CK_OBJECT_HANDLE key, const void* in, size_t inLength, void* out,
                  size_t outCapacity, size_t& outLength);

private:
    CPkcs11Module& m_Module;
    const CK_SLOT_ID m_Slot;
    CK_SESSION_HANDLE m_Session;
    CK_RV m_OpenResult;
};

}  // namespace VEXIL
