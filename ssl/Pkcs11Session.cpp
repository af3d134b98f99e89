#include "ssl/Pkcs11Session.h"

#include <cstring>
#include <vector>

#include <wx/log.h>

#include "ssl/Pkcs11Module.h"

namespace VEXIL {

namespace {

// The most that a module may ask for a plain text before the call is given
// up; far above the largest RSA modulus.
const size_t kMaxPlainText = 65536;
// Handles asked for at a time while objects are found.
const CK_ULONG kFindBatch = 16;

}  // namespace

CPkcs11Session::CPkcs11Session(CPkcs11Module& module, CK_SLOT_ID slot)
    : m_Module(module), m_Slot(slot), m_Session(CK_INVALID_HANDLE) {
    m_OpenResult =
        m_Module.Functions()->C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &m_Session);
}

CPkcs11Session::~CPkcs11Session() {
    // Closing the last session of the process on the token also logs it out.
    if (m_OpenResult == CKR_OK) {
        const CK_RV rv = m_Module.Functions()->C_CloseSession(m_Session);
        if (rv != CKR_OK) {
            wxLogError("CPkcs11Session: C_CloseSession() failed: CKR 0x%lX", rv);
        }
    }
}

CK_RV CPkcs11Session::FindObjects(CK_ATTRIBUTE* attributes, CK_ULONG attributeCount,
                                  size_t maxCount, std::vector<CK_OBJECT_HANDLE>& found) const {
    found.clear();
    CK_FUNCTION_LIST* const functions = m_Module.Functions();
    CK_RV rv = functions->C_FindObjectsInit(m_Session, attributes, attributeCount);
    if (rv != CKR_OK) {
        return rv;
    }
    while (found.size() < maxCount) {
        CK_OBJECT_HANDLE batch[kFindBatch];
        CK_ULONG wanted =
            maxCount - found.size() < kFindBatch ? maxCount - found.size() : kFindBatch;
        CK_ULONG count = 0;
        rv = functions->C_FindObjects(m_Session, batch, wanted, &count);
        if (rv != CKR_OK || count == 0) {
            break;
        }
        found.insert(found.end(), batch, batch + (count < wanted ? count : wanted));
    }
    const CK_RV finalRv = functions->C_FindObjectsFinal(m_Session);
    return rv != CKR_OK ? rv : finalRv;
}

CK_RV CPkcs11Session::GetAttribute(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type,
                                   size_t maxLength, std::string& value) const {
    value.clear();
    CK_ATTRIBUTE attribute = {type, nullptr, 0};
    CK_RV rv = m_Module.Functions()->C_GetAttributeValue(m_Session, object, &attribute, 1);
    if (rv != CKR_OK) {
        return rv;
    }
    // An unavailable value reports the largest length, which this catches too.
    if (attribute.ulValueLen > maxLength) {
        return CKR_DATA_LEN_RANGE;
    }
    value.resize(attribute.ulValueLen);
    attribute.pValue = &value[0];
    rv = m_Module.Functions()->C_GetAttributeValue(m_Session, object, &attribute, 1);
    value.resize(rv == CKR_OK && attribute.ulValueLen <= value.size() ? attribute.ulValueLen : 0);
    return rv;
}

CK_RV CPkcs11Session::Login(const std::string& pin) {
    return m_Module.Login(m_Session, m_Slot, pin);
}

CK_RV CPkcs11Session::Decrypt(CK_OBJECT_HANDLE key, const void* in, size_t inLength, void* out,
                              size_t outCapacity, size_t& outLength) {
    outLength = 0;
    CK_FUNCTION_LIST* const functions = m_Module.Functions();
    CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
    CK_RV rv = functions->C_DecryptInit(m_Session, &mechanism, key);
    if (rv != CKR_OK) {
        return rv;
    }
    CK_BYTE* const input = static_cast<CK_BYTE*>(const_cast<void*>(in));
    CK_ULONG length = outCapacity;
    rv = functions->C_Decrypt(m_Session, input, inLength, static_cast<CK_BYTE*>(out), &length);
    if (rv == CKR_BUFFER_TOO_SMALL && length <= kMaxPlainText) {
        // A module may ask for room for a whole modulus before it looks at
        // the input, and keeps the operation active meanwhile: the call is
        // finished into a buffer of the size asked for, which ends it.
        std::vector<CK_BYTE> plain(length);
        rv = functions->C_Decrypt(m_Session, input, inLength, plain.data(), &length);
        if (rv == CKR_OK && length > outCapacity) {
            rv = CKR_BUFFER_TOO_SMALL;
        } else if (rv == CKR_OK) {
            std::memcpy(out, plain.data(), length);
        }
    }
    if (rv == CKR_OK) {
        outLength = length;
    }
    return rv;
}

}  // namespace VEXIL
