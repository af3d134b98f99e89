#include "ssl/SSLCredential.h"

namespace VEXIL {

CSSLCredential::CSSLCredential() : CIdNameObject(true) {
    AddAttribute(L"credentialType", &m_CredentialType, false);
    AddAttribute(L"identifier", &m_Identifier, false);
    AddAttribute(L"passphrase", &m_Passphrase, false);
    AddAttribute(L"details", &m_Details, false);
    AddAttribute(L"credential", &m_Credential, false);
}

CSSLCredential::~CSSLCredential() = default;

wxString CSSLCredential::GetElementName() const {
    return wxS("SSLCredential");
}

}  // namespace VEXIL
