// CSSLCredential: one SSL credential of the security configuration, the XML
// element "SSLCredential": where the private key of an SSL host configuration
// comes from and how to open it.
//
// Thread safety: none of its own. The service's copy is guarded by the
// configuration lock of CSSLCertThread; a worker copies one record out under
// that lock and then uses the copy alone.
#pragma once

#include <wx/string.h>

#include "host/IdObject.h"

namespace VEXIL {

class CSSLCredential : public NorvCore::CIdNameObject {
public:
    CSSLCredential();
    ~CSSLCredential() override;

    wxString GetElementName() const override;

    // The bound values, in binding order; all empty by default.
    wxString m_CredentialType;  // "credentialType": "PEM", "P12" or "CAPI"
    wxString m_Identifier;      // "identifier": key file path, or CAPI store;thumbprint
    wxString m_Passphrase;      // "passphrase": clear text, may be empty; never logged
    wxString m_Details;         // "details": free text, carried only
    wxString m_Credential;      // "credential": the key material in base64 on one line
};

}  // namespace VEXIL
